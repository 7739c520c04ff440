#include "ymgrd/datastore/ds_print.h"

#include <string>

#include "ymgrd/datastore/dbkey.h"
#include "ymgrd/datastore/ds_value.h"
#include "ymgrd/schema/schema_sensitive.h"

namespace {

class tree_printer {
public:
  tree_printer(db_secrets_t secrets, wiped_string *text) : writer_(secrets), text_(text) {}

  int print(const lyd_node *node)
  {
    return node->schema->nodetype & (LYS_CONTAINER | LYS_LIST) ? print_inner(node) : print_value(node);
  }

private:
  // Its name, qualified where the module changes. Only the writer's next call may use it.
  std::string_view element_name(const lyd_node *node)
  {
    const char *prefix = dbkey_calc_prefix(node);
    if (prefix == nullptr) {
      return LYD_NAME(node);
    }
    name_.assign(prefix).append(":").append(LYD_NAME(node));
    return name_;
  }

  int print_value(const lyd_node *node)
  {
    if (schema_is_sensitive(node->schema)) {
      return writer_.db_new_sensitive({}, element_name(node), lyd_get_value(node), text_);
    }
    if (ds_is_stored_canonically(node)) {
      return writer_.db_new_node({}, element_name(node), lyd_get_value(node), text_, nullptr);
    }
    if (node->schema->nodetype & LYD_NODE_ANY) {
      return writer_.db_new_any({}, element_name(node), ds_stored_value(node), text_);
    }
    return writer_.db_new_node({}, element_name(node), ds_stored_value(node), text_, nullptr);
  }

  int print_inner(const lyd_node *node)
  {
    if (writer_.db_new_node({}, element_name(node), std::nullopt, text_, nullptr) != 0) {
      return -1;
    }
    for (const lyd_node *child = lyd_child(node); child != nullptr; child = child->next) {
      if (print(child) != 0) {
        return -1;
      }
    }
    db_add_etag(LYD_NAME(node), text_);
    return 0;
  }

  db_element_writer writer_;
  wiped_string *text_;
  std::string name_;
};

} // namespace

int ds_print_node(const lyd_node *node, db_secrets_t secrets, wiped_string *text)
{
  return tree_printer(secrets, text).print(node);
}
