#include "ctl/ctl_options.h"

const std::vector<std::string> &ctl_datastores()
{
  static const std::vector<std::string> names = {"running", "candidate", "startup"};
  return names;
}

CLI::Option *ctl_add_datastore(CLI::App *app, const char *name, const char *help, std::string *datastore,
                               const std::vector<std::string> &possible)
{
  return app->add_option(name, *datastore, help)
      ->type_name("DATASTORE")
      ->check(CLI::IsMember(possible))
      ->capture_default_str();
}

CLI::Option *ctl_add_path(CLI::App *app, const char *help, std::string *path)
{
  return app->add_option("path", *path, help)->type_name("PATH");
}

CLI::Option *ctl_add_file(CLI::App *app, const char *help, std::string *path)
{
  return app->add_option("file", *path, help)->type_name("FILE")->required();
}
