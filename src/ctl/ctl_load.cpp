#include "ctl/ctl_load.h"

#include <algorithm>
#include <chrono>
#include <optional>

#include <unistd.h>

#include "ctl/ctl_commit.h"
#include "ctl/ctl_file.h"
#include "ctl/ctl_interrupt.h"
#include "ctl/ctl_operations.h"
#include "ctl/ctl_reply.h"

namespace {

using steady_clock = std::chrono::steady_clock;

// Nobody wants to read about what is over at once.
constexpr std::chrono::milliseconds QUIET_TIME{300};
constexpr char CLEAR_LINE[] = "\r\033[K";

bool has_feature(ctl_device &device, const char *name)
{
  for (const ctl_module_t &module : device.modules()) {
    if (module.name == "ietf-netconf") {
      return std::find(module.features.begin(), module.features.end(), name) != module.features.end();
    }
  }
  return false;
}

wiped_string load_operation(ctl_device &device, const ctl_load_t &load)
{
  if (load.is_replacement && !load.is_test) {
    return ctl_replace_config(load.target, load.config);
  }
  ctl_edit_options_t options;
  options.default_operation = load.is_replacement ? "replace" : "merge";
  options.test = load.is_test ? "test-only" : "";
  // A plugin that refuses a part of it shall leave the device as it was.
  options.on_error = has_feature(device, "rollback-on-error") ? "rollback-on-error" : "";
  return ctl_edit_config(load.target, load.config, options);
}

// How far a request got, on a line that is written over and over.
class progress_line {
public:
  progress_line(const ctl_output_t &output, std::string name) : output_(output), name_(std::move(name)) {}
  ~progress_line() { clear(); }
  progress_line(const progress_line &) = delete;
  progress_line &operator=(const progress_line &) = delete;

  void show(const ymgr_progress_t &progress);
  void clear();

private:
  const ctl_output_t &output_;
  std::string name_;
  const steady_clock::time_point begun_ = steady_clock::now();
  steady_clock::time_point sent_;
  std::string text_; // that stands there
};

void progress_line::show(const ymgr_progress_t &progress)
{
  const auto now = steady_clock::now();
  const bool is_sent = progress.sent == progress.size;
  sent_ = is_sent && sent_ == steady_clock::time_point() ? now : sent_;
  if (!output_.progress || now - begun_ < QUIET_TIME) {
    return;
  }
  const auto waited = std::chrono::duration_cast<std::chrono::seconds>(now - sent_).count();
  std::string text = "loading " + name_ + ": ";
  text += is_sent ? "the daemon checks it, " + std::to_string(waited) + " s"
                  : "sent " + std::to_string(progress.sent * 100 / progress.size) + " %";
  if (text != text_) {
    (void)fprintf(output_.err, "%s%s", CLEAR_LINE, text.c_str());
    (void)fflush(output_.err);
    text_ = std::move(text);
  }
}

void progress_line::clear()
{
  if (!text_.empty()) {
    (void)fputs(CLEAR_LINE, output_.err);
    (void)fflush(output_.err);
    text_.clear();
  }
}

// One load, from the lock to its release.
class loader {
public:
  loader(ctl_device &device, const ctl_load_t &load) : device_(device), load_(load) {}
  ~loader();
  loader(const loader &) = delete;
  loader &operator=(const loader &) = delete;

  int run();

private:
  bool is_undoable() const { return load_.target == "candidate" && !load_.is_test; }
  int prepare();
  int send(std::string *ret_reply);
  bool watch(progress_line *line, const ymgr_progress_t &progress);
  void answer_interrupts(progress_line *line);
  int count_interrupts() const { return interrupt_ ? interrupt_->count() : 0; }
  int fail_unanswered(const std::string &cause);
  int take_back();
  int save_former(int exit_code);

