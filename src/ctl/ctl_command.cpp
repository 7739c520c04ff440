#include "ctl/ctl_command.h"

#include <algorithm>
#include <optional>

#include <unistd.h>

#include "ctl/ctl_commands.h"
#include "ctl/ctl_nearest.h"
#include "libconf/default_paths.h"

namespace {

constexpr char PROGRAM[] = "ymgrctl";

// As the help lists them.
constexpr char READING[] = "Reading";
constexpr char EDITING[] = "Editing";
constexpr char FILES[] = "Files";
constexpr char OTHERS[] = "Others";

// A command without group stays out of the help.
const ctl_command_t commands[] = {
    {"show", READING, "show the configuration", ctl_define_show, {ctl_argument::path}},
    {"get", READING, "show configuration and state", ctl_define_get, {ctl_argument::path}},
    {"get-config", READING, "show the configuration of a datastore", ctl_define_get_config, {ctl_argument::path}},
    {"diff", READING, "show how two datastores differ", ctl_define_diff, {ctl_argument::path}},
    {"status", READING, "show how the daemon is", ctl_define_status, {}},
    {"sessions", READING, "list the open sessions", ctl_define_sessions, {}},
    {"modules", READING, "list the YANG modules", ctl_define_modules, {}},
    {"watch", READING, "print notifications as they come", ctl_define_watch, {}},
    {"set", EDITING, "give a node a value, or create it", ctl_define_set, {ctl_argument::path, ctl_argument::value}},
    {"delete", EDITING, "remove a node", ctl_define_delete, {ctl_argument::path}},
    {"load", EDITING, "edit candidate with a file", ctl_define_load, {ctl_argument::file}},
    {"validate", EDITING, "check whether candidate would be accepted", ctl_define_validate, {}},
    {"commit", EDITING, "make candidate the running configuration", ctl_define_commit, {}},
    {"discard", EDITING, "give up the changes in candidate", ctl_define_discard, {}},
    {"save", EDITING, "make the running configuration the one of the next start", ctl_define_save, {}},
    {"copy",
     EDITING,
     "copy one datastore over another",
     ctl_define_copy,
     {ctl_argument::datastore, ctl_argument::datastore}},
    {"lock", EDITING, "keep others from changing a datastore", ctl_define_lock, {ctl_argument::datastore}},
    {"unlock", EDITING, "give a lock back", ctl_define_unlock, {ctl_argument::datastore}},
    {"backup", FILES, "write a configuration to a file", ctl_define_backup, {ctl_argument::backup_file}},
    {"restore", FILES, "make a backup the content of candidate", ctl_define_restore, {ctl_argument::backup_file}},
    {"rpc", OTHERS, "send an operation from a file", ctl_define_rpc, {ctl_argument::file}},
    {"kill-session", OTHERS, "end another session", ctl_define_kill_session, {ctl_argument::session}},
    {"shell", OTHERS, "type commands with history and completion", ctl_define_shell, {}},
    {"complete", "", "", ctl_define_complete, {}},
};

std::vector<std::string> command_names()
{
  std::vector<std::string> names;
  for (const ctl_command_t &command : commands) {
    if (*command.group != '\0') {
      names.emplace_back(command.name);
    }
  }
  return names;
}

// One line: its options, its command and what that is to do. Parsed into itself, so it stays where it is.
class command_line {
public:
  // `program` is what stands before a command in hints; empty in the shell.
  explicit command_line(std::string program);
  command_line(const command_line &) = delete;
  command_line &operator=(const command_line &) = delete;

  void add_program_options(std::string *run_dir);
  // The exit code when there is nothing left to do: a fault, which is told, or help, which is written. Else the
  // action is ready; it is null when no command was named.
  std::optional<int> parse(const std::vector<std::string> &words, const ctl_output_t &output);
  // `output` as the line's options want it.
  ctl_output_t adjust(ctl_output_t output) const;
  const ctl_action &action() const { return action_; }

private:
  void add_command(const ctl_command_t &command);
  int tell_usage_fault(const ctl_output_t &output, const CLI::ParseError &fault) const;

