// Paths as they are typed.
#include <algorithm>
#include <cctype>
#include <cstring>

#include "ctl/ctl_nearest.h"
#include "ctl/ctl_path.h"
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
