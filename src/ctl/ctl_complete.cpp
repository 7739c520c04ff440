#include "ctl/ctl_complete.h"

#include <algorithm>
#include <charconv>
#include <memory>

#include <dirent.h>

#include "ctl/ctl_commands.h"
#include "ctl/ctl_complete_path.h"
#include "ctl/ctl_options.h"

namespace {

using words_t = std::vector<std::string>;
using candidates_t = std::vector<ctl_candidate_t>;

enum class kind { none, words, path, directory };

// What stands behind an option that takes something. The same name means the same in every command.
typedef struct _option_value {
  std::string_view option;
  kind what;
  words_t words = {};
} option_value_t;

const option_value_t option_values[] = {
    {"--run-dir", kind::directory},
    {"-o", kind::words, {"tree", "xml", "json"}},
    {"--output", kind::words, {"tree", "xml", "json"}},
    {"--color", kind::words, {"auto", "always", "never"}},
    {"--format", kind::words, {"xml", "json"}},
    {"--source", kind::words, ctl_datastores()},
    {"--target", kind::words, ctl_datastores()},
    {"--from", kind::words, ctl_datastores()},
    {"--to", kind::words, ctl_datastores()},
    {"--filter", kind::path},
};
const words_t options_before_command = {"--run-dir", "--output", "--color", "--version", "--help"};
const words_t options_of_all_commands = {"--output", "--color", "--help"};

// What commands do with their paths; any other one reads configuration.
const std::pair<std::string_view, ctl_path_use_t> path_uses[] = {
    {"get", {.with_state = true}},
    {"set", {.edits = true}},
    {"delete", {.edits = true, .deletes = true}},
};

// --- Lists of words.

void add_fitting(const words_t &words, std::string_view beginning, candidates_t *candidates)
{
  for (const std::string &word : words) {
    if (word.starts_with(beginning)) {
      candidates->push_back({word, word, true});
    }
  }
}

candidates_t complete_commands(std::string_view word)
{
  words_t names;
  for (const ctl_command_t &command : ctl_commands()) {
    if (*command.group != '\0') {
      names.emplace_back(command.name);
    }
  }
  candidates_t candidates;
  add_fitting(names, word, &candidates);
  return candidates;
}

candidates_t complete_sessions(ctl_device &device, std::string_view word)
{
  ctl_path_t path;
  candidates_t candidates;
  if (ctl_parse_path(device, "/zentra-ymgrd:daemon/session/id", &path) == CTL_OK) {
    add_fitting(ctl_find_values(device, path, word), word, &candidates);
  }
  return candidates;
}

candidates_t complete_files(const std::string &word, bool directories_only)
{
  const size_t slash = word.rfind('/');
  const std::string before = word.substr(0, slash == std::string::npos ? 0 : slash + 1);
  const std::string beginning = word.substr(before.size());
  std::unique_ptr<DIR, int (*)(DIR *)> directory(opendir(before.empty() ? "." : before.c_str()), closedir);
  candidates_t candidates;
  while (const dirent *entry = directory == nullptr ? nullptr : readdir(directory.get())) {
    const std::string name = entry->d_name;
    const bool is_hidden = name.starts_with(".") && !beginning.starts_with(".");
    if (is_hidden || name == "." || name == ".." || !name.starts_with(beginning)) {
      continue;
    }
    // By opening it: a link to a directory is one, too.
    const bool is_directory = entry->d_type == DT_DIR ||
                              (entry->d_type != DT_REG && std::unique_ptr<DIR, int (*)(DIR *)>(
                                                              opendir((before + name).c_str()), closedir) != nullptr);
    if (is_directory || !directories_only) {
      const std::string shown = name + (is_directory ? "/" : "");
      candidates.push_back({before + shown, shown, !is_directory});
    }
  }
  std::sort(candidates.begin(), candidates.end(),
            [](const ctl_candidate_t &left, const ctl_candidate_t &right) { return left.text < right.text; });
  return candidates;
}

// --- The line.

// What was read of a line before the word that is completed.
typedef struct _line_state {
  const ctl_command_t *command = nullptr;
  std::unique_ptr<CLI::App> app; // the command's
  words_t arguments;             // the positional ones
  std::string option;            // whose value comes next; empty when none does
  bool options_ended = false;    // by "--"
  bool is_lost = false;          // a command that there is not
} line_state_t;

const option_value_t *find_option_value(std::string_view option)
{
  const auto *found = std::find_if(std::begin(option_values), std::end(option_values),
                                   [&](const option_value_t &value) { return value.option == option; });
  return found == std::end(option_values) ? nullptr : found;
}

bool takes_value(const line_state_t &line, const std::string &option)
{
  const CLI::Option *known = line.app == nullptr ? nullptr : line.app->get_option_no_throw(option);
  return known != nullptr ? known->get_items_expected_max() > 0 : find_option_value(option) != nullptr;
}

line_state_t read_line(const words_t &words)
{
  line_state_t line;
  for (size_t i = 0; i + 1 < words.size(); i++) {
    const std::string &word = words[i];
    if (!line.option.empty()) {
      line.option.clear();
    } else if (word == "--" && !line.options_ended) {
      line.options_ended = true;
    } else if (word.starts_with("-") && word.size() > 1 && !line.options_ended) {
      line.option = word.find('=') == std::string::npos && takes_value(line, word) ? word : "";
    } else if (line.command == nullptr && !line.is_lost) {
      line.command = ctl_find_command(word);
      line.is_lost = line.command == nullptr;
      if (!line.is_lost) {
        line.app = std::make_unique<CLI::App>();
        (void)line.command->define(line.app.get());
      }
    } else {
      line.arguments.push_back(word);
    }
  }
  return line;
}

ctl_path_use_t use_of(const line_state_t &line)
{
  const auto *found = std::find_if(std::begin(path_uses), std::end(path_uses), [&](const auto &use) {
    return line.command != nullptr && use.first == line.command->name;
  });
  return found == std::end(path_uses) ? ctl_path_use_t() : found->second;
}

candidates_t complete_option_name(const line_state_t &line, std::string_view word)
{
  words_t names;
  for (const CLI::Option *option : line.app == nullptr ? std::vector<CLI::Option *>() : line.app->get_options()) {
    for (const std::string &name : option->get_lnames()) {
      names.push_back("--" + name);
    }
  }
  for (const std::string &name : line.command == nullptr ? options_before_command : options_of_all_commands) {
    if (std::find(names.begin(), names.end(), name) == names.end()) {
      names.push_back(name);
    }
  }
  candidates_t candidates;
  add_fitting(names, word, &candidates);
  return candidates;
}

candidates_t complete_option_value(ctl_device &device, const std::string &option, const std::string &word,
                                   ctl_key_style style)
{
  candidates_t candidates;
  const option_value_t *value = find_option_value(option);
  switch (value == nullptr ? kind::none : value->what) {
  case kind::words:
    add_fitting(value->words, word, &candidates);
    return candidates;
  case kind::path:
    return ctl_complete_path(device, word, {.with_state = true}, style);
  case kind::directory:
    return complete_files(word, true);
  case kind::none:
    break;
  }
  return candidates;
}

candidates_t complete_argument(ctl_device &device, const line_state_t &line, const std::string &word,
                               ctl_key_style style)
{
  candidates_t candidates;
  const size_t place = line.arguments.size();
  if (place >= line.command->arguments.size()) {
    return candidates;
  }
  switch (line.command->arguments[place]) {
  case ctl_argument::path:
    return ctl_complete_path(device, word, use_of(line), style);
  case ctl_argument::value:
    return ctl_complete_value(device, line.arguments.front(), word);
  case ctl_argument::datastore:
    add_fitting(ctl_datastores(), word, &candidates);
    return candidates;
  case ctl_argument::session:
    return complete_sessions(device, word);
  case ctl_argument::file:
  case ctl_argument::backup_file:
    return complete_files(word, false);
  }
  return candidates;
}

// Faults go nowhere as long as it lives.
class silence {
public:
  explicit silence(ctl_device &device)
      : device_(device), usual_(device.output()), nothing_(fopen("/dev/null", "we"), fclose)
  {
    if (nothing_ != nullptr) {
      device_.output().err = nothing_.get();
    }
    device_.output().progress = false;
  }
  ~silence() { device_.output() = usual_; }
  silence(const silence &) = delete;
  silence &operator=(const silence &) = delete;

private:
  ctl_device &device_;
  ctl_output_t usual_;
  std::unique_ptr<FILE, int (*)(FILE *)> nothing_;
};

// --- For the completion of other shells.

// The value of --run-dir in a line; what the device has when it is not there.
std::string run_dir_of(const words_t &words)
{
  for (size_t i = 0; i < words.size(); i++) {
    constexpr std::string_view option = "--run-dir";
    if (words[i] == option && i + 1 < words.size()) {
      return words[i + 1];
    }
    if (words[i].starts_with(option) && words[i].substr(option.size()).starts_with("=")) {
      return words[i].substr(option.size() + 1);
    }
  }
  return "";
}

// `words`: the number of the word at the cursor, counted from the one behind the program's name, and all of them.
int print_candidates(ctl_device &device, words_t words)
{
  size_t index = 0;
  const std::string number = words.empty() ? "" : words.front();
  auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), index);
  if (error != std::errc() || end != number.data() + number.size()) {
    return ctl_fail(device.output(), CTL_USAGE, "complete: expected INDEX WORD...");
  }
  words.erase(words.begin());
  const std::string run_dir = run_dir_of(words);
  words.resize(std::min(index + 1, words.size() + 1));
  ctl_device other(run_dir, device.output());
  std::string text;
  for (const ctl_candidate_t &candidate : ctl_complete(run_dir.empty() ? device : other, words, ctl_key_style::plain)) {
    text += candidate.text + (candidate.is_final ? " \n" : "\n");
  }
  return ctl_write(device.output(), text);
}

} // namespace

ctl_action ctl_define_complete(CLI::App *app)
{
  app->fallthrough(false); // options among the words are part of what is completed
  app->prefix_command();
  return [app](ctl_device &device) { return print_candidates(device, app->remaining()); };
}

std::vector<ctl_candidate_t> ctl_complete(ctl_device &device, const std::vector<std::string> &words,
                                          ctl_key_style style)
{
  if (words.empty()) {
    return {};
  }
  silence quiet(device);
  const std::string &word = words.back();
  const line_state_t line = read_line(words);
  if (!line.option.empty()) {
    return complete_option_value(device, line.option, word, style);
  }
  if (line.is_lost) {
    return {};
  }
  if (word.starts_with("-") && !line.options_ended) {
    if (const size_t equals = word.find('='); equals != std::string::npos) {
      candidates_t candidates = complete_option_value(device, word.substr(0, equals), word.substr(equals + 1), style);
      for (ctl_candidate_t &candidate : candidates) {
        candidate.text.insert(0, word, 0, equals + 1);
      }
      return candidates;
    }
    return complete_option_name(line, word);
  }
  return line.command == nullptr ? complete_commands(word) : complete_argument(device, line, word, style);
}
