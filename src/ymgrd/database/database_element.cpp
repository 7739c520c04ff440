#include "ymgrd/database/database_element.h"

#include <set>

#include "ymgrd/core/log.h"
#include "ymgrd/crypto/encrypt.h"
#include "ymgrd/crypto/sealed_text.h"
#include "ymgrd/database/database.h"
#include "ymgrd/database/database_path.h"
#include "ymgrd/rpc/lyxml.h"
#include "ymgrd/schema/schema.h"
#include "ymgrd/schema/schema_sensitive.h"
#include "ymgrd/schema/schema_value.h"

namespace {

constexpr std::string_view NAME_END = "/[]()=<>!,\"' :|*@";

void add_declaration(std::string_view token, const lys_module *module, wiped_string *buffer)
{
  buffer->append(" xmlns:").append(token).append("=\"");
  handle_special_key(buffer, module->ns, DB_XML_ESCAPE);
  buffer->append("\"");
}

// The tokens before a ":" outside of quotes, each once: an instance-identifier names modules anywhere.
std::set<std::string_view> tokens_of_path(std::string_view text)
{
  std::set<std::string_view> tokens;
  char quote = '\0';
  size_t name = 0; // where the name at hand starts
  for (size_t i = 0; i < text.size(); i++) {
    char c = text[i];
    if (quote != '\0') {
      quote = c == quote ? '\0' : quote;
      name = i + 1;
    } else if (c == '"' || c == '\'') {
      quote = c;
    } else if (NAME_END.find(c) != std::string_view::npos) {
      if (c == ':' && i > name) {
        tokens.insert(text.substr(name, i - name));
      }
      name = i + 1;
    }
  }
  return tokens;
}

std::string_view without_prefix(std::string_view ename)
{
  return ename.substr(ename.find(':') + 1); // npos + 1 is the beginning
}

// Whether the schema knows the element as anyxml or anydata.
bool is_any(std::string_view dkey, std::string_view ename)
{
  return !dkey.empty() && schema_has_any(without_prefix(ename)) && schema_is_any(db_path_without_keys(dkey, ename));
}

} // namespace

db_secrets_t db_secrets_of(int tflag)
{
  if ((tflag & DB_TFLAG_SEAL) != 0) {
    return DB_SECRETS_SEALED;
  }
  return (tflag & DB_TFLAG_DECRYPT) != 0 ? DB_SECRETS_CLEAR : DB_SECRETS_STORED;
}

const wiped_string &db_element_writer::namespace_of(std::string_view module)
{
  auto known = namespaces_.find(module);
  if (known == namespaces_.end()) {
    std::string name(module);
    wiped_string escaped;
    handle_special_key(&escaped, schema_get_module_ns(name), DB_XML_ESCAPE);
    known = namespaces_.emplace(std::move(name), std::move(escaped)).first;
  }
  return known->second;
}

// A value may name modules (an identity, an instance-identifier): the reader needs their namespaces.
void db_element_writer::add_value_namespaces(std::string_view text, wiped_string *buffer) const
{
  size_t colon = text.find(':');
  if (colon == std::string_view::npos) {
    return;
  }
  std::set<std::string_view> tokens = {text.substr(0, colon)};
  if (text[0] == '/') {
    tokens = tokens_of_path(text);
  }
  for (std::string_view token : tokens) {
    const lys_module *module = token.empty() ? nullptr : schema_find_module(token.data(), token.size());
    if (module != nullptr) {
      add_declaration(token, module, buffer);
    }
  }
}

int db_element_writer::add_text(std::string_view name, std::string_view text, wiped_string *buffer)
{
  add_value_namespaces(text, buffer);
  buffer->push_back('>');
  handle_special_key(buffer, text, DB_XML_ESCAPE);
  db_add_etag(name, buffer);
  return 0;
}

int db_element_writer::db_new_sensitive(std::string_view dkey, std::string_view ename, std::string_view value,
                                        wiped_string *buffer)
{
  std::string_view name;
  if (open_element(dkey, ename, buffer, &name) != 0) {
    return -1;
  }
  bool is_cipher = encrypt_is_marked(value); // a schema default is not
  if (is_cipher && secrets_ == DB_SECRETS_SEALED) {
    buffer->push_back('>');
    sealed_text_append(value, buffer);
    db_add_etag(name, buffer);
    return 0;
  }
  wiped_string clear;
  clear.reserve(value.size()); // a short text would not be wiped
  if (is_cipher && secrets_ == DB_SECRETS_CLEAR && decrypt_sensitive(value, &clear) != 0) {
    log_error("Decrypt text of node(%.512s) failed.", std::string(name).c_str());
    clear.clear();
  }
  return add_text(name, clear.empty() ? value : clear, buffer);
}

