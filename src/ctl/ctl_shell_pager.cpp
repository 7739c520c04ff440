#include "ctl/ctl_shell_pager.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace {

// -F ends it when all fits, -R keeps colours, -X leaves what was shown on the screen.
constexpr char USUAL_PAGER[] = "command -v less >/dev/null && exec less -FRX || exec cat";

// Runs the shell command with the read end as standard input; the process, or -1.
pid_t spawn_reader(const char *command, int read_end)
{
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  sigset_t defaults;
  (void)sigemptyset(&defaults);
  (void)sigaddset(&defaults, SIGINT);
  (void)sigaddset(&defaults, SIGPIPE);
  if (posix_spawn_file_actions_init(&actions) != 0) {
    return -1;
  }
  if (posix_spawnattr_init(&attributes) != 0) {
    (void)posix_spawn_file_actions_destroy(&actions);
    return -1;
  }
  (void)posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  (void)posix_spawnattr_setsigdefault(&attributes, &defaults);
  const char *words[] = {"sh", "-c", command, nullptr};
  pid_t pid = -1;
  if (posix_spawn_file_actions_adddup2(&actions, read_end, STDIN_FILENO) != 0 ||
      posix_spawn(&pid, "/bin/sh", &actions, &attributes, const_cast<char **>(words), environ) != 0) {
    pid = -1;
  }
  (void)posix_spawnattr_destroy(&attributes);
  (void)posix_spawn_file_actions_destroy(&actions);
  return pid;
}

} // namespace

ctl_pager::ctl_pager() : stream_(nullptr, fclose)
{
  winsize size = {};
  const bool is_known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0;
  screen_rows_ = is_known ? size.ws_row : 24;
  columns_ = is_known ? size.ws_col : 80;
  stream_.reset(fopencookie(this, "w", {nullptr, on_write, nullptr, nullptr}));
}

ctl_pager::~ctl_pager()
{
  finish();
}

void ctl_pager::finish()
{
  stream_.reset();
  if (is_held_) {
    is_held_ = false;
    pass_on(held_);
    (void)fflush(stdout);
  }
  if (pipe_ >= 0) {
    close(pipe_);
    pipe_ = -1;
  }
  while (pager_ > 0 && waitpid(pager_, nullptr, 0) < 0 && errno == EINTR) {
  }
  pager_ = -1;
}

ssize_t ctl_pager::on_write(void *cookie, const char *bytes, size_t count)
{
  try {
    static_cast<ctl_pager *>(cookie)->take({bytes, count});
    return static_cast<ssize_t>(count);
  } catch (const std::exception &) {
    errno = ENOMEM;
    return 0;
  }
}

void ctl_pager::take(std::string_view text)
{
  if (!is_held_) {
    return pass_on(text);
  }
  held_ += text;
  count_rows(text);
  if (rows_ >= screen_rows_) {
    is_held_ = false;
    (void)start_pager(); // without one all goes to the terminal
    pass_on(held_);
    held_ = {};
  }
}

// Lines that are wider than the screen take several rows. Colours take none.
void ctl_pager::count_rows(std::string_view text)
{
  for (char c : text) {
    if (in_escape_) {
      in_escape_ = isalpha(static_cast<unsigned char>(c)) == 0;
    } else if (c == '\033') {
      in_escape_ = true;
    } else if (c == '\n') {
      rows_++;
      column_ = 0;
    } else if ((static_cast<unsigned char>(c) & 0xC0U) != 0x80U && ++column_ > columns_) {
      rows_++;
      column_ = 1;
    }
  }
}

bool ctl_pager::start_pager()
{
  const char *wanted = getenv("PAGER");
  if (wanted != nullptr && *wanted == '\0') {
    return false;
  }
  int ends[2] = {-1, -1};
  if (pipe2(ends, O_CLOEXEC) != 0) {
    return false;
  }
  pager_ = spawn_reader(wanted != nullptr ? wanted : USUAL_PAGER, ends[0]);
  close(ends[0]);
  if (pager_ < 0) {
    close(ends[1]);
    return false;
  }
  pipe_ = ends[1];
  return true;
}

// What a pager does not want any more, because its reader has seen enough, is dropped.
void ctl_pager::pass_on(std::string_view text)
{
  if (pager_ < 0) {
    (void)fwrite(text.data(), 1, text.size(), stdout);
    return;
  }
  while (pipe_ >= 0 && !text.empty()) {
    const ssize_t count = write(pipe_, text.data(), text.size());
    if (count < 0 && errno != EINTR) {
      close(pipe_);
      pipe_ = -1;
    }
    text.remove_prefix(static_cast<size_t>(std::max<ssize_t>(count, 0)));
  }
}
