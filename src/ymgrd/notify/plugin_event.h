// Events that plugins send to notify.sock: one element as text, defined by a YANG notification. Stored events hold
// their sensitive values as cipher text.
#pragma once

#include <string>
#include <string_view>

#include "libconf/wiped_string.h"

// Checks the event against its notification, references into running included. 0 with the element, complete with its
// namespaces, sensitive leaves encrypted; -1 (logged): it is not sent. The daemon's own notifications are refused.
int plugin_event_check(std::string_view datagram, std::string *ret_content);
// An event on its way to a client: true with its content in clear when it holds sensitive values, false when it is to
// be sent as it is. A value that cannot be decrypted stays cipher text (logged).
bool event_content_for_client(std::string_view content, wiped_string *ret_text);
