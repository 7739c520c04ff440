#include "ymgrd/database/database_path.h"

#include <cstring>

#include "ymgrd/core/log.h"
#include "ymgrd/datastore/dbkey.h"

namespace {

constexpr size_t NOWHERE = std::string_view::npos;

// The position behind the quoted text that starts at `at`; NOWHERE when it does not end. Double-quoted text may hold
// backslash-escaped characters.
size_t skip_quoted(std::string_view text, size_t at)
{
  char quote = text[at];
  for (size_t i = at + 1; i < text.size(); i++) {
    if (text[i] == '\\' && quote == '"') {
      i++;
    } else if (text[i] == quote) {
      return i + 1;
    }
  }
  return NOWHERE;
}

// The position of the "]" that ends the predicate at `open`; NOWHERE when there is none.
size_t find_close(std::string_view path, size_t open)
{
  for (size_t i = open + 1; i < path.size();) {
    if (path[i] == ']') {
      return i;
    }
    i = path[i] == '"' || path[i] == '\'' ? skip_quoted(path, i) : i + 1;
  }
  return NOWHERE;
}

typedef struct _last_node {
  size_t slash = 0;
  size_t open = NOWHERE;
  size_t close = NOWHERE;
} last_node_t;

// False when a predicate does not end, or something follows the last node's predicate.
bool find_last_node_from_path(std::string_view path, last_node_t *ret_node)
{
  last_node_t node;
  for (size_t i = 0; i < path.size(); i++) {
    if (path[i] == '/') {
      node = {i, NOWHERE, NOWHERE};
    } else if (path[i] == '[') {
      node.open = node.open == NOWHERE ? i : node.open;
      node.close = i = find_close(path, i);
      if (i == NOWHERE) {
        return false;
      }
    }
  }
  if (node.close != NOWHERE && node.close + 1 != path.size()) {
    return false;
  }
  *ret_node = node;
  return true;
}

bool starts_with_module(std::string_view path)
{
  if (path.empty() || path[0] != '/') {
    return false;
  }
  size_t colon = path.find(':');
  return colon != NOWHERE && colon > 1 && colon < path.find('/', 1) && colon + 1 < path.size() &&
         path[colon + 1] != '/';
}

db_node_type_t classify(std::string_view path, const last_node_t &last)
{
  // An entry of a top-level list is an entry, not a top node.
  if (last.open == NOWHERE) {
    return last.slash == 0 ? DB_NODE_TOPNODE : DB_NODE_OTHER;
  }
  std::string_view predicate = path.substr(last.open + 1, last.close - last.open - 1);
  size_t equals = predicate.find('=');
  if (equals == NOWHERE) {
    return DB_NODE_ERROR;
  }
  return equals == 1 && predicate[0] == '.' ? DB_NODE_LEAFLIST : DB_NODE_LIST;
}

typedef struct _special_char {
  char plain;
  std::string_view entity;
} special_char_t;

const special_char_t special_chars[] = {{'&', "&amp;"}, {'<', "&lt;"},   {'>', "&gt;"},  {'"', "&quot;"},
                                        {'\t', "&#9;"}, {'\r', "&#13;"}, {'\n', "&#10;"}};

void escape(wiped_string *dest, std::string_view text)
{
  size_t copied = 0;
  for (size_t i = text.find_first_of("&<>\"\t\r\n"); i != NOWHERE; i = text.find_first_of("&<>\"\t\r\n", i + 1)) {
    dest->append(text, copied, i - copied);
    for (const special_char_t &row : special_chars) {
      if (row.plain == text[i]) {
        dest->append(row.entity);
      }
    }
    copied = i + 1;
  }
  dest->append(text, copied);
}

void unescape(wiped_string *dest, std::string_view text)
{
  while (!text.empty()) {
    const special_char_t *found = nullptr;
    for (const special_char_t &row : special_chars) {
      if (text[0] == '&' && text.compare(0, row.entity.size(), row.entity) == 0) {
        found = &row;
      }
    }
    dest->push_back(found != nullptr ? found->plain : text[0]);
    text.remove_prefix(found != nullptr ? found->entity.size() : 1);
  }
}

} // namespace

db_node_type_t db_get_type(std::string_view path)
{
  last_node_t last;
  if (!starts_with_module(path) || !find_last_node_from_path(path, &last)) {
    return DB_NODE_ERROR;
  }
  return classify(path, last);
}

std::string db_path2datakey(std::string_view path)
{
  std::string data_key(path);
  size_t colon = data_key.find(':');
  if (colon != std::string::npos) {
    data_key[colon] = '/';
  }
  return data_key;
}

int path2key_value(const char *path, std::string *ret_key, std::string *ret_value)
{
  if (path == nullptr) {
    log_debug("opath is null, coords is null.");
    return 0;
  }
  if (strcmp(path, "/") == 0) {
    log_error("path can not be '/'.");
    return -1;
  }
  std::string data_key = db_path2datakey(path);
  last_node_t last;
  if (data_key.empty() || data_key[0] != '/' || !find_last_node_from_path(data_key, &last)) {
    return -1;
  }
  bool is_entry = last.open != NOWHERE;
  *ret_key = data_key.substr(0, is_entry ? last.open : last.slash);
  *ret_value = is_entry ? data_key.substr(last.open + 1, last.close - last.open - 1) : data_key.substr(last.slash + 1);
  return 0;
}

