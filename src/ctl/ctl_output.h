// What ymgrctl writes: results on standard output, faults on standard error, in colours where a person reads.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

// What a command ends with; scripts rely on them.
enum {
  CTL_OK = 0,
  CTL_REFUSED = 1,     // the daemon answered with an error
  CTL_USAGE = 2,       // the command line is wrong
  CTL_UNREACHABLE = 3, // no daemon, or the connection was lost
  CTL_INPUT = 4,       // a path, value or file that cannot be used
  CTL_DIFFERENT = 5,   // diff --exit-code: there are differences
  CTL_INTERRUPTED = 130,
};

enum class ctl_format { tree, xml, json };

typedef struct _ctl_output {
  FILE *out = stdout;
  FILE *err = stderr;
  ctl_format format = ctl_format::tree;
  bool color = false;    // of `out`
  bool progress = false; // `err` is a terminal: long work may show how far it got
} ctl_output_t;

enum class ctl_color { plain, added, removed, changed, name, value, faint, fault };

// `text` between the escape sequences of that colour; as it is when colours are off.
std::string ctl_paint(const ctl_output_t &output, ctl_color color, std::string_view text);
// --color=auto|always|never, and the environment variable NO_COLOR.
bool ctl_wants_color(std::string_view choice, FILE *out);

// One line whatever is in it, and nothing that a terminal would obey: control characters as "\n", "\x1b", "\u009b".
std::string ctl_visible(std::string_view text);

// Tells a fault, one line: "ymgrctl: MESSAGE". `exit_code` comes back, so that `return ctl_fail(...)` ends a function.
int ctl_fail(const ctl_output_t &output, int exit_code, std::string_view message);
// Writes to `out`, at once. CTL_OK, or CTL_INPUT when it cannot be written (told, unless the reader has gone: `|
// head`).
int ctl_write(const ctl_output_t &output, std::string_view text);
