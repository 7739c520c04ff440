// What paths become on the wire: filters, and edits.
#include <algorithm>

#include "ctl/ctl_path.h"
#include "ctl/ctl_schema.h"
#include "ctl/ctl_value.h"
#include "ctl/ctl_xml.h"

namespace {

// "<NAME xmlns=...", still open.
std::string open_tag(const ctl_path_t &path, size_t index)
{
  const lysc_node *node = path[index].schema;
  std::string tag = std::string("<") + node->name;
  return ctl_changes_module(path, index) ? tag + " xmlns=\"" + ctl_xml_escape(node->module->ns) + "\"" : tag;
}

std::string close_tag(const lysc_node *node)
{
  return std::string("</") + node->name + ">";
}

// An entry's key as an element; without a value one that selects it.
std::string key_element(const lysc_node *key, const std::string *value)
{
  const std::string name = key->name;
  if (value == nullptr) {
    return "<" + name + "/>";
  }
  std::string namespaces;
  const std::string content = ctl_xml_escape(ctl_value_xml(key, *value, &namespaces));
  return "<" + name + namespaces + ">" + content + "</" + name + ">";
}

// The keys of a list's entry as elements, which need no namespace of their own. Those that the step does not name are
// selected, unless all of the entry is: without its keys a reply's entry is none.
std::string key_elements(const ctl_step_t &step, bool selects_missing)
{
  std::string text;
  for (const lysc_node_leaf *key : ctl_schema_keys(step.schema)) {
    auto named =
        std::find_if(step.keys.begin(), step.keys.end(), [&](const auto &pair) { return pair.first == key->name; });
    if (named != step.keys.end() || selects_missing) {
      text +=
          key_element(reinterpret_cast<const lysc_node *>(key), named == step.keys.end() ? nullptr : &named->second);
    }
  }
  return text;
}

// --- Edits.

// What speaks against an edit there; empty when nothing does.
std::string edit_fault(const ctl_path_t &path, bool removes)
{
  if (path.empty()) {
    return "which node? \"/\" is all of them";
  }
  const lysc_node *node = path.back().schema;
  const std::string where = ctl_path_text(path);
  if ((node->flags & LYS_CONFIG_R) != 0) {
    return where + " is state of the device, not configuration";
  }
  if (lysc_is_key(node)) {
    return where + " is a key: it comes and goes with its entry";
  }
  if ((node->nodetype & LYS_ANYDATA) != 0 && !removes) {
    return where + " holds a document: load it from a file";
  }
  for (const ctl_step_t &step : path) {
    const bool is_last = &step == &path.back();
    if (!ctl_has_all_keys(step) && !(is_last && node->nodetype == LYS_LEAFLIST)) {
      std::string names;
      for (const lysc_node_leaf *key : ctl_schema_keys(step.schema)) {
        names += std::string("[") + key->name + "=...]";
      }
      return "which entry? " + ctl_schema_path(step.schema) + names;
    }
  }
  return "";
}

// The text of the last element, canonical; without value where there is none to give.
bool edit_value(const ctl_step_t &step, bool removes, const std::string *value, std::string *ret_text,
                std::string *ret_fault)
{
  const lysc_node *node = step.schema;
  const std::string where = ctl_schema_path(node);
  if (node->nodetype == LYS_LEAFLIST && !step.keys.empty()) {
    if (value != nullptr && *value != step.keys.front().second) {
      *ret_fault = where + ": the value in brackets and the one behind them differ";
      return false;
    }
    *ret_text = step.keys.front().second;
    return true;
  }
  if ((node->nodetype & LYD_NODE_TERM) == 0) {
    *ret_fault = where + " is a " + lys_nodetype2str(node->nodetype) + ": it has no value";
    return value == nullptr;
  }
  if (value == nullptr && (removes && node->nodetype == LYS_LEAF)) {
    return true;
  }
  const bool is_empty =
      node->nodetype == LYS_LEAF && reinterpret_cast<const lysc_node_leaf *>(node)->type->basetype == LY_TYPE_EMPTY;
  if (value == nullptr && !is_empty) {
    *ret_fault = where + " needs a value";
    return false;
  }
  std::string fault;
  if (!ctl_check_value(node, value == nullptr ? "" : *value, ret_text, &fault)) {
    *ret_fault = where + ": " + fault;
    return false;
  }
  return true;
}

} // namespace

std::string ctl_filter(const ctl_path_t &path)
{
  std::string begin;
  std::string end;
  for (size_t i = 0; i < path.size(); i++) {
    const bool is_last = i + 1 == path.size();
    const std::string keys = key_elements(path[i], !is_last);
    if (is_last && keys.empty()) {
      begin += open_tag(path, i) + "/>";
      break;
    }
    begin += open_tag(path, i) + ">" + keys;
    end = close_tag(path[i].schema) + end;
  }
  return begin + end;
}

int ctl_edit(ctl_device &device, const ctl_path_t &path, std::string_view operation, const std::string *value,
             std::string *ret_config)
{
  const bool removes = operation == "delete" || operation == "remove";
  std::string fault = edit_fault(path, removes);
  std::string text;
  if (!fault.empty() || !edit_value(path.back(), removes, value, &text, &fault)) {
    return ctl_fail(device.output(), CTL_INPUT, fault);
  }
  std::string begin;
  std::string end;
  for (size_t i = 0; i < path.size(); i++) {
    const lysc_node *node = path[i].schema;
    begin += open_tag(path, i);
    if (i + 1 == path.size()) {
      if (operation != "merge") {
        begin.append(" xmlns:nc=\"").append(YMGR_BASE_NAMESPACE).append("\" nc:operation=\"").append(operation) += '"';
      }
      std::string namespaces;
      text = (node->nodetype & LYD_NODE_TERM) == 0 ? "" : ctl_xml_escape(ctl_value_xml(node, text, &namespaces));
      begin += namespaces;
    }
    begin += ">" + key_elements(path[i], false);
    end = close_tag(node) + end;
  }
  *ret_config = begin + text + end;
  return CTL_OK;
}
