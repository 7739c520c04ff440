#include <memory>

#include "ctl/ctl_commands.h"
#include "ctl/ctl_file.h"
#include "ctl/ctl_options.h"
#include "ctl/ctl_print.h"
#include "ctl/ctl_reply.h"
#include "ctl/ctl_xml.h"

namespace {

// The operation as a node that has the reply's output as children; null when the schema does not know it.
ctl_tree_ptr parse_output(const ly_ctx *schema, const std::string &operation, const std::string &reply)
{
  lyd_node *tree = nullptr;
  lyd_node *node = nullptr;
  const ctl_input_ptr request = ctl_open_text(operation);
  if (request == nullptr ||
      lyd_parse_op(schema, nullptr, request.get(), LYD_XML, LYD_TYPE_RPC_YANG, &tree, &node) != LY_SUCCESS) {
    lyd_free_all(tree);
    return nullptr;
  }
  ctl_tree_ptr owner(tree);
  while (lyd_child(node) != nullptr) {
    lyd_free_tree(lyd_child(node)); // the input
  }
  lyd_node *envelope = nullptr;
  const ctl_input_ptr output = ctl_open_text(reply);
  const bool is_known = output != nullptr && lyd_parse_op(schema, node, output.get(), LYD_XML, LYD_TYPE_REPLY_NETCONF,
                                                          &envelope, nullptr) == LY_SUCCESS;
  lyd_free_all(envelope);
  return is_known && node->parent == nullptr ? std::move(owner) : nullptr;
}

// As it came.
int print_content(const ctl_output_t &output, xmlDoc *document, const xmlNode *parent)
{
  struct buffer_delete_t {
    void operator()(xmlBuffer *buffer) const { xmlBufferFree(buffer); }
  };
  const std::unique_ptr<xmlBuffer, buffer_delete_t> buffer(xmlBufferCreate());
  std::string text;
  for (xmlNode *child = parent->children; child != nullptr && buffer != nullptr; child = child->next) {
    xmlBufferEmpty(buffer.get());
    if (child->type == XML_ELEMENT_NODE && xmlNodeDump(buffer.get(), document, child, 0, 1) > 0) {
      text.append(reinterpret_cast<const char *>(xmlBufferContent(buffer.get()))).append("\n");
    }
  }
  return ctl_write(output, text);
}

int print_reply(ctl_device &device, const std::string &operation, const std::string &reply)
{
  const ctl_xml_ptr document = ctl_parse_xml(reply);
  const xmlNode *root = document == nullptr ? nullptr : xmlDocGetRootElement(document.get());
  if (root == nullptr) {
    return ctl_fail(device.output(), CTL_INPUT, "the reply is no XML");
  }
  if (ctl_xml_child(root, "ok") != nullptr) {
    return ctl_write(device.output(), "ok\n");
  }
  const ly_ctx *schema = device.schema();
  if (schema == nullptr) {
    return CTL_INPUT;
  }
  if (ctl_xml_child(root, "data") != nullptr) {
    ctl_tree_ptr tree;
    const int result = ctl_reply_data(device, reply, &tree);
    return result == CTL_OK ? ctl_print(device.output(), tree.get()) : result;
  }
  const ctl_tree_ptr output = parse_output(schema, operation, reply);
  return output == nullptr ? print_content(device.output(), document.get(), root)
                           : ctl_print(device.output(), lyd_child(output.get()));
}

int run_rpc(ctl_device &device, const std::string &path)
{
  std::string operation;
  int result = ctl_read_elements(device.output(), path, &operation);
  if (result != CTL_OK) {
    return result;
  }
  if (operation.empty()) {
    return ctl_fail(device.output(), CTL_INPUT, path + ": there is no operation in it");
  }
  std::string reply;
  result = device.rpc(operation, &reply);
  return result == CTL_OK ? print_reply(device, operation, reply) : result;
}

} // namespace

ctl_action ctl_define_rpc(CLI::App *app)
{
  auto path = std::make_shared<std::string>();
  ctl_add_file(app, "holds one operation, alone or in <rpc>; \"-\" is standard input", path.get());
  return [path](ctl_device &device) { return run_rpc(device, *path); };
}
