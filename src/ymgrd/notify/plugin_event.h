// Events that plugins send to notify.sock: one element as text, defined by a YANG notification.
#pragma once

#include <string>
#include <string_view>

// Checks the event against its notification, references into running included. 0 with the element, complete with its
// namespaces, sensitive leaves encrypted; -1 (logged): it is not sent.
int plugin_event_check(std::string_view datagram, std::string *ret_content);
