// Textual keys of configuration nodes.
//
// Data key: "/MODULE:TOP/child/OTHERMODULE:child/list[k1="v1",k2="v2"]/leaf-list[.="v"]": names an instance. The module
// stands where it differs from the parent's; keys stand in the schema's key order; values are quoted with double
// quotes. Schema key: "/MODULE:TOP/choice/case/child/list[]/leaf": names a schema position, with choices and cases;
// lists and leaf-lists end in "[]".
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

#include <libyang/libyang.h>

#include "ymgrd/ymgrd.h"

// --- Values and positions inside a key. Plain text functions.

// `value` in double quotes, each double quote and backslash inside preceded by a backslash.
std::string datastore_value_add_quotes(std::string_view value);
// Undoes it in place; a text that does not both start and end with a double quote is left alone.
void datastore_value_rm_quotes(char *text);
std::string datastore_value_rm_quotes(std::string_view text);
// Quotes the values inside the predicates of a whole path (values may be bare, or in single or double quotes).
std::string datastore_path_add_quotes(std::string_view path);

// A data key as an XPath location path: each key in a predicate of its own, the values as XPath literals.
std::string dbkey_to_xpath(std::string_view data_key);

// 1 when `cur` lies inside a quoted value of the key that starts at `begin`, else 0 (also for null or cur < begin).
int32_t datastore_is_in_quotes(const char *begin, const char *cur);
// First occurrence of `key` at or after `cur` outside quotes; null if none.
const char *datastore_find_next_key_char(const char *begin, const char *cur, char key);
// Last occurrence of `key` outside quotes, looking back from the end of `begin` down to `cur`; null if none.
const char *datastore_find_last_key_char(const char *begin, const char *cur, char key);
// A leaf-list entry's data key without its predicate.
std::string ds_get_leaf_list_normal_path(std::string_view complete);
std::string datastore_key2special(std::string_view src); // the key unchanged: no further escaping exists
int datastore_special2key(char *key);                    // does nothing, 0

// --- Keys of data nodes.

// Notes which cases of the compiled schema stand for shorthand statements (a choice's child without a case of its own):
// they get no segment in schema keys, and nothing but the parsed modules tells them apart. To be called once, when the
// schema is loaded: unless the context was made with LY_CTX_SET_PRIV_PARSED it is compiled anew, and schema nodes and
// data trees taken before are invalid. 0 or -1.
int dbkey_prepare(ly_ctx *ctx);
bool dbkey_is_shorthand_case(const lysc_node *schema);

// The node's schema node; for an opaque node (an element whose value its type refuses, such as the empty leaf of a
// delete) the one that it names below its parent, or null.
const lysc_node *dbkey_schema_of(const lyd_node *node);
const lys_module *dbkey_get_main_module(const lysc_node *schema);
// The module name to write before the node's name, or null when its parent is of the same module.
const char *dbkey_calc_prefix(const lyd_node *node);
// The node's last segment: its name with its prefix, without predicate.
std::string dbkey_segment(const lyd_node *node);
// The predicate text of a list or leaf-list entry without brackets: k1="v1",k2="v2" or .="v"; empty for other nodes and
// for lists without keys.
std::string dbkey_predicate(const lyd_node *node);
// Appends "/segment" and, for entries, "[predicate]" to the parent's data key in `key`.
void dbkey_append(std::string *key, const lyd_node *node);
// Appends "/segment" for a node that is no entry, known by its schema only.
void dbkey_append_name(std::string *key, const lysc_node *schema);
// The node's whole data key.
std::string dbkey_data_key(const lyd_node *node);

// The schema key, computed once for each schema node and interned in the context's dictionary; valid until
// dbkey_release. Null on failure (logged).
const char *dbkey_schema_key(const lysc_node *schema);
// The schema node of a data or schema path: "/MODULE:TOP/child/OTHERMODULE:child". Predicates and "[]" are ignored;
// names of choices and cases may stand or be left out, each by itself; the first step may name an RPC. Where the module
// changes its name may be left out as long as only one child has that name. A data node is preferred to a choice or
// case of the same name. Null with `*ret_error` naming the step that is unknown: "/m:a/b: m:a has no child b".
const lysc_node *dbkey_find_path(std::string_view path, std::string *ret_error); // in the daemon's schema
const lysc_node *dbkey_find_path(const ly_ctx *ctx, std::string_view path, std::string *ret_error);

// Forgets all schema keys and shorthand cases: to be called before the libyang context is destroyed.
void dbkey_release();

// What a document's nodes carry behind lyd_node.priv. Records live in the arena of their document: freeing a tree does
// not touch them, copies of nodes have none.
typedef struct _ds_node_record {
  const char *data_key = nullptr;   // interned in the context's dictionary
  const char *schema_key = nullptr; // shared, see dbkey_schema_key
  NC_EDIT_OP_TYPE node_op = NC_EDIT_OP_NONE;
  uint32_t order = 0; // position among the document's elements
} ds_node_record_t;

class ds_node_arena {
public:
  ds_node_arena() = default;
  ds_node_arena(const ds_node_arena &) = delete;
  ds_node_arena &operator=(const ds_node_arena &) = delete;
  ~ds_node_arena(); // gives the interned data keys back; the nodes must not be asked for their records afterwards

  ds_node_record_t *record_of(lyd_node *node); // made when the node has none
private:
  const ly_ctx *ctx_ = nullptr; // of the document
  std::deque<ds_node_record_t> records_;
};

inline const ds_node_record_t *ds_node_record(const lyd_node *node)
{
  return static_cast<const ds_node_record_t *>(node->priv);
}

// Fills data_key and schema_key of `node` and of every node below. 0, also for null; -1 on failure.
int parse_dbkey(lyd_node *node, ds_node_arena *arena);
