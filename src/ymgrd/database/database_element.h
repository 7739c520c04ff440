// Stored nodes as XML text. What is written may hold decrypted secrets, so all buffers are wiped.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "libconf/wiped_string.h"

// Writes elements; keeps the namespaces that it looked up. `dkey` is the Redis key of the node that holds the element.
class db_element_writer {
public:
  explicit db_element_writer(bool decrypt) : decrypt_(decrypt) {}

  // Appends the element to `buffer`: whole with a text, else only its opening tag, whose name goes to `ret_name` (may
  // be null) for db_add_etag. What the schema knows at `dkey` as anyxml or anydata is written by db_new_any. 0 or -1.
  int db_new_node(std::string_view dkey, std::string_view ename, std::optional<std::string_view> text,
                  wiped_string *buffer, std::string *ret_name);
  // A whole element whose content is markup; content that is not well-formed is taken as text.
  int db_new_any(std::string_view dkey, std::string_view ename, std::string_view markup, wiped_string *buffer);
  // The element of a list entry with its keys, left open, its name in `oname`; or a whole leaf-list element, `oname`
  // empty.
  int db_add_list_entry(std::string_view list_key, std::string_view predicate, wiped_string *buffer,
                        std::string *oname);

private:
  const wiped_string &namespace_of(std::string_view module);
  void add_value_namespaces(std::string_view text, wiped_string *buffer) const;
  int open_element(std::string_view dkey, std::string_view ename, wiped_string *buffer, std::string_view *ret_name);
  int add_text(std::string_view name, std::string_view text, wiped_string *buffer);

  bool decrypt_;
  std::map<std::string, wiped_string, std::less<>> namespaces_;
};

void db_add_etag(std::string_view name, wiped_string *buffer);
