// Output that is longer than the screen goes through a pager: $PAGER, or less when it is there.
#pragma once

#include <memory>
#include <string>

// Holds output back until it is clear that it does not fit, or that it is all.
class ctl_pager {
public:
  ctl_pager(); // for the size that the terminal has now
  ~ctl_pager();
  ctl_pager(const ctl_pager &) = delete;
  ctl_pager &operator=(const ctl_pager &) = delete;

  FILE *stream() { return stream_.get(); } // null when there is no memory for it
  void finish();                           // all was written; comes back when the reader has seen it

private:
  static ssize_t on_write(void *cookie, const char *bytes, size_t count);
  void take(std::string_view text);
  void count_rows(std::string_view text);
  bool start_pager();
  void pass_on(std::string_view text);

  size_t screen_rows_ = 0;
  size_t columns_ = 0;
  size_t rows_ = 0;   // that what is held takes
  size_t column_ = 0; // where the last of them ends
  bool in_escape_ = false;
  bool is_held_ = true;
  std::string held_;
  pid_t pager_ = -1;
  int pipe_ = -1; // to the pager; -1: to standard output
  std::unique_ptr<FILE, int (*)(FILE *)> stream_;
};
