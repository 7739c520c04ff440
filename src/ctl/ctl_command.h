// The commands of ymgrctl: one table for the command line, the shell and completion.
#pragma once

#include <functional>
#include <span>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "ctl/ctl_device.h"

// What stands at the place of a positional argument, for completion.
enum class ctl_argument { path, value, datastore, file, session, backup_file };

// Runs a command whose arguments were parsed; the exit code.
using ctl_action = std::function<int(ctl_device &device)>;

typedef struct _ctl_command {
  const char *name;
  const char *group;   // that the help lists it in; empty: in none
  const char *summary; // one line, for help
  // Adds the command's options and arguments to `app`. What they are parsed into lives in the action that comes back.
  ctl_action (*define)(CLI::App *app);
  std::vector<ctl_argument> arguments; // the positional ones, in order
} ctl_command_t;

std::span<const ctl_command_t> ctl_commands();
const ctl_command_t *ctl_find_command(std::string_view name); // null when there is none

// Runs one command given as words ("show", "/ex-sys:system"). Usage faults are told. The exit code.
int ctl_run(ctl_device &device, const std::vector<std::string> &words);
// The options that the program itself has stand before the command: --run-dir, --output, --color, --version, --help.
int ctl_main(int argc, char **argv);
