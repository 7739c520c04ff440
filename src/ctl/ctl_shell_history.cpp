#include "ctl/ctl_shell_history.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ctl/ctl_complete.h"

namespace {

constexpr std::string_view SECRET_NAMES[] = {"password",  "passwd", "passphrase", "secret", "key",
                                             "community", "token",  "credential", "psk",    "pin"};

std::string home()
{
  const char *home = getenv("HOME");
  const passwd *entry = home == nullptr ? getpwuid(getuid()) : nullptr;
  return home != nullptr ? home : entry != nullptr ? entry->pw_dir : "";
}

// An open history file that nobody else changes meanwhile.
class locked_file {
public:
  explicit locked_file(const std::string &path)
      : descriptor_(open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600))
  {
    while (descriptor_ >= 0 && flock(descriptor_, LOCK_EX) != 0) {
      if (errno != EINTR) {
        close(descriptor_);
        descriptor_ = -1;
      }
    }
  }
  ~locked_file()
  {
    if (descriptor_ >= 0) {
      close(descriptor_);
    }
  }
  locked_file(const locked_file &) = delete;
  locked_file &operator=(const locked_file &) = delete;

  bool is_open() const { return descriptor_ >= 0; }
  int read_all(std::string *ret_text) const;
  int append(std::string_view text) const;
  int truncate() const { return ftruncate(descriptor_, 0); }

private:
  int descriptor_;
};

int locked_file::read_all(std::string *ret_text) const
{
  std::string text;
  char piece[8192];
  for (;;) {
    const ssize_t count = pread(descriptor_, piece, sizeof(piece), static_cast<off_t>(text.size()));
    if (count == 0) {
      break;
    }
    if (count > 0) {
      text.append(piece, static_cast<size_t>(count));
    } else if (errno != EINTR) {
      return -1;
    }
  }
  *ret_text = std::move(text);
  return 0;
}

int locked_file::append(std::string_view text) const
{
  while (!text.empty()) {
    const ssize_t count = write(descriptor_, text.data(), text.size());
    if (count < 0 && errno != EINTR) {
      return -1;
    }
    text.remove_prefix(static_cast<size_t>(std::max<ssize_t>(count, 0)));
  }
  return 0;
}

int make_folders(const std::string &path)
{
  for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    if (mkdir(path.substr(0, slash).c_str(), 0700) != 0 && errno != EEXIST) {
      return -1;
    }
  }
  return 0;
}

} // namespace

std::string ctl_history_path()
{
  const char *state = getenv("XDG_STATE_HOME");
  const std::string folder = state != nullptr && *state == '/' ? state : home() + "/.local/state";
  return folder + "/ymgrctl/history";
}

int ctl_load_history(const std::string &path, std::vector<std::string> *ret_lines)
{
  if (make_folders(path) != 0) {
    return -1;
  }
  locked_file file(path);
  std::string text;
  if (!file.is_open() || file.read_all(&text) != 0) {
    return -1;
  }
  std::vector<std::string> lines;
  for (size_t begin = 0, end = 0; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
    lines.push_back(text.substr(begin, end - begin));
  }
  const bool is_long = lines.size() > 2 * CTL_MOST_HISTORY;
  if (lines.size() > CTL_MOST_HISTORY) {
    lines.erase(lines.begin(), lines.end() - CTL_MOST_HISTORY);
  }
  if (is_long) {
    std::string rest;
    for (const std::string &line : lines) {
      rest += line + "\n";
    }
    if (file.truncate() != 0 || file.append(rest) != 0) {
      return -1;
    }
  }
  *ret_lines = std::move(lines);
  return 0;
}

int ctl_append_history(const std::string &path, std::string_view line)
{
  locked_file file(path);
  return file.is_open() ? file.append(std::string(line) + "\n") : -1;
}

bool ctl_names_secret(std::string_view path)
{
  std::string names;
  char quote = '\0';
  bool in_brackets = false;
  for (char c : path) {
    if (quote != '\0') {
      quote = c == quote ? '\0' : quote;
    } else if (in_brackets && (c == '\'' || c == '"')) {
      quote = c;
    } else if (c == '[' || c == ']') {
      in_brackets = c == '[';
    } else if (!in_brackets) {
      names += static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
  }
  return std::any_of(std::begin(SECRET_NAMES), std::end(SECRET_NAMES),
                     [&](std::string_view name) { return names.find(name) != std::string::npos; });
}

std::string ctl_history_line(std::string_view line)
{
  if (line.empty() || line.front() == ' ' || line.front() == '\t') {
    return "";
  }
  line = line.substr(0, line.find_last_not_of(" \t\r\n") + 1);
  std::vector<std::string> words = ctl_split_line(line).words;
  const bool is_set = std::find(words.begin(), words.end(), "set") != words.end();
  const auto path = std::find_if(words.begin(), words.end(), ctl_names_secret);
  if (!is_set || words.end() - path < 2) {
    return std::string(line);
  }
  std::string kept;
  for (auto word = words.begin(); word <= path; word++) {
    kept += (kept.empty() ? "" : " ") + ctl_quote_word(*word);
  }
  return kept;
}
