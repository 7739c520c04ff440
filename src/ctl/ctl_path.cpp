#include "ctl/ctl_path.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "ctl/ctl_nearest.h"
#include "ctl/ctl_schema.h"
#include "ctl/ctl_value.h"

namespace {

constexpr size_t MOST_NAMED = 12; // of what was possible: more would bury the fault

// A value in brackets, with the name that stood before it.
typedef struct _predicate {
  std::string name; // empty: known by its place
  std::string value;
} predicate_t;

// Reads one path from left to right. What goes wrong is left in fault().
class path_reader {
public:
  path_reader(const ly_ctx *schema, std::string_view text) : schema_(schema), text_(text) {}

  bool read(ctl_path_t *ret_path);
  const std::string &fault() const { return fault_; }

private:
  bool fail(std::string fault);
  bool at_end() const { return position_ >= text_.size(); }
  char next() const { return at_end() ? '\0' : text_[position_]; }
  void skip_blanks();
  std::string read_name();

  bool read_step(ctl_path_t *path);
  bool find_node(const lysc_node *parent, std::string_view module, const std::string &name, const lysc_node **ret_node);
  bool tell_unknown(const lysc_node *parent, const std::string &name, const std::vector<const lysc_node *> &children);
  bool read_predicate(predicate_t *ret_predicate);
  bool read_quoted(std::string *ret_value);
  bool add_keys(ctl_step_t *step, const std::vector<predicate_t> &predicates);
  bool add_key(ctl_step_t *step, const lysc_node *key, const std::string &name, const std::string &value);