  ctl_device &device_;
  const ctl_load_t &load_;
  std::optional<ctl_interrupt> interrupt_{std::in_place}; // while Ctrl-C is ours to answer
  bool is_locked_ = false;
  bool had_changes_ = false;
  std::string former_; // what candidate held, when it had changes
  bool is_sent_ = false;
  int told_ = 0; // interrupts that were answered by a word
};

loader::~loader()
{
  interrupt_.reset(); // it is over, whatever becomes of the lock, which ends with the session at the latest
  if (device_.session_id() == 0) {
    return;
  }
  ymgr_set_progress(device_.client(), nullptr); // it knows us
  if (is_locked_) {
    (void)device_.rpc(ctl_unlock("candidate")); // told there
  }
}

int loader::run()
{
  int result = prepare();
  if (result != CTL_OK) {
    return result;
  }
  std::string reply;
  result = send(&reply);
  if (result != CTL_OK) {
    return result;
  }
  result = ctl_tell_errors(device_.output(), reply);
  if (result != CTL_OK) {
    return count_interrupts() > 0 ? CTL_INTERRUPTED : result; // refused: candidate is as it was
  }
  if (load_.report != nullptr && count_interrupts() == 0) {
    result = load_.report();
  }
  if (count_interrupts() > 0) {
    return take_back();
  }
  interrupt_.reset(); // a commit cannot be stopped; to wait for it nobody need be made
  return result == CTL_OK && load_.is_committed ? ctl_commit(device_) : result;
}

// Nobody else's changes shall be lost when the load is taken back.
int loader::prepare()
{
  if (!is_undoable()) {
    return device_.client() == nullptr ? CTL_UNREACHABLE : CTL_OK;
  }
  // Nothing has changed yet: whoever waits for a daemon that is busy may go.
  ymgr_set_progress(device_.client(), [this](const ymgr_progress_t &) { return count_interrupts() == 0; });
  // Who has it already goes on with it; when another session has it, the load is refused.
  int result = device_.try_rpc(ctl_lock("candidate"));
  is_locked_ = result == CTL_OK;
  if (result != CTL_OK && result != CTL_REFUSED) {
    return result;
  }
  std::string reply;
  result = device_.rpc(ctl_get_candidate_state(), &reply);
  const std::optional<ctl_candidate_state_t> candidate = ctl_read_candidate_state(reply);
  had_changes_ = !candidate || candidate->has_changes;
  if (result == CTL_OK && had_changes_) {
    result = device_.rpc(ctl_get_config("candidate"), &reply);
    former_ = ctl_reply_content(reply);
  }
  return result == CTL_OK && count_interrupts() > 0 ? ctl_fail(device_.output(), CTL_INTERRUPTED, "interrupted")
                                                    : result;
}

int loader::send(std::string *ret_reply)
{
  ymgr_client_t *client = device_.client();
  if (client == nullptr) {
    return CTL_UNREACHABLE;
  }
  const wiped_string operation = load_operation(device_, load_);
  std::optional<std::string> reply;
  std::string cause;
  {
    progress_line line(device_.output(), load_.name);
    ymgr_set_progress(client, [&](const ymgr_progress_t &progress) { return watch(&line, progress); });
    reply = ymgr_rpc(client, operation, CTL_LONG_WORK);
    ymgr_set_progress(client, nullptr);
    cause = reply ? "" : ymgr_last_error(client);
  }
  if (!reply) {
    device_.disconnect();
    return fail_unanswered(cause);
  }
  *ret_reply = std::move(*reply);
  return CTL_OK;
}

// Whether to go on. What is half sent may be dropped; for what is sent the daemon's answer is awaited, else nobody
// would know what candidate holds.
bool loader::watch(progress_line *line, const ymgr_progress_t &progress)
{
  is_sent_ = progress.sent == progress.size;
  if (count_interrupts() > 0 && !is_sent_) {
    return false;
  }
  answer_interrupts(line);
  line->show(progress);
  return true;
}

void loader::answer_interrupts(progress_line *line)
{
  const int count = count_interrupts();
  if (count <= told_) {
    return;
  }
  const std::string first =
      "the daemon has all of " + load_.name +
      (is_undoable() ? "; it is taken back as soon as it is carried out" : "; waiting for its answer");
  line->clear();
  (void)ctl_fail(device_.output(), CTL_INTERRUPTED,
                 told_ == 0 ? first : "still waiting for the daemon: nothing is left half-done");
  told_ = count;
}

int loader::fail_unanswered(const std::string &cause)
{
  const ctl_output_t &output = device_.output();
  is_locked_ = false; // it went with the session
  if (count_interrupts() > 0 && !is_sent_) {
    return ctl_fail(output, CTL_INTERRUPTED,
                    "interrupted; " + load_.target + " is as it was" +
                        (device_.goes_on() ? "; the session has ended, with its locks" : ""));
  }
  const std::string message = "the connection to the daemon is lost: " + cause;
  return ctl_fail(output, CTL_UNREACHABLE,
                  is_sent_ ? message + "; it is unknown whether " + load_.name + " was loaded"
                           : message + "; " + load_.name + " was not loaded");
}

int loader::take_back()
{
  const ctl_output_t &output = device_.output();
  if (load_.is_test) {
    return ctl_fail(output, CTL_INTERRUPTED, "interrupted");
  }
  if (!is_undoable()) {
    return ctl_fail(output, CTL_INTERRUPTED, "interrupted, but " + load_.name + " was carried out in " + load_.target);
  }
  if (told_ == 0) {
    told_ = count_interrupts();
    (void)ctl_fail(output, CTL_INTERRUPTED, "taking " + load_.name + " back");
  }
  progress_line none(output, load_.name);
  ymgr_set_progress(device_.client(), [&](const ymgr_progress_t &) {
    answer_interrupts(&none);
    return true;
  });
  int result = device_.rpc(CTL_DISCARD);
  if (had_changes_) {
    // From running on, so that what is pending is what was pending, and no more; which need not have been valid.
    const ctl_edit_options_t as_it_was = {.default_operation = "replace", .test = "set"};
    result = result == CTL_OK ? device_.rpc(ctl_edit_config("candidate", former_, as_it_was)) : result;
    result = result == CTL_OK ? result : save_former(result);
  }
  return result == CTL_OK ? ctl_fail(output, CTL_INTERRUPTED, "interrupted; candidate is as it was")
                          : ctl_fail(output, result, load_.name + " could not be taken back");
}

// Nobody has a copy of what candidate held but we.
int loader::save_former(int exit_code)
{
  const std::string path = "ymgrctl-candidate-" + std::to_string(getpid()) + ".xml";
  const bool is_saved = ctl_replace_file(device_.output(), path, "<config>" + former_ + "</config>\n") == CTL_OK;
  return is_saved ? ctl_fail(device_.output(), exit_code, "what candidate held is in " + path) : exit_code;
}

} // namespace

int ctl_load(ctl_device &device, const ctl_load_t &load)
{
  if (device.client() == nullptr) {
    return CTL_UNREACHABLE;
  }
  return loader(device, load).run();
}
