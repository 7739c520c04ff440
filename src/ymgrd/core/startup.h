// Start-up and tear-down of the daemon: single instance, signals, components in their order. Used by main, in this
// order.
#pragma once

#include <string>

// Lets the components below reach those above them, and their libraries reach the log. Before ymgrd_init.
void ymgrd_wire_components();

// Uses `run_dir` (absolute; made when missing) for the sockets and the instance lock. 0, or -1 with `*ret_error`.
int ymgrd_use_run_dir(const std::string &run_dir, std::string *ret_error);

// Takes the single-instance lock, which lasts until ymgrd_exit. 0; or -1 with `*ret_error`, one line for the user.
int ymgrd_run_once(std::string *ret_error);

// Installs the handlers of terminating signals.
void ymgrd_init_signal();

// Brings all components up and reads the profile; daemonizes when the profile says so. `keepalive_so` may be empty.
// 0, or -1: also when a stop signal came. Nothing is undone on failure: ymgrd_exit does that.
int ymgrd_init(const std::string &keepalive_so, bool smooth);

// Ends all components, in whatever state they are. A second call does nothing.
void ymgrd_exit();

// Ends the process by the stop signal's default action, when one was received; else returns.
void ymgrd_end_by_stop_signal();
