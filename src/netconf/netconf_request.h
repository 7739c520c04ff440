// What ymgr-netconf itself looks at in requests and their replies: the start tag of the request, and errors. Everything
// else is between client and daemon.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "netconf/netconf_xml.h"

typedef struct _netconf_request {
  netconf_doc_ptr tag;    // the root element without its content; null when its start tag is not known to be sound
  std::string operation;  // name of the first element in it; empty when there is none
  std::string message_id; // empty when there is none
} netconf_request_t;

// Reads the beginning of a message.
netconf_request_t netconf_request_read(std::string_view message);

// Faults for which a message gets an answer without the daemon, or in place of the daemon's.
enum class netconf_fault { none, too_big, malformed, no_message_id };

// What is wrong with a message before the daemon sees it.
netconf_fault netconf_request_check(const netconf_request_t &request);
// The whole <rpc-reply>, with the request's attributes. A client without base:1.1 is told in the words of base:1.0.
std::string netconf_fault_reply(const netconf_request_t &request, netconf_fault fault, bool has_base_1_1);

// The daemon answers a message that is no XML with the frame's number as its message-id. Whether `reply` is such an
// answer to the frame `seq`; `request` must have another message-id.
bool netconf_reply_is_to_no_xml(std::string_view reply, uint16_t seq, const netconf_request_t &request);

// An <rpc-reply> with errors, as clients expect it. The daemon's <error-info> is text: where that is XML it becomes
// elements. An empty <error-path> goes. A reply that cannot be read is returned as it is.
std::string netconf_standard_errors(std::string_view reply);
