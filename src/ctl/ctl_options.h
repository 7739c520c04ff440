// Options and arguments that several commands have, in the same words. What is parsed goes to the variables, which must
// live as long as the app; their values before are the defaults.
#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

const std::vector<std::string> &ctl_datastores();
CLI::Option *ctl_add_datastore(CLI::App *app, const char *name, const char *help, std::string *datastore,
                               const std::vector<std::string> &possible = ctl_datastores());
CLI::Option *ctl_add_path(CLI::App *app, const char *help, std::string *path);
CLI::Option *ctl_add_file(CLI::App *app, const char *help, std::string *path);
