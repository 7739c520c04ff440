// What can stand at the cursor: commands, options, paths from the schema, keys of list entries from the data. And the
// words of a line, as the shell reads them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ctl/ctl_device.h"

typedef struct _ctl_candidate {
  std::string text;    // replaces the word, from its beginning
  std::string display; // what a list of candidates shows: the last step, not the whole path
  bool is_final;       // a blank may follow; false when the word goes on ("/system/")
} ctl_candidate_t;

// How the values of list keys are written behind a "[".
enum class ctl_key_style {
  quoted, // name='eth0'
  plain,  // eth0: for a shell that would take the quotes away
};

// `words`: those before the cursor, the last one (maybe empty) being completed. Tells no faults: nothing is found then.
// Opens the device's connection when the data are asked, and waits for them for seconds at most.
std::vector<ctl_candidate_t> ctl_complete(ctl_device &device, const std::vector<std::string> &words,
                                          ctl_key_style style = ctl_key_style::quoted);

typedef struct _ctl_line {
  std::vector<std::string> words;
  size_t last_begin = 0;     // where the last word begins in the line; its end when no word goes on
  bool ends_in_word = false; // the line does not end behind a blank
  char quote = '\0';         // that is open at the end
} ctl_line_t;

// Quotes and backslashes are taken off as a POSIX shell does. Brackets behind a name keep their quotes and blanks:
// route[dest='a b'] is one word, as it stands.
ctl_line_t ctl_split_line(std::string_view line);
// As it is to be typed to become `word`. With a quote it goes on behind that, which the caller has.
std::string ctl_quote_word(std::string_view word, char quote = '\0');