int db_element_writer::db_new_node(std::string_view dkey, std::string_view ename, std::optional<std::string_view> text,
                                   wiped_string *buffer, std::string *ret_name)
{
  if (text.has_value() && is_any(dkey, ename)) {
    return db_new_any(dkey, ename, *text, buffer);
  }
  bool may_be_secret = secrets_ != DB_SECRETS_STORED && text.has_value() && encrypt_is_marked(*text);
  if (may_be_secret && !dkey.empty() && schema_is_sensitive(db_path_without_keys(dkey, ename))) {
    return db_new_sensitive(dkey, ename, *text, buffer);
  }
  std::string_view name;
  if (open_element(dkey, ename, buffer, &name) != 0) {
    return -1;
  }
  if (text.has_value()) {
    return add_text(name, *text, buffer);
  }
  buffer->push_back('>');
  if (ret_name != nullptr) {
    *ret_name = name;
  }
  return 0;
}

int db_element_writer::db_new_any(std::string_view dkey, std::string_view ename, std::string_view markup,
                                  wiped_string *buffer)
{
  std::string_view name;
  if (open_element(dkey, ename, buffer, &name) != 0) {
    return -1;
  }
  wiped_string whole;
  whole.append("<any>").append(markup).append("</any>");
  if (lyxml_parse_mem(whole) == nullptr) { // not written by this daemon: it must not break what stands around it
    return add_text(name, markup, buffer);
  }
  buffer->append(">").append(markup);
  db_add_etag(name, buffer);
  return 0;
}

// Up to the opening tag's end, which is left out.
int db_element_writer::open_element(std::string_view dkey, std::string_view ename, wiped_string *buffer,
                                    std::string_view *ret_name)
{
  std::string_view name;
  std::string_view prefix;
  if (db_split_elemname(ename, &name, &prefix) != 0) {
    log_error("Failed to split element name.");
    return -1;
  }
  bool is_top = dkey.size() > 1 && dkey.find('/', 1) == std::string_view::npos;
  std::string_view module = !prefix.empty() ? prefix : is_top ? dkey.substr(1) : std::string_view();
  buffer->append("<").append(name);
  if (!module.empty() && !namespace_of(module).empty()) {
    buffer->append(" xmlns=\"").append(namespace_of(module)).append("\"");
  }
  *ret_name = name;
  return 0;
}

int db_element_writer::db_new_key(std::string_view dkey, std::string_view ename, std::string_view value,
                                  wiped_string *buffer)
{
  bool may_be_path = value.starts_with('/') && schema_has_path_key(without_prefix(ename));
  const lysc_node *schema = may_be_path ? schema_find_path_key(db_path_without_keys(dkey, ename)) : nullptr;
  return schema == nullptr ? db_new_node(dkey, ename, value, buffer, nullptr)
                           : db_new_node(dkey, ename, schema_stored_form_of_key(schema, value), buffer, nullptr);
}

int db_element_writer::db_add_list_entry(std::string_view list_key, std::string_view predicate, wiped_string *buffer,
                                         std::string *oname)
{
  std::string_view parent;
  std::string_view name;
  db_split_last_node(list_key, &parent, &name);
  std::string_view key_name;
  std::string value;
  oname->clear();
  if (!predicate.empty() && predicate[0] == '.') {
    return db_next_predicate_pair(&predicate, &key_name, &value) ? db_new_key(parent, name, value, buffer) : -1;
  }
  if (db_new_node(parent, name, std::nullopt, buffer, oname) != 0) {
    return -1;
  }
  while (!predicate.empty()) {
    if (!db_next_predicate_pair(&predicate, &key_name, &value) || db_new_key(list_key, key_name, value, buffer) != 0) {
      return -1;
    }
  }
  return 0;
}

void db_add_etag(std::string_view name, wiped_string *buffer)
{
  buffer->append("</").append(name).append(">");
}
