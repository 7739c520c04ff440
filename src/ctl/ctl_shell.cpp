// The shell of ymgrctl: commands at a terminal, or from a script.
#include <algorithm>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstring>
#include <iostream>
#include <memory>

#include <sys/socket.h>
#include <unistd.h>

#include "ctl/ctl_commands.h"
#include "ctl/ctl_complete.h"
#include "ctl/ctl_operations.h"
#include "ctl/ctl_reply.h"
#include "ctl/ctl_shell_editor.h"
#include "ctl/ctl_shell_history.h"
#include "ctl/ctl_shell_pager.h"

namespace {

constexpr ymgr_duration PROMPT_PATIENCE{500}; // for what the prompt shows
volatile sig_atomic_t interrupted = 0;

void note_interrupt(int)
{
  interrupted = 1;
}

// What is done about a signal as long as it lives. One that is ignored stays so: who started the program wants that.
class signal_scope {
public:
  signal_scope(int number, void (*handler)(int)) : number_(number)
  {
    struct sigaction action = {};
    action.sa_handler = handler;
    (void)sigaction(number, &action, &usual_);
    if (usual_.sa_handler == SIG_IGN) {
      (void)sigaction(number, &usual_, nullptr);
    }
  }
  ~signal_scope() { (void)sigaction(number_, &usual_, nullptr); }
  signal_scope(const signal_scope &) = delete;
  signal_scope &operator=(const signal_scope &) = delete;

private:
  int number_;
  struct sigaction usual_ = {};
};

class shell {
public:
  explicit shell(ctl_device &device) : device_(device) {}

  int run_terminal();
  int run_script(bool keep_going);

private:
  using built_in_t = int (shell::*)(const std::vector<std::string> &words);
  static const std::pair<std::string_view, built_in_t> built_ins[];

  int run_line(const std::string &line);
  int run_command(const std::vector<std::string> &words);
  int run_paged(const std::vector<std::string> &words);
  int help(const std::vector<std::string> &words);
  int history(const std::vector<std::string> &words);
  int leave(const std::vector<std::string> &words);

  void drop_lost_connection();
  ctl_candidate_state_t look_at_candidate();
  std::string prompt();
  std::vector<ctl_candidate_t> complete(const std::vector<std::string> &words);

