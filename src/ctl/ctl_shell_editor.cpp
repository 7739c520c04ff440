#include "ctl/ctl_shell_editor.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <sys/ioctl.h>
#include <unistd.h>

#include "ctl/ctl_shell_history.h"

namespace {

constexpr size_t MOST_ROWS = 100;

// Columns that a text takes on a terminal, or characters where that cannot be said.
size_t width_of(const std::string &text)
{
  const size_t count = mbstowcs(nullptr, text.c_str(), 0);
  return count == static_cast<size_t>(-1) ? text.size() : count;
}

size_t terminal_width()
{
  winsize size = {};
  return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

// How far all of the texts agree; not into the middle of a character.
std::string common_beginning(const std::vector<ctl_candidate_t> &candidates)
{
  std::string common = candidates.front().text;
  for (const ctl_candidate_t &candidate : candidates) {
    const auto differing =
        std::mismatch(common.begin(), common.end(), candidate.text.begin(), candidate.text.end()).first;
    common.erase(differing, common.end());
  }
  while (!common.empty() && candidates.front().text.size() > common.size() &&
         (static_cast<unsigned char>(candidates.front().text[common.size()]) & 0xC0U) == 0x80U) {
    common.pop_back();
  }
  return common;
}

} // namespace

ctl_editor::ctl_editor(ctl_complete_fn complete)
    : complete_(std::move(complete)), history_(history_init(), history_end),
      editor_(el_init("ymgrctl", stdin, stdout, stderr), el_end)
{
  if (!is_usable()) {
    return;
  }
  HistEvent event;
  (void)::history(history_.get(), &event, H_SETSIZE, static_cast<int>(CTL_MOST_HISTORY));
  (void)::history(history_.get(), &event, H_SETUNIQUE, 1);
  EditLine *editor = editor_.get();
  (void)el_set(editor, EL_CLIENTDATA, this);
  (void)el_set(editor, EL_SIGNAL, 1);
  (void)el_set(editor, EL_EDITOR, "emacs");
  (void)el_set(editor, EL_PROMPT_ESC, on_prompt, '\1');
  (void)el_set(editor, EL_HIST, ::history, history_.get());
  (void)el_source(editor, nullptr); // ~/.editrc: how its owner likes to edit
  // Wide texts, as the library keeps them: of others it makes copies that it never frees.
  (void)el_wset(editor, EL_ADDFN, L"ymgr-complete", L"completes the word", on_tab);
  (void)el_wset(editor, EL_ADDFN, L"ymgr-interrupt", L"gives the line up", on_interrupt);
  (void)el_wset(editor, EL_ADDFN, L"ymgr-suspend", L"suspends the program", on_suspend);
  // Keys and not signals while a line is edited: a signal would end the program, or be lost between two reads.
  (void)el_set(editor, EL_SETTY, "-d", "-isig", nullptr);
  (void)el_set(editor, EL_BIND, "\t", "ymgr-complete", nullptr);
  (void)el_set(editor, EL_BIND, "^C", "ymgr-interrupt", nullptr);
  (void)el_set(editor, EL_BIND, "^Z", "ymgr-suspend", nullptr);
  (void)el_set(editor, EL_BIND, "^R", "em-inc-search-prev", nullptr);
}

ctl_read ctl_editor::read(const std::string &prompt, std::string *ret_line)
{
  prompt_ = prompt;
  is_interrupted_ = false;
  int count = 0;
  el_resize(editor_.get()); // it may have changed while a command ran
  errno = 0;
  const char *line = el_gets(editor_.get(), &count);
  if (is_interrupted_ || (line == nullptr && count < 0 && errno == EINTR)) {
    return ctl_read::cleared;
  }
  if (line == nullptr || count <= 0) {
    return ctl_read::end;
  }
  ret_line->assign(line, static_cast<size_t>(count));
  while (ret_line->ends_with('\n') || ret_line->ends_with('\r')) {
    ret_line->pop_back();
  }
  return ctl_read::line;
}

void ctl_editor::remember(const std::string &line)
{
  HistEvent event;
  (void)::history(history_.get(), &event, H_ENTER, line.c_str());
}

std::vector<std::string> ctl_editor::history()
{
  std::vector<std::string> lines;
  HistEvent event;
  for (int result = ::history(history_.get(), &event, H_LAST); result >= 0;
       result = ::history(history_.get(), &event, H_PREV)) {
    lines.emplace_back(event.str);
  }
  return lines;
}

// --- What the library calls. No exception goes through it.

ctl_editor &ctl_editor::of(EditLine *editor)
{
  void *data = nullptr;
  (void)el_get(editor, EL_CLIENTDATA, &data);
  return *static_cast<ctl_editor *>(data);
}

char *ctl_editor::on_prompt(EditLine *editor)
{
  return of(editor).prompt_.data();
}

unsigned char ctl_editor::on_tab(EditLine *editor, int)
{
  try {
    return of(editor).complete();
  } catch (const std::exception &) {
    return CC_ERROR; // memory: the line is as it was
  }
}

unsigned char ctl_editor::on_interrupt(EditLine *editor, int)
{
  of(editor).is_interrupted_ = true;
  (void)fputs("^C\n", stdout);
  (void)fflush(stdout);
  return CC_NEWLINE;
}

unsigned char ctl_editor::on_suspend(EditLine *, int)
{
  (void)raise(SIGTSTP); // the library's handler gives the terminal back and takes it again
  return CC_REFRESH;
}

unsigned char ctl_editor::complete()
{
  const LineInfo *info = el_line(editor_.get());
  const std::string typed(info->buffer, info->cursor);
  const ctl_line_t line = ctl_split_line(typed);
  std::vector<std::string> words = line.words;
  if (!line.ends_in_word) {
    words.emplace_back();
  }
  const std::vector<ctl_candidate_t> candidates = complete_(words);
  if (candidates.empty()) {
    return CC_ERROR;
  }
  const char quote = line.quote != '\0' && typed[line.last_begin] == line.quote ? line.quote : '\0';
  const std::string common = common_beginning(candidates);
  std::string text = std::string(quote == '\0' ? 0 : 1, quote) + (common.empty() ? "" : ctl_quote_word(common, quote));
  if (candidates.size() == 1 && candidates.front().is_final) {
    text += quote == '\0' ? " " : std::string(1, quote) + " ";
  }
  if (insert(line, typed, text)) {
    return CC_REFRESH;
  }
  if (candidates.size() == 1) {
    return CC_ERROR; // it is there already
  }
  list(candidates);
  return CC_REDISPLAY;
}

// Puts `text` in the place of the word. False when it stands there.
bool ctl_editor::insert(const ctl_line_t &line, const std::string &typed, const std::string &text)
{
  const std::string word = typed.substr(line.last_begin);
  if (text == word || (text.size() < word.size() && word.starts_with(text))) {
    return false;
  }
  if (text.starts_with(word)) {
    return el_insertstr(editor_.get(), text.c_str() + word.size()) == 0;
  }
  el_deletestr(editor_.get(), static_cast<int>(width_of(word)));
  return el_insertstr(editor_.get(), text.c_str()) == 0;
}

void ctl_editor::list(const std::vector<ctl_candidate_t> &candidates)
{
  std::vector<std::string> texts;
  texts.reserve(candidates.size());
  for (const ctl_candidate_t &candidate : candidates) {
    texts.push_back(candidate.display);
  }
  (void)fprintf(stdout, "\n%s", ctl_columns(texts, terminal_width()).c_str());
  (void)fflush(stdout);
}

std::string ctl_columns(const std::vector<std::string> &texts, size_t width)
{
  size_t widest = 0;
  for (const std::string &text : texts) {
    widest = std::max(widest, width_of(text));
  }
  const size_t columns = std::max<size_t>(1, (width + 1) / (widest + 2));
  const size_t rows = (texts.size() + columns - 1) / columns;
  const size_t shown_rows = std::min(rows, MOST_ROWS);
  size_t shown = 0;
  std::string table;
  for (size_t row = 0; row < shown_rows; row++) {
    // Down the columns, as they would be read.
    for (size_t i = row; i < texts.size(); i += rows, shown++) {
      table += texts[i];
      if (i + rows < texts.size()) {
        table.append(widest + 2 - width_of(texts[i]), ' ');
      }
    }
    table += '\n';
  }
  return shown == texts.size() ? table : table + "... and " + std::to_string(texts.size() - shown) + " more\n";
}
