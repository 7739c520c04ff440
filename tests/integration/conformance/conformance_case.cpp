#include "conformance_case.h"

#include <algorithm>
#include <map>
#include <stdexcept>

#include "support/environment.h"

using support::child_elements;

namespace {

typedef struct _element_form {
  std::vector<std::string> attributes;
  std::vector<std::string> children; // empty: anything
} element_form_t;

const std::map<std::string, element_form_t> element_forms = {
    {"case", {{"title", "rfc"}, {"start", "step", "datastore", "close", "ended", "restart"}}},
    {"start", {{}, {}}},
    {"step", {{"session"}, {"send", "raw", "expect"}}},
    {"expect", {{}, {"ok", "data", "rpc-error", "rpc-reply"}}},
    {"datastore", {{"name", "select"}, {}}},
    {"close", {{"session"}, {}}},
    {"ended", {{"session"}, {}}},
    {"restart", {{}, {}}},
};

const std::map<std::string, step_kind> step_kinds = {{"step", step_kind::request},
                                                     {"datastore", step_kind::datastore},
                                                     {"close", step_kind::close},
                                                     {"ended", step_kind::ended},
                                                     {"restart", step_kind::restart}};

// A case that says something that nobody reads would pass without a check.
void demand(bool holds, const xmlNode *node, const std::string &what)
{
  if (!holds) {
    throw std::runtime_error("line " + std::to_string(xmlGetLineNo(node)) + ": " + what);
  }
}

void check_form(const xmlNode *node)
{
  std::string name = node_name(node);
  const element_form_t &form = element_forms.at(name);
  auto has = [](const std::vector<std::string> &names, const std::string &wanted) {
    return std::find(names.begin(), names.end(), wanted) != names.end();
  };
  for (const xmlAttr *attr = node->properties; attr != nullptr; attr = attr->next) {
    std::string attr_name(reinterpret_cast<const char *>(attr->name));
    demand(has(form.attributes, attr_name), node, "<" + name + "> has no attribute " + attr_name);
  }
  for (const xmlNode *child : child_elements(node)) {
    demand(form.children.empty() || has(form.children, node_name(child)), child,
           "<" + node_name(child) + "> does not stand in <" + name + ">");
  }
}

// The elements below, as they stand in the file.
std::string inner_text(const xmlNode *node)
{
  std::string text;
  for (const xmlNode *child : child_elements(node)) {
    std::unique_ptr<xmlBuffer, void (*)(xmlBuffer *)> buffer(xmlBufferCreate(), xmlBufferFree);
    xmlNodeDump(buffer.get(), child->doc, const_cast<xmlNode *>(child), 0, 0);
    text += reinterpret_cast<const char *>(xmlBufferContent(buffer.get()));
  }
  return text;
}

void read_request(const xmlNode *node, conformance_step_t *step)
{
  for (const xmlNode *child : child_elements(node)) {
    if (node_name(child) == "expect") {
      demand(step->expect == nullptr, child, "a second <expect>");
      check_form(child);
      step->expect = child;
      continue;
    }
    demand(step->request.empty(), child, "a second request");
    step->is_raw = node_name(child) == "raw";
    std::unique_ptr<xmlChar, void (*)(void *)> content(xmlNodeGetContent(child), xmlFree);
    step->request = step->is_raw ? reinterpret_cast<const char *>(content.get()) : inner_text(child);
    demand(step->is_raw || child_elements(child).size() == 1, child, "<send> holds one operation");
  }
  demand(!step->request.empty(), node, "no request");
  demand(step->expect != nullptr && !child_elements(step->expect).empty(), node, "no expected reply");
}

void read_case(conformance_case_t *result)
{
  const xmlNode *root = xmlDocGetRootElement(result->document.get());
  demand(node_name(root) == "case", root, "no <case>");
  demand(!attribute(root, "title").empty(), root, "no title");
  for (const xmlNode *node : child_elements(root)) {
    demand(element_forms.count(node_name(node)) != 0, node, "unknown <" + node_name(node) + ">");
    check_form(node);
    if (node_name(node) == "start") {
      result->start += inner_text(node);
      continue;
    }
    conformance_step_t step;
    step.kind = step_kinds.at(node_name(node));
    step.session = attribute(node, "session", "a");
    step.line = static_cast<int>(xmlGetLineNo(node));
    if (step.kind == step_kind::request) {
      read_request(node, &step);
    } else if (step.kind == step_kind::datastore) {
      demand(!attribute(node, "name").empty() && !attribute(node, "select").empty(), node, "<datastore> of what?");
      step.expect = node;
    }
    result->steps.push_back(step);
  }
  check_form(root);
  demand(std::any_of(result->steps.begin(), result->steps.end(), [](const auto &step) { return step.expect; }), root,
         "nothing is expected");
}

} // namespace

std::string node_name(const xmlNode *node)
{
  return reinterpret_cast<const char *>(node->name);
}

std::string attribute(const xmlNode *node, const char *name, const std::string &fallback)
{
  std::unique_ptr<xmlChar, void (*)(void *)> value(xmlGetNoNsProp(node, reinterpret_cast<const xmlChar *>(name)),
                                                   xmlFree);
  return value == nullptr ? fallback : reinterpret_cast<const char *>(value.get());
}

testing::AssertionResult load_case(const std::string &path, conformance_case_t *ret_case)
{
  conformance_case_t result;
  result.document = support::parse_xml(support::read_file(path), support::xml_blanks::kept);
  if (result.document == nullptr) {
    return testing::AssertionFailure() << path << " is no well-formed XML";
  }
  try {
    read_case(&result);
  } catch (const std::runtime_error &fault) {
    return testing::AssertionFailure() << path << ": " << fault.what();
  }
  *ret_case = std::move(result);
  return testing::AssertionSuccess();
}
