// Paths: names from the schema, keys from the data.
#include "ctl/ctl_complete_path.h"

#include <algorithm>

#include "ctl/ctl_schema.h"

namespace {

// A path on its way: PARENT/STEP PREDICATES[KEY
typedef struct _unfinished_path {
  std::string_view parent; // without the slash behind it
  std::string_view before; // what is in front of the step, with the slash
  std::string_view step;   // the name
  std::string_view keys;   // predicates that are closed
  bool in_key = false;
  std::string_view key; // behind the open bracket
} unfinished_path_t;

unfinished_path_t take_apart(std::string_view word)
{
  size_t step = 0, brackets = std::string_view::npos, open = std::string_view::npos;
  char quote = '\0';
  for (size_t i = 0; i < word.size(); i++) {
    const char c = word[i];
    const bool in_brackets = open != std::string_view::npos;
    if (quote != '\0') {
      quote = c == quote ? '\0' : quote;
    } else if (in_brackets && (c == '\'' || c == '"')) {
      quote = c;
    } else if (in_brackets && c == ']') {
      open = std::string_view::npos;
    } else if (!in_brackets && c == '[') {
      open = i;
      brackets = std::min(brackets, i);
    } else if (!in_brackets && c == '/') {
      step = i + 1;
      brackets = std::string_view::npos;
    }
  }
  unfinished_path_t path;
  path.parent = word.substr(0, step == 0 ? 0 : step - 1);
  path.before = word.substr(0, step);
  path.step = word.substr(step, std::min(brackets, word.size()) - step);
  path.in_key = open != std::string_view::npos;
  if (brackets != std::string_view::npos) {
    path.keys = word.substr(brackets, std::min(open, word.size()) - brackets);
    path.key = path.in_key ? word.substr(open + 1) : "";
  }
  return path;
}

// --- Names.

// Without what stands in libyang's own modules only: the daemon does not have them.
bool is_served(ctl_device &device, const lysc_node *node)
{
  const std::vector<ctl_module_t> &modules = device.modules();
  return std::any_of(modules.begin(), modules.end(),
                     [&](const ctl_module_t &module) { return module.name == node->module->name; });
}

std::vector<const lysc_node *> children_of(ctl_device &device, const lysc_node *parent, const ctl_path_use_t &use)
{
  std::vector<const lysc_node *> children = ctl_schema_children(device.schema(), parent);
  std::erase_if(children, [&](const lysc_node *node) {
    return (!use.with_state && (node->flags & LYS_CONFIG_W) == 0) || (use.edits && lysc_is_key(node)) ||
           (parent == nullptr && !is_served(device, node));
  });
  return children;
}

// What goes on behind the name.
const char *continuation(const lysc_node *node, const ctl_path_use_t &use)
{
  const bool has_keys = node->nodetype == LYS_LIST && (node->flags & LYS_KEYLESS) == 0;
  return has_keys || (node->nodetype == LYS_LEAFLIST && use.deletes) ? "["
         : (node->nodetype & (LYS_CONTAINER | LYS_LIST)) != 0        ? "/"
                                                                     : "";
}

// With the module's name only where another module has a node of this name there, or where it was begun to be typed.
std::vector<ctl_candidate_t> complete_name(const std::vector<const lysc_node *> &nodes, const unfinished_path_t &path,
                                           const ctl_path_use_t &use, bool with_module)
{
  const std::string before(path.before);
  std::vector<ctl_candidate_t> candidates;
  for (const lysc_node *node : nodes) {
    const bool is_shared = std::count_if(nodes.begin(), nodes.end(), [&](const lysc_node *other) {
                             return std::string_view(node->name) == other->name;
                           }) > 1;
    const std::string full = std::string(node->module->name) + ":" + node->name;
    if ((with_module ? full : std::string(node->name)).starts_with(path.step)) {
      const std::string more = continuation(node, use);
      const std::string name = (with_module || is_shared ? full : node->name) + more;
      candidates.push_back({before + name, name, more.empty()});
    }
  }
  return candidates;
}

// --- Keys.

// One way to write a key, as far as it was typed.
typedef struct _key_form {
  std::string name;         // "name=", or empty: by its place
  char quote = '\0';        // none: only values that need none
  std::string_view partial; // the value as far as it is there
} key_form_t;

char quote_of(std::string_view text)
{
  return text.starts_with('\'') || text.starts_with('"') ? text.front() : '\0';
}

// The forms that what was typed may become, the usual one first.
std::vector<key_form_t> key_forms(const std::string &name, std::string_view typed, ctl_key_style style)
{
  const std::string named = name + "=";
  std::vector<key_form_t> forms;
  if (typed.starts_with(named)) {
    typed.remove_prefix(named.size());
    const char quote = quote_of(typed);
    if (typed.empty() && style == ctl_key_style::quoted) {
      forms.push_back({named, '\'', typed});
    }
    forms.push_back({named, quote, typed.substr(quote == '\0' ? 0 : 1)});
    return forms;
  }
  if (named.starts_with(typed)) {
    const bool is_plain = style == ctl_key_style::plain;
    forms.push_back({named, is_plain ? '\0' : '\'', ""});
  }
  const char quote = quote_of(typed);
  const key_form_t by_place = {"", quote, typed.substr(quote == '\0' ? 0 : 1)};
  forms.insert(style == ctl_key_style::plain ? forms.begin() : forms.end(), by_place);
  return forms;
}

// The value as that form has it; empty when it cannot. A quote in it is doubled where the other kind is no way out.
std::string write_key(const key_form_t &form, const std::string &value)
{
  if (form.quote == '\0' && value.find_first_of(" \t'\"[]=") == std::string::npos) {
    return form.name + value;
  }
  if (form.quote == '\0' && !form.partial.empty()) {
    return "";
  }
  char quote = form.quote == '\0' ? '\'' : form.quote;
  if (form.partial.empty() && value.find(quote) != std::string::npos) {
    const char other = quote == '"' ? '\'' : '"';
    quote = value.find(other) == std::string::npos ? other : quote;
  }
  std::string text = form.name + quote;
  for (char c : value) {
    text.append(c == quote ? 2 : 1, c);
  }
  return text + quote;
}

// The keys of a list that are not named yet; of a leaf-list itself.
std::vector<const lysc_node *> missing_keys(const ctl_step_t &step)
{
  std::vector<const lysc_node *> missing;
  if (step.schema->nodetype == LYS_LEAFLIST) {
    return step.keys.empty() ? std::vector<const lysc_node *>{step.schema} : missing;
  }
  for (const lysc_node *key = step.schema->nodetype == LYS_LIST ? lysc_node_child(step.schema) : nullptr;
       key != nullptr && lysc_is_key(key); key = key->next) {
    const std::string_view name = key->name;
    if (std::none_of(step.keys.begin(), step.keys.end(), [&](const auto &given) { return given.first == name; })) {
      missing.push_back(key);
    }
  }
  return missing;
}

std::vector<std::string> key_values(ctl_device &device, ctl_path_t path, const lysc_node *key, std::string_view partial,
                                    const ctl_path_use_t &use)
{
  if (path.back().schema != key) {
    path.push_back({key, {}});
  }
  std::vector<std::string> values = ctl_find_values(device, path, partial);
  if (use.edits && !use.deletes) {
    for (std::string &value : ctl_find_type_values(device, key, partial)) {
      if (std::find(values.begin(), values.end(), value) == values.end()) {
        values.push_back(std::move(value));
      }
    }
  }
  return values;
}

std::vector<ctl_candidate_t> complete_key(ctl_device &device, const ctl_path_t &path, const unfinished_path_t &text,
                                          const ctl_path_use_t &use, ctl_key_style style)
{
  const std::vector<const lysc_node *> missing = missing_keys(path.back());
  if (missing.empty()) {
    return {};
  }
  const bool is_list = path.back().schema->nodetype == LYS_LIST;
  const std::string before = std::string(text.before).append(text.step).append(text.keys) + "[";
  const std::string after = missing.size() > 1 ? "][" : "]";
  std::vector<ctl_candidate_t> candidates;
  for (const key_form_t &form : key_forms(is_list ? missing.front()->name : ".", text.key, style)) {
    for (const std::string &value : key_values(device, path, missing.front(), form.partial, use)) {
      std::string key = write_key(form, value);
      if (key.starts_with(text.key) && !key.empty()) {
        candidates.push_back({before + key + after, "[" + key + "]", !is_list});
      }
    }
    if (!candidates.empty()) {
      break;
    }
  }
  return candidates;
}

// Behind "]".
std::vector<ctl_candidate_t> complete_entry(const ctl_path_t &path, std::string_view word)
{
  if (path.back().schema->nodetype != LYS_LIST) {
    return {};
  }
  const char *more = missing_keys(path.back()).empty() ? "/" : "[";
  return {{std::string(word) + more, more, false}};
}

} // namespace

std::vector<ctl_candidate_t> ctl_complete_path(ctl_device &device, std::string_view word, const ctl_path_use_t &use,
                                               ctl_key_style style)
{
  const unfinished_path_t text = take_apart(word);
  const bool in_name = !text.in_key && text.keys.empty();
  const std::string_view known =
      in_name ? text.parent : word.substr(0, word.size() - (text.in_key ? text.key.size() + 1 : 0));
  ctl_path_t path;
  if (device.schema() == nullptr || ctl_parse_path(device, known, &path) != CTL_OK ||
      (!known.empty() && path.empty())) {
    return {};
  }
  if (text.in_key) {
    return complete_key(device, path, text, use, style);
  }
  if (!in_name) {
    return complete_entry(path, word);
  }
  const std::vector<const lysc_node *> nodes = children_of(device, path.empty() ? nullptr : path.back().schema, use);
  unfinished_path_t name = text;
  name.before = word.empty() ? "/" : text.before;
  std::vector<ctl_candidate_t> candidates = complete_name(nodes, name, use, false);
  return candidates.empty() ? complete_name(nodes, name, use, true) : candidates;
}
