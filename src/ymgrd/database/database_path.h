// Data paths and what they become in Redis: keys, fields, list elements, stored values, XML text. Plain text functions.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "libconf/wiped_string.h"

typedef enum _db_node_type {
  DB_NODE_ERROR = -1,
  DB_NODE_TOPNODE = 0,
  DB_NODE_LIST = 1,
  DB_NODE_LEAFLIST = 2,
  DB_NODE_OTHER = 3,
} db_node_type_t;

db_node_type_t db_get_type(std::string_view path);
std::string db_path2datakey(std::string_view path);
// The Redis key and what it holds of the node: hash and field, or list and element. Null gives 0 and sets nothing.
int path2key_value(const char *path, std::string *ret_key, std::string *ret_value);
// "/" and the module's name; empty when the path names no module.
std::string_view belong_module(std::string_view path);
// -1 when there is no name. The prefix is empty when there is none.
int db_split_elemname(std::string_view elemname, std::string_view *ret_name, std::string_view *ret_prefix);

// A path cut into its Redis parts. For an entry `key` is the Redis list and `item` the element, else the parent's hash
// and the field.
typedef struct _db_address {
  db_node_type_t type = DB_NODE_ERROR;
  std::string data_key;
  std::string key;
  std::string item;
  bool is_entry() const { return type == DB_NODE_LIST || type == DB_NODE_LEAFLIST; }
} db_address_t;
// -1, without a log line, when the path is wrong.
int db_find_address(std::string_view path, db_address_t *ret_address);

// Cuts a list's or container's data key before its last node: the parent's hash and the field.
void db_split_last_node(std::string_view data_key, std::string_view *ret_parent, std::string_view *ret_name);

// A predicate inside a path, at [open, close]. `from` must be outside of predicates. False when there is none.
bool db_find_predicate(std::string_view path, size_t from, size_t *ret_open, size_t *ret_close);
// A data key without the keys of entries.
std::string db_without_predicates(std::string_view data_key);
// The data path without keys of what the hash `key` has under `field`: "/MODULE:TOP/..." with modules where they
// change.
std::string db_path_without_keys(std::string_view key, std::string_view field);
// Takes the next name=value pair off the front of `predicate`; the value without its quotes. False at the end, or when
// the rest is no pair.
bool db_next_predicate_pair(std::string_view *predicate, std::string_view *ret_name, std::string *ret_value);

// Stored field values: the type, the text, a NUL and three bytes.
enum { DB_VALUE_NODE = 1, DB_VALUE_LIST = 2 };
std::string db_make_value(int32_t type, std::string_view text);
void db_make_value(int32_t type, std::string_view text, std::string *ret_value); // into memory that is there
// 0, or -1 for bytes that are no value. `ret_text` points into `value`.
int db_read_value(std::string_view value, int32_t *ret_type, std::string_view *ret_text);

enum { DB_XML_UNESCAPE = 0, DB_XML_ESCAPE = 1 };
// Appends `text` with its special characters escaped, or its entities replaced. The text may be a secret.
void handle_special_key(wiped_string *dest, std::string_view text, int flag);
