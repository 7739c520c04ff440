#include "ctl/ctl_output.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

namespace {

const char *escape_sequence(ctl_color color)
{
  switch (color) {
  case ctl_color::added:
    return "\033[32m";
  case ctl_color::removed:
    return "\033[31m";
  case ctl_color::changed:
    return "\033[33m";
  case ctl_color::name:
    return "\033[36m";
  case ctl_color::faint:
    return "\033[2m";
  case ctl_color::fault:
    return "\033[1;31m";
  case ctl_color::plain:
  case ctl_color::value:
    return "";
  }
  return "";
}

// Control characters that are known by a letter.
constexpr char LETTERED[] = "\n\r\t";
constexpr char LETTERS[] = "nrt";

bool environment_has(const char *name)
{
  const char *value = getenv(name);
  return value != nullptr && *value != '\0';
}

} // namespace

std::string ctl_paint(const ctl_output_t &output, ctl_color color, std::string_view text)
{
  std::string painted(output.color ? escape_sequence(color) : "");
  const bool is_painted = !painted.empty() && !text.empty();
  return is_painted ? painted.append(text).append("\033[0m") : std::string(text);
}

bool ctl_wants_color(std::string_view choice, FILE *out)
{
  if (choice == "always" || choice == "never") {
    return choice == "always";
  }
  const char *terminal = getenv("TERM");
  const bool is_dumb = terminal == nullptr || strcmp(terminal, "dumb") == 0;
  return isatty(fileno(out)) != 0 && !is_dumb && !environment_has("NO_COLOR");
}

std::string ctl_visible(std::string_view text)
{
  std::string visible;
  visible.reserve(text.size());
  for (size_t i = 0; i < text.size(); i++) {
    const auto code = static_cast<unsigned char>(text[i]);
    // In UTF-8 the second control characters are two bytes.
    const unsigned second = code == 0xc2 && i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
    char escape[8] = "";
    if (const char *place = code == 0 ? nullptr : strchr(LETTERED, text[i]); place != nullptr) {
      (void)snprintf(escape, sizeof(escape), "\\%c", LETTERS[place - LETTERED]);
    } else if (code < 0x20 || code == 0x7f) {
      (void)snprintf(escape, sizeof(escape), "\\x%02x", code);
    } else if (second >= 0x80 && second < 0xa0) {
      (void)snprintf(escape, sizeof(escape), "\\u%04x", second);
      i++;
    }
    if (*escape == '\0') {
      visible.push_back(text[i]);
    } else {
      visible.append(escape);
    }
  }
  return visible;
}

int ctl_fail(const ctl_output_t &output, int exit_code, std::string_view message)
{
  (void)fflush(output.out); // what was written before the fault also stands before it on a terminal
  // A standard error that cannot be written leaves nobody to tell.
  (void)fputs(std::string("ymgrctl: ").append(message).append("\n").c_str(), output.err);
  return exit_code;
}

int ctl_write(const ctl_output_t &output, std::string_view text)
{
  errno = 0;
  // Flushed each time: a full disk is found where the text is, not when the program has ended well.
  if (fwrite(text.data(), 1, text.size(), output.out) == text.size() && fflush(output.out) == 0) {
    return CTL_OK;
  }
  // A pager that was closed has seen what it wanted.
  return errno == EPIPE ? CTL_INPUT
                        : ctl_fail(output, CTL_INPUT, std::string("the output cannot be written: ") + strerror(errno));
}
