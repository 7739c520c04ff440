// The line that is typed at a terminal: editing, history, completion.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <histedit.h>

#include "ctl/ctl_complete.h"

// The candidates for the last of the words.
using ctl_complete_fn = std::function<std::vector<ctl_candidate_t>(const std::vector<std::string> &words)>;

enum class ctl_read { line, cleared, end }; // cleared: Ctrl-C; end: Ctrl-D, or the terminal has gone

class ctl_editor {
public:
  explicit ctl_editor(ctl_complete_fn complete);
  ctl_editor(const ctl_editor &) = delete;
  ctl_editor &operator=(const ctl_editor &) = delete;

  bool is_usable() const { return editor_ != nullptr && history_ != nullptr; }
  ctl_read read(const std::string &prompt, std::string *ret_line);
  void remember(const std::string &line);
  std::vector<std::string> history(); // the oldest first

private:
  static ctl_editor &of(EditLine *editor);
  static char *on_prompt(EditLine *editor);
  static unsigned char on_tab(EditLine *editor, int key);
  static unsigned char on_interrupt(EditLine *editor, int key);
  static unsigned char on_suspend(EditLine *editor, int key);

  unsigned char complete();
  bool insert(const ctl_line_t &line, const std::string &typed, const std::string &text);
  void list(const std::vector<ctl_candidate_t> &candidates);

  ctl_complete_fn complete_;
  std::unique_ptr<History, void (*)(History *)> history_;
  std::unique_ptr<EditLine, void (*)(EditLine *)> editor_;
  std::string prompt_;
  bool is_interrupted_ = false;
};

// In columns that fit the width, the first hundred rows.
std::string ctl_columns(const std::vector<std::string> &texts, size_t width);