  const ly_ctx *schema_;
  std::string_view text_;
  size_t position_ = 0;
  std::string fault_;
};

bool path_reader::fail(std::string fault)
{
  fault_ = std::move(fault);
  return false;
}

void path_reader::skip_blanks()
{
  while (isspace(static_cast<unsigned char>(next())) != 0) {
    position_++;
  }
}

std::string path_reader::read_name()
{
  size_t begin = position_;
  while (!at_end() && strchr("/[]:=\"'", next()) == nullptr && isspace(static_cast<unsigned char>(next())) == 0) {
    position_++;
  }
  return std::string(text_.substr(begin, position_ - begin));
}

bool path_reader::read(ctl_path_t *ret_path)
{
  ctl_path_t path;
  skip_blanks();
  if (next() == '/') {
    position_++;
  }
  for (skip_blanks(); !at_end(); skip_blanks()) {
    if (!read_step(&path)) {
      return false;
    }
    skip_blanks();
    if (!at_end() && next() != '/') {
      return fail(std::string("\"") + next() + "\" cannot stand behind " + ctl_path_text(path));
    }
    position_++; // one at the end does no harm
  }
  *ret_path = std::move(path);
  return true;
}

bool path_reader::read_step(ctl_path_t *path)
{
  std::string module;
  std::string name = read_name();
  if (next() == ':') {
    position_++;
    module = std::move(name);
    name = read_name();
  }
  if (name.empty()) {
    return fail("a name is missing behind " + (path->empty() ? "\"/\"" : ctl_path_text(*path)));
  }
  ctl_step_t step;
  if (!find_node(path->empty() ? nullptr : path->back().schema, module, name, &step.schema)) {
    return false;
  }
  std::vector<predicate_t> predicates;
  for (skip_blanks(); next() == '['; skip_blanks()) {
    predicate_t predicate;
    if (!read_predicate(&predicate)) {
      return false;
    }
    predicates.push_back(std::move(predicate));
  }
  if (!add_keys(&step, predicates)) {
    return false;
  }
  path->push_back(std::move(step));
  return true;
}

bool is_module(const lys_module *module, std::string_view text)
{
  return text == module->name || text == module->prefix;
}

bool path_reader::find_node(const lysc_node *parent, std::string_view module, const std::string &name,
                            const lysc_node **ret_node)
{
  if (parent != nullptr && (parent->nodetype & (LYS_CONTAINER | LYS_LIST)) == 0) {
    return fail("nothing stands below " + ctl_schema_path(parent) + ", a " + lys_nodetype2str(parent->nodetype));
  }
  const std::vector<const lysc_node *> children = ctl_schema_children(schema_, parent);
  std::vector<const lysc_node *> found;
  for (const lysc_node *child : children) {
    if (name == child->name && (module.empty() || is_module(child->module, module))) {
      found.push_back(child);
    }
  }
  // Among several, that of the parent's own module needs no prefix; nor does a module's name go before another's
  // prefix.
  auto preferred = std::find_if(found.begin(), found.end(), [&](const lysc_node *child) {
    return module.empty() ? parent != nullptr && child->module == parent->module : module == child->module->name;
  });
  if (preferred != found.end()) {
    *ret_node = *preferred;
    return true;
  }
  if (found.empty()) {
    return tell_unknown(parent, module.empty() ? name : std::string(module) + ":" + name, children);
  }
  if (found.size() > 1) {
    std::string choices;
    for (const lysc_node *child : found) {
      choices += (choices.empty() ? "" : " or ") + std::string(child->module->name) + ":" + name;
    }
    return fail("\"" + name + "\" in " + ctl_schema_path(parent) + " may be " + choices);
  }
  *ret_node = found.front();
  return true;
}

bool path_reader::tell_unknown(const lysc_node *parent, const std::string &name,
                               const std::vector<const lysc_node *> &children)
{
  std::vector<std::string> names;
  for (const lysc_node *child : children) {
    const bool is_foreign = parent == nullptr || child->module != parent->module;
    names.push_back(is_foreign ? std::string(child->module->name) + ":" + child->name : child->name);
  }
  // What was typed may have a prefix, and what was meant none, or the other way round.
  std::vector<std::string> plain = names;
  for (std::string &text : plain) {
    text = text.substr(text.find(':') + 1);
  }
  std::string guess = ctl_did_you_mean(name, names);
  if (guess.empty()) {
    guess = ctl_did_you_mean(name.substr(name.find(':') + 1), plain);
  }
  std::string choices;
  for (size_t i = 0; guess.empty() && i < std::min(names.size(), MOST_NAMED); i++) {
    choices += (i == 0 ? "; there are " : ", ") + names[i];
  }
  choices += !choices.empty() && names.size() > MOST_NAMED ? ", ..." : "";
  return fail("there is no \"" + name + "\" in " + ctl_schema_path(parent) + (guess.empty() ? choices : guess));
}

// From behind the quote on.
bool path_reader::read_quoted(std::string *ret_value)
{
  const char quote = text_[position_++];
  std::string value;
  while (!at_end()) {
    const char c = text_[position_++];
    if (c == quote && next() != quote) {
      *ret_value = std::move(value);
      return true;
    }
    position_ += c == quote ? 1 : 0; // doubled: one that belongs to the value
    value += c;
  }
  return fail(std::string("the closing ") + quote + " is missing");
}

bool path_reader::read_predicate(predicate_t *ret_predicate)
{
  predicate_t predicate;
  position_++; // the bracket
  skip_blanks();
  size_t begin = position_;
  std::string name = read_name();
  if (next() == ':') { // the prefix of a key's name, or part of a value such as an address
    position_++;
    name = read_name();
  }
  skip_blanks();
  if (!name.empty() && next() == '=') {
    position_++;
    skip_blanks();
    predicate.name = std::move(name);
    begin = position_;
  } else {
    position_ = begin;
  }
  if (next() == '\'' || next() == '"') {
    if (!read_quoted(&predicate.value)) {
      return false;
    }
    skip_blanks();
  } else {
    position_ = std::min(text_.find(']', position_), text_.size());
    predicate.value = text_.substr(begin, position_ - begin);
    while (!predicate.value.empty() && isspace(static_cast<unsigned char>(predicate.value.back())) != 0) {
      predicate.value.pop_back();
    }
  }
  if (next() != ']') {
    return fail("a \"]\" is missing behind " + std::string(text_.substr(0, position_)));
  }
  position_++;
  *ret_predicate = std::move(predicate);
  return true;
}

bool path_reader::add_key(ctl_step_t *step, const lysc_node *key, const std::string &name, const std::string &value)
{
  std::string canonical;
  std::string fault;
  if (!ctl_check_value(key, value, &canonical, &fault)) {
    return fail((key == step->schema ? "" : "key " + name + " of ") + ctl_schema_path(step->schema) + ": " + fault);
  }
  step->keys.emplace_back(name, std::move(canonical));
  return true;
}

bool path_reader::add_keys(ctl_step_t *step, const std::vector<predicate_t> &predicates)
{
  const std::string where = ctl_schema_path(step->schema);
  std::vector<const lysc_node *> keys;
  std::string names;
  for (const lysc_node_leaf *key : ctl_schema_keys(step->schema)) {
    keys.push_back(reinterpret_cast<const lysc_node *>(key));
    names += (names.empty() ? "" : ", ") + std::string(key->name);
  }
  if (step->schema->nodetype == LYS_LEAFLIST) {
    keys.push_back(step->schema);
    names = ".";
  }
  if (predicates.size() > keys.size()) {
    return fail(keys.empty() ? where + " has no keys" : where + " has no more keys than " + names);
  }
  std::vector<const predicate_t *> by_key(keys.size());
  for (size_t i = 0; i < predicates.size(); i++) {
    auto key = predicates[i].name.empty()
                   ? keys.begin() + static_cast<ptrdiff_t>(i)
                   : std::find_if(keys.begin(), keys.end(), [&](const lysc_node *candidate) {
                       return predicates[i].name == (candidate == step->schema ? "." : candidate->name);
                     });
    if (key == keys.end()) {
      return fail(where + " has no key \"" + predicates[i].name + "\"; there is " + names);
    }
    const predicate_t *&place = by_key[static_cast<size_t>(key - keys.begin())];
    if (place != nullptr) {
      return fail("two values for one key of " + where);
    }
    place = &predicates[i];
  }
  for (size_t i = 0; i < keys.size(); i++) {
    const char *name = keys[i] == step->schema ? "." : keys[i]->name;
    if (by_key[i] != nullptr && !add_key(step, keys[i], name, by_key[i]->value)) {
      return false;
    }
  }
  return true;
}

// In quotes that the value allows.
std::string quoted(const std::string &value)
{
  const char quote = value.find('\'') == std::string::npos || value.find('"') != std::string::npos ? '\'' : '"';
  std::string text(1, quote);
  for (char c : value) {
    text.append(c == quote ? 2 : 1, c);
  }
  return text + quote;
}

bool has_all_keys(const ctl_step_t &step)
{
  const size_t count = step.schema->nodetype == LYS_LEAFLIST ? 1 : ctl_schema_keys(step.schema).size();
  // A list without keys, which only state has, cannot be told apart at all.
  return step.keys.size() == count && (count > 0 || step.schema->nodetype != LYS_LIST);
}

bool changes_module(const ctl_path_t &path, size_t index)
{
  return index == 0 || path[index].schema->module != path[index - 1].schema->module;
}

// "<NAME xmlns=...", still open.
std::string open_tag(const ctl_path_t &path, size_t index)
{
  const lysc_node *node = path[index].schema;
  std::string tag = std::string("<") + node->name;
  return changes_module(path, index) ? tag + " xmlns=\"" + ctl_xml_escape(node->module->ns) + "\"" : tag;
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

bool fits(const lyd_node *node, const ctl_step_t &step)
{
  return node->schema == step.schema &&
         std::all_of(step.keys.begin(), step.keys.end(), [&](const std::pair<std::string, std::string> &key) {
           if (key.first == ".") {
             return key.second == lyd_get_value(node);
           }
           for (const lyd_node *child = lyd_child(node); child != nullptr && lysc_is_key(child->schema);
                child = child->next) {
             if (key.first == child->schema->name) {
               return key.second == lyd_get_value(child);
             }
           }
           return false;
         });
}

void find_below(lyd_node *siblings, const ctl_path_t &path, size_t index, std::vector<lyd_node *> *found)
{
  for (lyd_node *node = siblings; node != nullptr; node = node->next) {
    if (!fits(node, path[index])) {
      continue;
    }
    if (index + 1 == path.size()) {
      found->push_back(node);
    } else {
      find_below(lyd_child(node), path, index + 1, found);
    }
  }
}

// Whether anything of the path is left among the siblings.
bool keep_below(lyd_node *siblings, const ctl_path_t &path, size_t index, lyd_node **ret_first)
{
  bool has_any = false;
  lyd_node *first = siblings;
  for (lyd_node *node = siblings, *next = nullptr; node != nullptr; node = next) {
    next = node->next;
    const bool is_key = index > 0 && node->schema != nullptr && lysc_is_key(node->schema);
    const bool is_wanted =
        fits(node, path[index]) && (index + 1 == path.size() || keep_below(lyd_child(node), path, index + 1, nullptr));
    has_any = has_any || is_wanted;
    if (!is_wanted && !is_key) {
      first = node == first ? next : first;
      lyd_free_tree(node);
    }
  }
  if (ret_first != nullptr) {
    *ret_first = first;
  }
  return has_any;
}

// --- Edits.

// What speaks against an edit there; empty when nothing does.
std::string edit_fault(const ctl_path_t &path)
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
  if ((node->nodetype & LYS_ANYDATA) != 0) {
    return where + " holds a document: load it from a file";
  }
  for (const ctl_step_t &step : path) {
    const bool is_last = &step == &path.back();
    if (!has_all_keys(step) && !(is_last && node->nodetype == LYS_LEAFLIST)) {
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

bool ctl_read_path(const ly_ctx *schema, std::string_view text, ctl_path_t *ret_path, std::string *ret_fault)
{
  path_reader reader(schema, text);
  if (!reader.read(ret_path)) {
    *ret_fault = reader.fault();
    return false;
  }
  return true;
}

int ctl_parse_path(ctl_device &device, std::string_view text, ctl_path_t *ret_path)
{
  const ly_ctx *schema = device.schema();
  if (schema == nullptr) {
    return device.session_id() == 0 ? CTL_UNREACHABLE : CTL_INPUT;
  }
  std::string fault;
  return ctl_read_path(schema, text, ret_path, &fault) ? CTL_OK : ctl_fail(device.output(), CTL_INPUT, fault);
}

std::string ctl_path_text(const ctl_path_t &path)
{
  std::string text;
  for (size_t i = 0; i < path.size(); i++) {
    const lysc_node *node = path[i].schema;
    text += "/";
    text += changes_module(path, i) ? std::string(node->module->name) + ":" + node->name : node->name;
    for (const auto &[name, value] : path[i].keys) {
      text += "[" + name + "=" + quoted(value) + "]";
    }
  }
  return text.empty() ? "/" : text;
}

bool ctl_is_instance(const ctl_path_t &path)
{
  return std::all_of(path.begin(), path.end(), [](const ctl_step_t &step) {
    return (step.schema->nodetype & (LYS_LIST | LYS_LEAFLIST)) == 0 || has_all_keys(step);
  });
}

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

std::vector<lyd_node *> ctl_find(lyd_node *tree, const ctl_path_t &path)
{
  std::vector<lyd_node *> found;
  if (!path.empty()) {
    find_below(tree, path, 0, &found);
  }
  return found;
}

lyd_node *ctl_keep_only(lyd_node *tree, const ctl_path_t &path)
{
  lyd_node *first = tree;
  if (!path.empty()) {
    (void)keep_below(tree, path, 0, &first); // nothing left: null is what comes back
  }
  return first;
}

int ctl_edit(ctl_device &device, const ctl_path_t &path, std::string_view operation, const std::string *value,
             std::string *ret_config)
{
  std::string fault = edit_fault(path);
  std::string text;
  const bool removes = operation == "delete" || operation == "remove";
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
        begin.append(" xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\" nc:operation=\"").append(operation) += '"';
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

std::string ctl_xml_escape(std::string_view text)
{
  std::string escaped;
  escaped.reserve(text.size());
  for (char c : text) {
    switch (c) {
    case '&':
      escaped += "&amp;";
      break;
    case '<':
      escaped += "&lt;";
      break;
    case '>':
      escaped += "&gt;";
      break;
    case '"':
      escaped += "&quot;";
      break;
    case '\r': // a parser would make a line feed of it
      escaped += "&#13;";
      break;
    default:
      escaped += c;
    }
  }
  return escaped;
}