  std::string program_;
  CLI::App app_;
  std::string format_;
  std::string color_;
  ctl_action action_;
};

command_line::command_line(std::string program) : program_(std::move(program)), app_("", program_)
{
  app_.get_formatter()->label("SUBCOMMAND", "COMMAND");
  app_.get_formatter()->label("Positionals", "Arguments");
  app_.get_formatter()->label("REQUIRED", ""); // the usage line shows it
  app_.get_formatter()->label("Excludes", "not with");
  app_.set_help_flag("-h,--help", "print this and exit");
  app_.add_option("-o,--output", format_, "how data is written: tree, xml or json")
      ->type_name("FORMAT")
      ->check(CLI::IsMember({"tree", "xml", "json"}));
  app_.add_option("--color", color_, "auto, always or never")
      ->type_name("WHEN")
      ->check(CLI::IsMember({"auto", "always", "never"}));
  app_.require_subcommand(0, 1);
  app_.fallthrough(); // the options above may stand behind the command, too
  for (const ctl_command_t &command : commands) {
    add_command(command);
  }
}

void command_line::add_command(const ctl_command_t &command)
{
  CLI::App *app = app_.add_subcommand(command.name, command.summary);
  app->group(command.group);
  ctl_action action = command.define(app);
  if (app->get_footer().empty()) {
    app->footer("The options of the program may stand here, too: " + (program_.empty() ? "" : program_ + " ") +
                "--help lists them.");
  }
  app->final_callback([this, action = std::move(action)]() { action_ = action; });
}

void command_line::add_program_options(std::string *run_dir)
{
  app_.description("Configures the device through its configuration daemon.");
  app_.add_option("--run-dir", *run_dir, "the daemon's run directory")->type_name("DIR")->capture_default_str();
  app_.set_version_flag("--version", std::string(PROGRAM) + " " + YMGRD_VERSION, "print the version and exit");
}

std::optional<int> command_line::parse(const std::vector<std::string> &words, const ctl_output_t &output)
{
  try {
    app_.parse(std::vector<std::string>(words.rbegin(), words.rend()));
    return std::nullopt;
  } catch (const CLI::CallForHelp &) {
    return ctl_write(output, app_.help());
  } catch (const CLI::CallForVersion &version) {
    return ctl_write(output, std::string(version.what()) + "\n");
  } catch (const CLI::ParseError &fault) {
    return tell_usage_fault(output, fault);
  }
}

int command_line::tell_usage_fault(const ctl_output_t &output, const CLI::ParseError &fault) const
{
  const std::vector<CLI::App *> named = app_.get_subcommands();
  const std::vector<std::string> rest = app_.remaining();
  std::string message = fault.what();
  std::string help = program_;
  if (!named.empty()) {
    message = named.front()->get_name() + ": " + message;
    help += (help.empty() ? "" : " ") + named.front()->get_name();
  } else if (!rest.empty() && !rest.front().starts_with("-")) {
    message = "there is no command \"" + rest.front() + "\"" + ctl_did_you_mean(rest.front(), command_names());
  }
  std::replace(message.begin(), message.end(), '\n', ' ');
  help += help.empty() ? "help" : " --help"; // without a name it is the shell
  return ctl_fail(output, CTL_USAGE, message + "\nTry \"" + help + "\".");
}

ctl_output_t command_line::adjust(ctl_output_t output) const
{
  if (!format_.empty()) {
    output.format = format_ == "xml" ? ctl_format::xml : format_ == "json" ? ctl_format::json : ctl_format::tree;
  }
  if (!color_.empty()) {
    output.color = ctl_wants_color(color_, output.out);
  }
  return output;
}

} // namespace

std::span<const ctl_command_t> ctl_commands()
{
  return commands;
}

const ctl_command_t *ctl_find_command(std::string_view name)
{
  const auto *found =
      std::find_if(std::begin(commands), std::end(commands), [&](const auto &command) { return command.name == name; });
  return found == std::end(commands) ? nullptr : found;
}

int ctl_run(ctl_device &device, const std::vector<std::string> &words)
{
  command_line line("");
  const ctl_output_t usual = device.output();
  if (std::optional<int> finished = line.parse(words, usual)) {
    return *finished;
  }
  if (line.action() == nullptr) {
    return CTL_OK;
  }
  device.output() = line.adjust(usual);
  device.set_goes_on(true);
  int exit_code = line.action()(device);
  device.output() = usual;
  return exit_code;
}

int ctl_main(int argc, char **argv)
{
  std::string run_dir = DEFAULT_RUN_DIR;
  ctl_output_t output;
  output.color = ctl_wants_color("auto", output.out);
  output.progress = isatty(fileno(output.err)) != 0;
  command_line line(PROGRAM);
  line.add_program_options(&run_dir);
  if (std::optional<int> finished = line.parse(std::vector<std::string>(argv + 1, argv + argc), output)) {
    return *finished;
  }
  ctl_device device(run_dir, line.adjust(output));
  if (line.action() != nullptr) {
    return line.action()(device);
  }
  if (isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0) {
    return ctl_run(device, {"shell"});
  }
  return ctl_fail(output, CTL_USAGE,
                  std::string("which command?\nTry \"") + PROGRAM + " --help\"; \"" + PROGRAM +
                      " shell\" takes a script from standard input.");
}
