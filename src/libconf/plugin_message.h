// Messages of the plugin socket: their frames and the XML envelope around them. The daemon and libymgrplugin share it.
//
//   request  <rpc><method>NAME</method><params>...</params><id>N</id></rpc>
//   reply    <reply><result>...</result><id>N</id></reply>
//            <reply><error><code>C</code><message>TEXT</message></error><id>N</id></reply>
//
// A frame is a head of 12 bytes in machine byte order and the XML text without declaration.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include <libxml/tree.h>

#include "libconf/wiped_string.h"

constexpr uint32_t PLUGIN_MSG_MAGIC = 0xFEDCBAFFU;
constexpr uint32_t PLUGIN_MAX_MESSAGE_SIZE = 64 * 1024 * 1024; // of the XML text, unless configured otherwise

typedef struct _plugin_msg_head {
  uint32_t magic;
  uint32_t length; // of the XML text, in bytes
  uint16_t msg_id; // never 0 in a request; a reply carries its request's
  uint16_t zero;
} plugin_msg_head_t;
static_assert(sizeof(plugin_msg_head_t) == 12 && std::is_trivially_copyable_v<plugin_msg_head_t>);

// Clears the texts of the message first: they may be secrets.
struct plugin_doc_delete_t {
  void operator()(xmlDoc *doc) const;
};
using plugin_doc_ptr = std::unique_ptr<xmlDoc, plugin_doc_delete_t>;

// --- Building. Null only when memory is short.

// A document with the root <params>, to be filled.
plugin_doc_ptr plugin_new_params();
// Wraps `params` (taken over; null: an empty one).
plugin_doc_ptr plugin_build_rpc_message(const char *method, plugin_doc_ptr params, uint16_t msg_id);
// With an empty <result>, to be filled through plugin_result_of.
plugin_doc_ptr plugin_build_reply_ok(uint16_t msg_id);
plugin_doc_ptr plugin_build_reply_error(int code, const char *message, uint16_t msg_id);
xmlNode *plugin_root_of(const plugin_doc_ptr &doc); // the root element, to which children are added
xmlNode *plugin_result_of(const plugin_doc_ptr &reply);

// A new last child; `text` is taken as characters. Null when memory is short, or the text is not UTF-8 or holds
// characters that XML can not carry.
xmlNode *plugin_add_text(xmlNode *parent, const char *name, std::string_view text);
// The characters of `text` that XML can carry, a question mark for each other byte. At most `most` bytes.
std::string plugin_printable(std::string_view text, size_t most);
xmlNode *plugin_add_int(xmlNode *parent, const char *name, long value);
// Parses `markup` (any number of elements) and appends them to `parent`. 0, or -1 when it is not well-formed.
int plugin_add_markup(xmlNode *parent, std::string_view markup);

// The text that goes over the socket.
wiped_string plugin_print_message(const plugin_doc_ptr &message);
// The same with its head in front.
wiped_string plugin_frame_message(const plugin_doc_ptr &message, uint16_t msg_id);

// --- Reading. Nothing is fetched, expanded or declared: a document type, an undeclared prefix, and what passes the
// limits of xml_limits.h are errors. White space between elements is dropped.

// Null when the text is not one well-formed element.
plugin_doc_ptr plugin_parse_message(std::string_view text);
bool plugin_is_reply(const xmlNode *message); // the root is <reply>
// 0 with the method's name and its <params>, both of the message; -1 when it is no valid request.
int plugin_parse_rpc(const xmlNode *rpc, std::string *ret_method, xmlNode **ret_params);
// 0 with one of <result> and <error> (the other is null); -1 when it is no valid reply.
int plugin_parse_reply(const xmlNode *reply, xmlNode **ret_result, xmlNode **ret_error);
int plugin_get_msgid(const xmlNode *message);              // 1 to 65535; 0 when there is none
int plugin_get_reply_errcode(const xmlNode *error);        // -1 when there is none
std::string plugin_get_reply_errmsg(const xmlNode *error); // empty when there is none

xmlNode *plugin_first_element(const xmlNode *parent); // null when there is none
xmlNode *plugin_next_element(const xmlNode *node);
// The first child element of that name; null when there is none.
xmlNode *plugin_find_element(const xmlNode *parent, const char *name);
// Its text, white space at its ends cut off; nothing when there is no such child.
std::optional<std::string> plugin_child_text(const xmlNode *parent, const char *name);
// Its number; nothing when there is none, or it is no decimal integer of that range.
std::optional<int64_t> plugin_child_int(const xmlNode *parent, const char *name, int64_t least, int64_t most);
// True for "true" and "1" and for an empty element; false for every other text and when there is no such child.
bool plugin_child_flag(const xmlNode *parent, const char *name);
// Appends the markup of all child elements, each with the namespaces that are in scope. 0 or -1 (memory).
int plugin_append_markup(const xmlNode *parent, wiped_string *text);