std::string_view belong_module(std::string_view path)
{
  if (path.size() < 2 || path[0] != '/') {
    return {};
  }
  std::string_view module = path.substr(0, path.find_first_of("/:", 1));
  return module.size() > 1 ? module : std::string_view();
}

int db_split_elemname(std::string_view elemname, std::string_view *ret_name, std::string_view *ret_prefix)
{
  size_t colon = elemname.find(':');
  std::string_view name = colon == NOWHERE ? elemname : elemname.substr(colon + 1);
  if (name.empty()) {
    return -1;
  }
  *ret_prefix = colon == NOWHERE ? std::string_view() : elemname.substr(0, colon);
  *ret_name = name;
  return 0;
}

int db_find_address(std::string_view path, db_address_t *ret_address)
{
  last_node_t last;
  if (!starts_with_module(path) || !find_last_node_from_path(path, &last)) {
    return -1;
  }
  db_address_t address;
  address.type = classify(path, last);
  if (address.type == DB_NODE_ERROR) {
    return -1;
  }
  address.data_key = db_path2datakey(path);
  if (address.is_entry()) {
    address.key = address.data_key.substr(0, last.open);
    address.item = address.data_key.substr(last.open + 1, last.close - last.open - 1);
  } else {
    size_t slash = address.data_key.find('/', last.slash + 1); // a top node has two: its ":" became one
    slash = address.type == DB_NODE_TOPNODE ? slash : last.slash;
    address.key = address.data_key.substr(0, slash);
    address.item = address.data_key.substr(slash + 1);
  }
  *ret_address = std::move(address);
  return 0;
}

void db_split_last_node(std::string_view data_key, std::string_view *ret_parent, std::string_view *ret_name)
{
  last_node_t last;
  if (!find_last_node_from_path(data_key, &last)) {
    *ret_parent = data_key;
    *ret_name = {};
    return;
  }
  *ret_parent = data_key.substr(0, last.slash);
  *ret_name = data_key.substr(last.slash + 1);
}

bool db_find_predicate(std::string_view path, size_t from, size_t *ret_open, size_t *ret_close)
{
  size_t open = path.find('[', from);
  size_t close = open == NOWHERE ? NOWHERE : find_close(path, open);
  if (close == NOWHERE) {
    return false;
  }
  *ret_open = open;
  *ret_close = close;
  return true;
}

std::string db_without_predicates(std::string_view data_key)
{
  std::string path(data_key);
  size_t open = 0;
  size_t close = 0;
  for (size_t from = 0; db_find_predicate(path, from, &open, &close); from = open) {
    path.erase(open, close - open + 1);
  }
  return path;
}

std::string db_path_without_keys(std::string_view dkey, std::string_view ename)
{
  std::string path = db_without_predicates(dkey);
  size_t module_end = path.find('/', 1);
  if (module_end == std::string::npos) {
    path.append(":").append(ename); // a top node
  } else {
    path[module_end] = ':';
    path.append("/").append(ename);
  }
  return path;
}

bool db_next_predicate_pair(std::string_view *predicate, std::string_view *ret_name, std::string *ret_value)
{
  size_t equals = predicate->find('=');
  if (equals == NOWHERE || equals == 0) {
    return false;
  }
  std::string_view rest = predicate->substr(equals + 1);
  bool quoted = !rest.empty() && (rest[0] == '"' || rest[0] == '\'');
  size_t end = quoted ? skip_quoted(rest, 0) : std::min(rest.find(','), rest.size());
  if (end == NOWHERE || (end < rest.size() && rest[end] != ',')) {
    return false;
  }
  std::string_view value = rest.substr(0, end);
  *ret_name = predicate->substr(0, equals);
  *ret_value =
      quoted && value[0] == '\'' ? std::string(value.substr(1, value.size() - 2)) : datastore_value_rm_quotes(value);
  *predicate = end < rest.size() ? rest.substr(end + 1) : std::string_view();
  return true;
}

void db_make_value(int32_t type, std::string_view text, std::string *ret_value)
{
  constexpr size_t PADDING = 4; // the text's NUL and three more
  ret_value->assign(sizeof(type), '\0');
  memcpy(ret_value->data(), &type, sizeof(type));
  ret_value->append(text);
  ret_value->append(PADDING, '\0');
}

std::string db_make_value(int32_t type, std::string_view text)
{
  std::string value;
  db_make_value(type, text, &value);
  return value;
}

int db_read_value(std::string_view value, int32_t *ret_type, std::string_view *ret_text)
{
  if (value.size() < sizeof(int32_t)) {
    return -1;
  }
  memcpy(ret_type, value.data(), sizeof(*ret_type));
  std::string_view text = value.substr(sizeof(*ret_type));
  *ret_text = text.substr(0, text.find('\0'));
  return 0;
}

void handle_special_key(wiped_string *dest, std::string_view text, int flag)
{
  if (dest == nullptr) {
    log_error("handle special key error....");
    return;
  }
  if (flag == DB_XML_ESCAPE) {
    escape(dest, text);
  } else {
    unescape(dest, text);
  }
}
