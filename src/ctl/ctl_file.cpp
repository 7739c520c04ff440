#include "ctl/ctl_file.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <libxml/parser.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ctl/ctl_print.h"
#include "ctl/ctl_tree.h"
#include "ctl/ctl_xml.h"

namespace {

constexpr char BLANKS[] = " \t\r\n";
constexpr size_t DEEPEST_JSON = 256; // as the parser of XML has it

class file_descriptor {
public:
  explicit file_descriptor(int descriptor) : descriptor_(descriptor) {}
  ~file_descriptor() { (void)close_now(); } // whoever wants to know has closed it
  file_descriptor(const file_descriptor &) = delete;
  file_descriptor &operator=(const file_descriptor &) = delete;

  int get() const { return descriptor_; }
  int close_now()
  {
    const int result = descriptor_ < 0 ? 0 : close(descriptor_);
    descriptor_ = -1;
    return result;
  }

private:
  int descriptor_;
};

int fail_file(const ctl_output_t &output, const std::string &path, const std::string &what)
{
  return ctl_fail(output, CTL_INPUT, path + ": " + what);
}

bool write_all(int descriptor, std::string_view text)
{
  while (!text.empty()) {
    const ssize_t count = write(descriptor, text.data(), text.size());
    if (count < 0 && errno != EINTR) {
      return false;
    }
    text.remove_prefix(count < 0 ? 0 : static_cast<size_t>(count));
  }
  return true;
}

std::string folder_of(const std::string &path)
{
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// "-" is standard input.
int read_file(const ctl_output_t &output, const std::string &path, std::string *ret_text)
{
  const bool is_input = path == "-";
  file_descriptor file(is_input ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0) : open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::string text;
  char piece[65536];
  ssize_t count = file.get() < 0 ? -1 : 1;
  while (count > 0) {
    if (text.size() > INT_MAX) {
      return fail_file(output, path, "it is too large"); // it may be a device that has no end
    }
    count = read(file.get(), piece, sizeof(piece));
    text.append(piece, count > 0 ? static_cast<size_t>(count) : 0);
  }
  if (count < 0) {
    return fail_file(output, path, strerror(errno));
  }
  *ret_text = std::move(text);
  return CTL_OK;
}

// --- XML.

struct parser_delete_t {
  void operator()(xmlParserCtxt *parser) const { xmlFreeParserCtxt(parser); }
};
struct buffer_delete_t {
  void operator()(xmlBuffer *buffer) const { xmlBufferFree(buffer); }
};
using buffer_ptr = std::unique_ptr<xmlBuffer, buffer_delete_t>;

typedef struct _xml_fault {
  int code = XML_ERR_OK;
  int line = 0;
  std::string message;
} xml_fault_t;

void refuse_doctype(void *parser, const xmlChar *, const xmlChar *, const xmlChar *)
{
  auto *context = static_cast<xmlParserCtxt *>(parser);
  context->wellFormed = 0; // to stop it does not
  xmlStopParser(context);
}

// Null with the fault. No document type: it could bring in other files.
ctl_xml_ptr parse_document(const std::string &text, xml_fault_t *ret_fault)
{
  std::unique_ptr<xmlParserCtxt, parser_delete_t> parser(xmlNewParserCtxt());
  if (parser == nullptr || text.size() > INT_MAX) {
    ret_fault->message = "it is too large";
    return nullptr;
  }
  parser->sax->internalSubset = refuse_doctype;
  const int options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_BIG_LINES;
  ctl_xml_ptr document(
      xmlCtxtReadMemory(parser.get(), text.data(), static_cast<int>(text.size()), nullptr, nullptr, options));
  if (document != nullptr && parser->wellFormed != 0 && parser->nsWellFormed != 0) {
    return document;
  }
  const xmlError &error = parser->lastError;
  ret_fault->code = error.code;
  ret_fault->line = error.line;
  ret_fault->message =
      error.message == nullptr || parser->errNo == XML_ERR_USER_STOP ? "a document type is not taken" : error.message;
  while (!ret_fault->message.empty() && ret_fault->message.back() == '\n') {
    ret_fault->message.pop_back();
  }
  return nullptr;
}

// The document without its declaration, whose lines stay.
std::string without_declaration(std::string text)
{
  const size_t end = text.starts_with("<?xml") ? text.find("?>") : std::string::npos;
  return end == std::string::npos ? text : text.erase(0, end + 2);
}

bool is_base(const xmlNode *node)
{
  return node->ns == nullptr || strcmp(reinterpret_cast<const char *>(node->ns->href), YMGR_BASE_NAMESPACE) == 0;
}

// Whose children the top elements of the configuration are: an element that only wraps them, or the document.
const xmlNode *find_top(const xmlDoc *document)
{
  const xmlNode *root = xmlDocGetRootElement(document);
  const xmlNode *reply_data = is_base(root) && ctl_xml_is(root, "rpc-reply") ? ctl_xml_child(root, "data") : nullptr;
  if (reply_data != nullptr) {
    return reply_data;
  }
  bool is_wrapper = false;
  for (const char *name : {"config", "data", "rpc"}) {
    is_wrapper = is_wrapper || (is_base(root) && ctl_xml_is(root, name));
  }
  return is_wrapper ? root : reinterpret_cast<const xmlNode *>(document);
}

void drop_comments(xmlNode *node)
{
  for (xmlNode *child = node->children; child != nullptr;) {
    xmlNode *next = child->next;
    if (child->type == XML_COMMENT_NODE || child->type == XML_PI_NODE) {
      xmlUnlinkNode(child);
      xmlFreeNode(child);
    } else if (child->type == XML_ELEMENT_NODE) {
      drop_comments(child);
    }
    child = next;
  }
}

// The namespaces that are declared above the element, on itself: it goes elsewhere.
void declare_namespaces(xmlDoc *document, xmlNode *element)
{
  struct list_delete_t {
    void operator()(xmlNs **list) const { xmlFree(list); }
  };
  const std::unique_ptr<xmlNs *, list_delete_t> list(xmlGetNsList(document, element));
  for (xmlNs **ns = list.get(); ns != nullptr && *ns != nullptr; ns++) {
    (void)xmlNewNs(element, (*ns)->href, (*ns)->prefix); // null when it is declared there already
  }
}

// The elements as text, each in the line that it has in the file.
std::string dump_elements(xmlDoc *document, const xmlNode *top)
{
  std::string text;
  long line = 1;
  for (xmlNode *child = top->children; child != nullptr; child = child->next) {
    if (child->type != XML_ELEMENT_NODE) {
      continue;
    }
    drop_comments(child);
    declare_namespaces(document, child);
    const buffer_ptr buffer(xmlBufferCreate());
    if (buffer == nullptr || xmlNodeDump(buffer.get(), document, child, 0, 0) < 0) {
      return "";
    }
    for (; line < xmlGetLineNo(child); line++) {
      text.push_back('\n');
    }
    const std::string_view element(reinterpret_cast<const char *>(xmlBufferContent(buffer.get())),
                                   static_cast<size_t>(xmlBufferLength(buffer.get())));
    line += std::count(element.begin(), element.end(), '\n');
    text.append(element);
  }
  return text;
}

int extract_elements(const ctl_output_t &output, const std::string &path, const std::string &text,
                     std::string *ret_elements)
{
  if (text.find_first_not_of(BLANKS) == std::string::npos) {
    ret_elements->clear();
    return CTL_OK;
  }
  xml_fault_t fault;
  ctl_xml_ptr document = parse_document(text, &fault);
  if (document == nullptr && fault.code == XML_ERR_DOCUMENT_END) {
    document = parse_document(std::string("<config xmlns=\"") + YMGR_BASE_NAMESPACE + "\">" +
                                  without_declaration(text) + "</config>",
                              &fault); // several top elements
  }
  if (document == nullptr) {
    return fail_file(output, path, (fault.line > 0 ? "line " + std::to_string(fault.line) + ": " : "") + fault.message);
  }
  *ret_elements = dump_elements(document.get(), find_top(document.get()));
  return CTL_OK;
}

// --- What the schema says.

// 'Data location "/ex-sys:system/port", line number 5.' as "line 5, /ex-sys:system/port: MESSAGE".
std::string describe_fault(const ly_ctx *schema)
{
  const ly_err_item *cause = ly_err_first(schema);
  if (cause == nullptr || cause->msg == nullptr) {
    return "it does not fit the YANG modules";
  }
  const std::string_view place = cause->path == nullptr ? "" : cause->path;
  constexpr std::string_view LINE = "ine number "; // with "L" or "l"
  std::string text;
  if (const size_t line = place.rfind(LINE); line != std::string::npos) {
    const size_t begin = line + LINE.size();
    text.append("line ").append(place.substr(begin, place.find_first_not_of("0123456789", begin) - begin));
  }
  if (const size_t begin = place.find('"'), end = place.rfind('"'); begin != end) {
    text.append(text.empty() ? "" : ", ").append(place.substr(begin + 1, end - begin - 1));
  }
  return text.append(text.empty() ? "" : ": ").append(cause->msg);
}

// A leaf that is to go need not say its value: <port nc:operation="delete"/>.
bool is_removed_leaf(const lyd_node *node)
{
  const auto *opaque = reinterpret_cast<const lyd_node_opaq *>(node);
  const lys_module *module = opaque->name.module_ns == nullptr
                                 ? nullptr
                                 : ly_ctx_get_module_implemented_ns(LYD_CTX(node), opaque->name.module_ns);
  const lyd_node *parent = lyd_parent(node);
  const lysc_node *schema =
      module == nullptr || (parent != nullptr && parent->schema == nullptr)
          ? nullptr
          : lys_find_child(parent == nullptr ? nullptr : parent->schema, module, opaque->name.name, 0, 0, 0);
  if (schema == nullptr || schema->nodetype != LYS_LEAF || (opaque->value != nullptr && *opaque->value != '\0')) {
    return false;
  }
  for (const lyd_attr *attribute = opaque->attr; attribute != nullptr; attribute = attribute->next) {
    if (strcmp(attribute->name.name, "operation") == 0) {
      return strcmp(attribute->value, "delete") == 0 || strcmp(attribute->value, "remove") == 0;
    }
  }
  return false;
}

// All that the schema does not take as it is.
bool has_only_removed_leaves(const lyd_node *first)
{
  bool is_found = false;
  for (const lyd_node *top = first; top != nullptr; top = top->next) {
    const lyd_node *node = nullptr;
    LYD_TREE_DFS_BEGIN(top, node)
    {
      if (node->schema == nullptr && !is_removed_leaf(node)) {
        return false;
      }
      is_found = is_found || node->schema == nullptr;
      LYD_TREE_DFS_END(top, node);
    }
  }
  return is_found;
}

ctl_tree_ptr parse_config(const ly_ctx *schema, const std::string &text, LYD_FORMAT format, uint32_t strictness)
{
  lyd_node *tree = nullptr;
  ly_err_clean(const_cast<ly_ctx *>(schema), nullptr);
  const uint32_t options = LYD_PARSE_ONLY | LYD_PARSE_NO_STATE | strictness;
  const LY_ERR result = lyd_parse_data_mem(schema, text.c_str(), format, options, 0, &tree);
  ctl_tree_ptr owner(tree);
  return result == LY_SUCCESS ? std::move(owner) : nullptr;
}

bool fits_schema(const ly_ctx *schema, const std::string &xml, std::string *ret_fault)
{
  if (xml.empty() || parse_config(schema, xml, LYD_XML, LYD_PARSE_STRICT) != nullptr) {
    return true;
  }
  *ret_fault = describe_fault(schema);
  const ctl_tree_ptr tree = parse_config(schema, xml, LYD_XML, LYD_PARSE_OPAQ);
  return tree != nullptr && has_only_removed_leaves(tree.get());
}

// The number of a "\uXXXX" at that place; -1 when there is none.
long escaped_unit(std::string_view text, size_t place)
{
  unsigned unit = 0;
  if (text.size() < place + 6 || text.substr(place, 2) != "\\u") {
    return -1;
  }
  const char *begin = text.data() + place + 2;
  const auto [end, error] = std::from_chars(begin, begin + 4, unit, 16);
  return error == std::errc() && end == begin + 4 ? static_cast<long>(unit) : -1;
}

// Characters that are written as a pair of escapes (RFC 8259, section 7), which libyang does not know, as themselves.
std::string without_pairs(std::string_view json)
{
  std::string text;
  for (size_t i = 0; i < json.size();) {
    const long high = json[i] == '\\' ? escaped_unit(json, i) : -1;
    const long low = high >= 0xD800 && high < 0xDC00 ? escaped_unit(json, i + 6) : -1;
    if (low >= 0xDC00 && low < 0xE000) {
      const long code = 0x10000 + ((high - 0xD800) << 10) + (low - 0xDC00);
      for (int shift = 18; shift >= 0; shift -= 6) {
        text += static_cast<char>(shift == 18 ? 0xF0 | (code >> shift) : 0x80 | ((code >> shift) & 0x3F));
      }
      i += 12;
    } else {
      const size_t size = json[i] == '\\' && i + 1 < json.size() ? 2 : 1; // "\\u" is no escape of a character
      text.append(json.substr(i, size));
      i += size;
    }
  }
  return text;
}

// What libyang does not look at; empty when nothing is wrong. It goes down as deep as the text does, loses its way in
// arrays of arrays (which only an anyxml could hold), and takes no notice of what stands behind the first object or
// NUL.
std::string json_fault(std::string_view json)
{
  std::string open; // brackets
  size_t end = 0;   // of the object
  bool in_text = false;
  for (size_t i = 0; i < json.size() && end == 0; i++) {
    const char c = json[i];
    if (c == '\0') {
      return "it is no text";
    }
    if (c == '"' || in_text) {
      i += c == '\\' ? 1 : 0;
      in_text = (c == '"') != in_text;
    } else if (c == '{' || c == '[') {
      if (open.size() == DEEPEST_JSON || (c == '[' && open.ends_with('['))) {
        return open.size() == DEEPEST_JSON ? "it is nested too deeply" : "an array in an array is not taken";
      }
      open += c;
    } else if ((c == '}' || c == ']') && !open.empty()) {
      open.pop_back();
      end = open.empty() ? i + 1 : 0;
    }
  }
  const bool goes_on = end > 0 && json.find_first_not_of(BLANKS, end) != std::string_view::npos;
  return goes_on ? "something follows the object" : "";
}

int convert_json(ctl_device &device, const ly_ctx *schema, const std::string &path, const std::string &text,
                 std::string *ret_config)
{
  if (const std::string fault = json_fault(text); !fault.empty()) {
    return fail_file(device.output(), path, fault);
  }
  const bool has_pairs = text.find("\\u") != std::string::npos;
  const ctl_tree_ptr tree = parse_config(schema, has_pairs ? without_pairs(text) : text, LYD_JSON, LYD_PARSE_STRICT);
  if (tree == nullptr) {
    if (ly_err_first(schema) != nullptr) {
      return fail_file(device.output(), path, describe_fault(schema));
    }
    ret_config->clear(); // "{}"
    return CTL_OK;
  }
  std::string printed;
  if (!ctl_encode(tree.get(), LYD_XML, LYD_PRINT_SHRINK, &printed)) {
    return fail_file(device.output(), path, "it cannot be put into XML");
  }
  *ret_config = ctl_xml_keep_returns(printed);
  return CTL_OK;
}

// --- Layout.

void insert_break(xmlNode *before, xmlNode *parent, int depth)
{
  const std::string blank = "\n" + std::string(static_cast<size_t>(depth) * 2, ' ');
  xmlNode *text = xmlNewText(reinterpret_cast<const xmlChar *>(blank.c_str()));
  if (text != nullptr) {
    (void)(before != nullptr ? xmlAddPrevSibling(before, text) : xmlAddChild(parent, text));
  }
}

// Only elements that the schema knows as containers and lists hold blanks that mean nothing.
void lay_out(const ly_ctx *schema, const lysc_node *place, xmlNode *element, int depth)
{
  bool has_children = false;
  for (xmlNode *child = element->children; child != nullptr; child = child->next) {
    if (child->type != XML_ELEMENT_NODE) {
      continue;
    }
    has_children = true;
    insert_break(child, element, depth + 1);
    const lys_module *module =
        child->ns == nullptr
            ? nullptr
            : ly_ctx_get_module_implemented_ns(schema, reinterpret_cast<const char *>(child->ns->href));
    const lysc_node *node = module == nullptr
                                ? nullptr
                                : lys_find_child(place, module, reinterpret_cast<const char *>(child->name), 0, 0, 0);
    if (node != nullptr && (node->nodetype & (LYS_CONTAINER | LYS_LIST)) != 0) {
      lay_out(schema, node, child, depth + 1);
    }
  }
  if (has_children) {
    insert_break(nullptr, element, depth);
  }
}

} // namespace

int ctl_replace_file(const ctl_output_t &output, const std::string &path, std::string_view text)
{
  struct stat found = {};
  if (stat(path.c_str(), &found) == 0 && !S_ISREG(found.st_mode)) {
    return fail_file(output, path, "it is no ordinary file");
  }
  std::string temporary = path + ".XXXXXX";
  file_descriptor file(mkostemp(temporary.data(), O_CLOEXEC)); // mode 0600
  if (file.get() < 0) {
    return fail_file(output, path, strerror(errno));
  }
  if (!write_all(file.get(), text) || fsync(file.get()) != 0 || file.close_now() != 0 ||
      rename(temporary.c_str(), path.c_str()) != 0) {
    const int cause = errno;
    (void)unlink(temporary.c_str());
    return fail_file(output, path, strerror(cause));
  }
  const file_descriptor folder(open(folder_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  (void)fsync(folder.get()); // some file systems cannot; the content is safe
  return CTL_OK;
}

ctl_format ctl_file_format(std::string_view choice, std::string_view path, std::string_view text)
{
  if (choice == "xml" || (choice != "json" && path.ends_with(".xml"))) {
    return ctl_format::xml;
  }
  if (choice == "json" || path.ends_with(".json")) {
    return ctl_format::json;
  }
  const size_t first = text.find_first_not_of(BLANKS);
  return first != std::string_view::npos && text[first] == '{' ? ctl_format::json : ctl_format::xml;
}

int ctl_read_elements(const ctl_output_t &output, const std::string &path, std::string *ret_elements)
{
  std::string text;
  const int result = read_file(output, path, &text);
  return result == CTL_OK ? extract_elements(output, path, text, ret_elements) : result;
}

int ctl_read_config(ctl_device &device, const std::string &path, std::string_view format, std::string *ret_config)
{
  std::string text;
  int result = read_file(device.output(), path, &text);
  if (result != CTL_OK) {
    return result;
  }
  if (text.find_first_not_of(BLANKS) == std::string::npos) {
    return fail_file(device.output(), path, "it is empty"); // a copy that went wrong, rather than no configuration
  }
  const ly_ctx *schema = device.schema();
  if (schema == nullptr) {
    return CTL_INPUT;
  }
  if (ctl_file_format(format, path, text) == ctl_format::json) {
    return convert_json(device, schema, path, text, ret_config);
  }
  std::string config;
  result = extract_elements(device.output(), path, text, &config);
  std::string fault;
  if (result == CTL_OK && !fits_schema(schema, config, &fault)) {
    result = fail_file(device.output(), path, fault);
  }
  if (result == CTL_OK) {
    *ret_config = std::move(config);
  }
  return result;
}

int ctl_encode_json(const ctl_output_t &output, const lyd_node *tree, std::string *ret_text)
{
  if (tree == nullptr) {
    *ret_text = "{}\n";
    return CTL_OK;
  }
  if (const lyd_node *document = ctl_find_document(tree)) {
    return ctl_fail(output, CTL_INPUT,
                    ctl_node_name(document) + " holds XML, which JSON cannot hold as it is: use the format xml");
  }
  return ctl_encode(tree, LYD_JSON, 0, ret_text) ? CTL_OK
                                                 : ctl_fail(output, CTL_INPUT, "the data cannot be put into JSON");
}

int ctl_layout_config(ctl_device &device, const std::string &reply, std::string *ret_xml)
{
  const ly_ctx *schema = device.schema();
  const ctl_xml_ptr document = ctl_parse_xml(reply);
  const xmlNode *data = document == nullptr ? nullptr : ctl_xml_child(xmlDocGetRootElement(document.get()), "data");
  if (schema == nullptr || data == nullptr) {
    return schema == nullptr ? CTL_INPUT : ctl_fail(device.output(), CTL_INPUT, "the reply holds no data");
  }
  auto *top = const_cast<xmlNode *>(data); // of our own document
  declare_namespaces(document.get(), top);
  lay_out(schema, nullptr, top, 0);
  const buffer_ptr buffer(xmlBufferCreate());
  if (buffer == nullptr || xmlNodeDump(buffer.get(), document.get(), top, 0, 0) < 0) {
    return ctl_fail(device.output(), CTL_INPUT, "the data cannot be put into XML");
  }
  ret_xml->assign(reinterpret_cast<const char *>(xmlBufferContent(buffer.get()))).append("\n");
  return CTL_OK;
}
