// Where the commands are defined, for the table in ctl_command.cpp. Each function is a ctl_command_t::define.
#pragma once

#include "ctl/ctl_command.h"

// command_read.cpp
ctl_action ctl_define_get(CLI::App *app);        // get [PATH]: configuration and state
ctl_action ctl_define_get_config(CLI::App *app); // get-config [PATH] --source running|candidate|startup
ctl_action ctl_define_show(CLI::App *app);       // show [PATH] --candidate|--startup, --value
ctl_action ctl_define_modules(CLI::App *app);    // modules
// command_edit.cpp
ctl_action ctl_define_set(CLI::App *app);    // set PATH [VALUE]
ctl_action ctl_define_delete(CLI::App *app); // delete PATH
// command_datastore.cpp
ctl_action ctl_define_validate(CLI::App *app); // validate: would candidate be accepted
ctl_action ctl_define_commit(CLI::App *app);
ctl_action ctl_define_discard(CLI::App *app);
ctl_action ctl_define_lock(CLI::App *app);   // lock [DATASTORE]: held until its session ends
ctl_action ctl_define_unlock(CLI::App *app); // unlock [DATASTORE]
ctl_action ctl_define_save(CLI::App *app);   // running to startup
ctl_action ctl_define_copy(CLI::App *app);   // copy SOURCE TARGET
// command_session.cpp
ctl_action ctl_define_kill_session(CLI::App *app); // kill-session ID
ctl_action ctl_define_sessions(CLI::App *app);
// command_status.cpp
ctl_action ctl_define_status(CLI::App *app);
// command_diff.cpp
ctl_action ctl_define_diff(CLI::App *app); // diff [PATH] --from DATASTORE --to DATASTORE --exit-code
// command_load.cpp
ctl_action ctl_define_load(CLI::App *app);    // load FILE --replace, --format xml|json, --target
ctl_action ctl_define_backup(CLI::App *app);  // backup FILE --source
ctl_action ctl_define_restore(CLI::App *app); // restore FILE: as candidate; --commit
// command_rpc.cpp
ctl_action ctl_define_rpc(CLI::App *app); // rpc FILE ("-": standard input)
// command_watch.cpp
ctl_action ctl_define_watch(CLI::App *app); // watch --start TIME --stop TIME --filter NAME --count N
// ctl_shell.cpp
ctl_action ctl_define_shell(CLI::App *app);
// ctl_complete.cpp: what the completion of bash calls; not in the help.
ctl_action ctl_define_complete(CLI::App *app);