  ctl_device &device_;
  ctl_editor *editor_ = nullptr; // at a terminal
  ctl_candidate_state_t candidate_;
  bool was_warned_ = false; // of what is not committed, by the command before
  bool is_over_ = false;
};

const std::pair<std::string_view, shell::built_in_t> shell::built_ins[] = {
    {"help", &shell::help}, {"history", &shell::history}, {"exit", &shell::leave}, {"quit", &shell::leave}};

// --- Commands.

int shell::run_line(const std::string &line)
{
  const ctl_line_t parts = ctl_split_line(line);
  if (parts.words.empty() || parts.words.front().starts_with("#")) {
    return CTL_OK;
  }
  if (parts.quote != '\0' && line[parts.last_begin] == parts.quote) {
    return ctl_fail(device_.output(), CTL_USAGE, std::string("the quote ") + parts.quote + " is not closed");
  }
  const bool was_warned = was_warned_;
  for (const auto &[name, action] : built_ins) {
    if (parts.words.front() == name) {
      const int exit_code = (this->*action)(parts.words);
      was_warned_ = was_warned_ && !was_warned;
      return exit_code;
    }
  }
  was_warned_ = false;
  return run_command(parts.words);
}

int shell::run_command(const std::vector<std::string> &words)
{
  if (words.front() == "shell") {
    return ctl_fail(device_.output(), CTL_USAGE, "this is the shell already");
  }
  signal_scope on_interrupt(SIGINT, note_interrupt);
  interrupted = 0;
  const bool is_help =
      std::any_of(words.begin(), words.end(), [](const std::string &word) { return word == "--help" || word == "-h"; });
  if (ctl_find_command(words.front()) != nullptr && !is_help) {
    drop_lost_connection();
    ymgr_client_t *client = device_.client();
    if (client == nullptr) {
      return CTL_UNREACHABLE;
    }
    ymgr_set_progress(client, [](const ymgr_progress_t &) { return interrupted == 0; });
  }
  const int exit_code = editor_ == nullptr || words.front() == "watch" ? ctl_run(device_, words) : run_paged(words);
  if (exit_code == CTL_INTERRUPTED && device_.session_id() == 0) {
    (void)ctl_fail(device_.output(), exit_code,
                   "the daemon may still carry it out; the session is closed, and its locks are given back");
  }
  return exit_code;
}

int shell::run_paged(const std::vector<std::string> &words)
{
  ctl_pager pager;
  if (pager.stream() == nullptr) {
    return ctl_run(device_, words);
  }
  FILE *usual = device_.output().out;
  device_.output().out = pager.stream();
  const int exit_code = ctl_run(device_, words);
  device_.output().out = usual;
  pager.finish();
  return exit_code;
}

int shell::help(const std::vector<std::string> &words)
{
  if (words.size() > 1) {
    return ctl_run(device_, {words[1], "--help"});
  }
  const std::pair<const char *, const char *> own[] = {{"help", "list the commands; help COMMAND: its options"},
                                                       {"history", "list the lines that were entered"},
                                                       {"exit", "leave the shell; as quit and Ctrl-D"}};
  std::string text;
  auto add = [&](const std::string &name, const char *summary) {
    text += "  " + name + std::string(std::max<size_t>(name.size() + 1, 14) - name.size(), ' ') + summary + "\n";
  };
  for (const ctl_command_t &command : ctl_commands()) {
    if (*command.group != '\0' && std::string_view(command.name) != "shell") {
      add(command.name, command.summary);
    }
  }
  for (const auto &[name, summary] : own) {
    add(name, summary);
  }
  return ctl_write(device_.output(), text);
}

int shell::history(const std::vector<std::string> &)
{
  std::string text;
  for (const std::string &line : editor_ == nullptr ? std::vector<std::string>() : editor_->history()) {
    text += line + "\n";
  }
  return ctl_write(device_.output(), text);
}

int shell::leave(const std::vector<std::string> &)
{
  if (editor_ != nullptr && candidate_.has_changes && !was_warned_) {
    was_warned_ = true;
    return ctl_write(device_.output(), "candidate holds changes that are not committed; they stay there. "
                                       "Again to leave all the same.\n");
  }
  is_over_ = true;
  return CTL_OK;
}

// --- The connection.

// A connection that ended while nobody used it: told, and the command gets a fresh one.
void shell::drop_lost_connection()
{
  if (device_.session_id() == 0) {
    return;
  }
  char byte = 0;
  const ssize_t count = recv(ymgr_descriptor(device_.client()), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  if (count == 0 || (count < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
    device_.disconnect();
    (void)ctl_fail(device_.output(), CTL_UNREACHABLE,
                   "the daemon closed the connection, and with it went the locks; connecting anew");
  }
}

// Only when there is a session: a prompt opens none.
ctl_candidate_state_t shell::look_at_candidate()
{
  drop_lost_connection();
  if (device_.session_id() == 0) {
    return {};
  }
  ymgr_client_t *client = device_.client();
  ymgr_set_progress(client, {});
  const std::optional<std::string> reply = ymgr_rpc(client, ctl_get_candidate_state(), PROMPT_PATIENCE);
  const std::optional<ctl_candidate_state_t> state = reply ? ctl_read_candidate_state(*reply) : std::nullopt;
  return state.value_or(ctl_candidate_state_t());
}

// --- At a terminal.

std::string shell::prompt()
{
  candidate_ = look_at_candidate();
  std::string state = candidate_.has_changes ? "candidate*" : "";
  if (candidate_.lock_holder != 0) {
    state += state.empty() ? "" : " ";
    state += candidate_.lock_holder == device_.session_id()
                 ? "locked"
                 : "locked by session " + std::to_string(candidate_.lock_holder);
  }
  return "ymgrctl" + (state.empty() ? "" : "[" + state + "]") + "> ";
}

std::vector<ctl_candidate_t> shell::complete(const std::vector<std::string> &words)
{
  std::vector<ctl_candidate_t> candidates;
  const bool after_help = words.size() == 2 && words.front() == "help";
  if (words.size() == 1) {
    for (const auto &[name, action] : built_ins) {
      if (name.starts_with(words.front())) {
        candidates.push_back({std::string(name), std::string(name), true});
      }
    }
  }
  const std::vector<ctl_candidate_t> others = ctl_complete(device_, after_help ? std::vector{words.back()} : words);
  candidates.insert(candidates.end(), others.begin(), others.end());
  std::erase_if(candidates, [&](const ctl_candidate_t &candidate) {
    return (words.size() == 1 && candidate.text == "shell") ||
           std::any_of(candidate.text.begin(), candidate.text.end(),
                       [](char c) { return iscntrl(static_cast<unsigned char>(c)) != 0; });
  });
  return candidates;
}

int shell::run_terminal()
{
  (void)setlocale(LC_CTYPE, ""); // characters of more than one byte in lines
  signal_scope on_closed_pipe(SIGPIPE, SIG_IGN);
  signal_scope on_late_interrupt(SIGINT, note_interrupt); // between two commands there is nothing to end
  ctl_editor editor([this](const std::vector<std::string> &words) { return complete(words); });
  if (!editor.is_usable()) {
    return ctl_fail(device_.output(), CTL_INPUT, "the terminal cannot be used");
  }
  editor_ = &editor;
  const std::string history_path = ctl_history_path();
  std::vector<std::string> lines;
  const bool keeps_history = ctl_load_history(history_path, &lines) == 0;
  if (!keeps_history) {
    (void)ctl_fail(device_.output(), CTL_INPUT, "no history is kept in " + history_path + ": " + strerror(errno));
  }
  for (const std::string &line : lines) {
    editor.remember(line);
  }
  (void)device_.client(); // told when there is none; the shell opens all the same
  std::string line;
  while (!is_over_) {
    const ctl_read result = editor.read(prompt(), &line);
    if (result == ctl_read::end) {
      (void)ctl_write(device_.output(), "\n");
      if (isatty(STDIN_FILENO) == 0) {
        break; // the terminal has gone
      }
      (void)run_line("exit");
    } else if (result == ctl_read::line) {
      const std::string kept = ctl_history_line(line);
      if (!kept.empty()) {
        editor.remember(kept);
        if (keeps_history && ctl_append_history(history_path, kept) != 0) {
          (void)ctl_fail(device_.output(), CTL_INPUT, "the line is not kept: " + std::string(strerror(errno)));
        }
      }
      (void)run_line(line);
      explicit_bzero(line.data(), line.size()); // may hold a secret
    }
  }
  editor_ = nullptr;
  return CTL_OK;
}

// --- From a script.

int shell::run_script(bool keep_going)
{
  int result = CTL_OK;
  std::string line;
  while (!is_over_ && std::getline(std::cin, line)) {
    const int exit_code = run_line(line);
    result = result == CTL_OK ? exit_code : result;
    if (exit_code == CTL_INTERRUPTED || (exit_code != CTL_OK && !keep_going)) {
      break;
    }
  }
  return result;
}

} // namespace

ctl_action ctl_define_shell(CLI::App *app)
{
  auto keep_going = std::make_shared<bool>(false);
  app->add_flag("--keep-going", *keep_going, "a script goes on behind a command that failed");
  app->footer("Reads a script from standard input when that is no terminal. It ends with the exit code of the first "
              "command that failed.");
  return [keep_going](ctl_device &device) {
    shell lines(device);
    return isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0 ? lines.run_terminal()
                                                                   : lines.run_script(*keep_going);
  };
}
