// Configuration and state data for plugins: reading before and after a change, positions of ordered entries, state that
// plugins supply, the results of the operations that they implement. All data is XML from the top node on, list entries
// with their keys, like the content of <data> in a reply to get. Paths are data paths in any form that libconf's
// plugin_path.h takes.
//
// A failure is -1 with `*ret_error` saying what is wrong, fit to be shown to the plugin's author.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "libconf/wiped_string.h"
#include "ymgrd/rpc/lyxml.h"

// DS_NEW: what running holds once the publication in flight has succeeded; DS_OLD: what it held before. Without a
// publication both are running.
typedef enum _ds_moment { DS_NEW = 0, DS_OLD = 1 } ds_moment_t;

// The node at `path` ("/": all) with all below it; all entries when the path ends in a list without keys. Empty text
// when there is nothing. 0 or -1.
int ds_plugin_pull(std::string_view path, ds_moment_t moment, wiped_string *ret_text, std::string *ret_error);
// The data paths of the entries before and behind the entry `path` of a list or leaf-list; empty at the ends. 0 or -1
// (also when there is no such entry).
int ds_plugin_locate(std::string_view path, ds_moment_t moment, std::string *ret_prev, std::string *ret_next,
                     std::string *ret_error);

// State data that a plugin pushes on its own: replaces what it pushed at `path` before (no elements in `data`: nothing
// stands there any more). The path must lie at or below one of `published`, the plugin's status paths; the data must be
// valid state data there. Answers later gets until it is replaced or the plugin goes. 0 or -1.
int ds_plugin_push(int plugin_id, std::string_view path, const xmlNode *data, const std::vector<std::string> &published,
                   std::string *ret_error);
void ds_plugin_forget_pushed(int plugin_id); // the plugin has gone
// State data that a publisher of `path` gave in answer to the get in progress: the child elements of `data`. 0 or -1.
int ds_plugin_set_status(std::string_view path, const xmlNode *data, std::string *ret_error);

// Checks the output of the operation `oper` ("/MODULE:NAME"): the child elements of `result`. 0 with the output as the
// schema has it, ready to be put into a reply, in `*ret_text` (empty when the operation has no output), its sensitive
// values sealed (crypto/sealed_text.h). -1.
int ds_plugin_check_output(const std::string &oper, const xmlNode *result, wiped_string *ret_text,
                           std::string *ret_error);
