// Stored nodes as XML text. What is written may hold decrypted secrets, so all buffers are wiped.
//
// Values of sensitive leaves are stored as cipher text. Only theirs are ever decrypted: a leaf that anybody may write
// must not show what some cipher text holds.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "libconf/wiped_string.h"

// How the values of sensitive leaves are written.
typedef enum _db_secrets {
  DB_SECRETS_STORED = 0, // as cipher text: for data trees
  DB_SECRETS_SEALED,     // for clients (crypto/sealed_text.h)
  DB_SECRETS_CLEAR,      // for plugins
} db_secrets_t;
// Of the flags of a read.
db_secrets_t db_secrets_of(int tflag);

// Writes elements; keeps the namespaces that it looked up. `dkey` is the Redis key of the node that holds the element.
class db_element_writer {
public:
  explicit db_element_writer(db_secrets_t secrets) : secrets_(secrets) {}

  // Appends the element to `buffer`: whole with a text, else only its opening tag, whose name goes to `ret_name` (may
  // be null) for db_add_etag. What the schema knows at `dkey` as anyxml or anydata is written by db_new_any. 0 or -1.
  int db_new_node(std::string_view dkey, std::string_view ename, std::optional<std::string_view> text,
                  wiped_string *buffer, std::string *ret_name);
  // A whole element whose content is markup; content that is not well-formed is taken as text.
  int db_new_any(std::string_view dkey, std::string_view ename, std::string_view markup, wiped_string *buffer);
  // A whole element whose value, cipher text or not, is that of a sensitive leaf.
  int db_new_sensitive(std::string_view dkey, std::string_view ename, std::string_view value, wiped_string *buffer);
  // A whole element whose value is taken from a predicate: a key leaf, or an entry of a leaf-list.
  int db_new_key(std::string_view dkey, std::string_view ename, std::string_view value, wiped_string *buffer);
  // The element of a list entry with its keys, left open, its name in `oname`; or a whole leaf-list element, `oname`
  // empty.
  int db_add_list_entry(std::string_view list_key, std::string_view predicate, wiped_string *buffer,
                        std::string *oname);

private:
  const wiped_string &namespace_of(std::string_view module);
  void add_value_namespaces(std::string_view text, wiped_string *buffer) const;
  int open_element(std::string_view dkey, std::string_view ename, wiped_string *buffer, std::string_view *ret_name);
  int add_text(std::string_view name, std::string_view text, wiped_string *buffer);

  db_secrets_t secrets_;
  std::map<std::string, wiped_string, std::less<>> namespaces_;
};

void db_add_etag(std::string_view name, wiped_string *buffer);
