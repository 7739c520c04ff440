#include "ctl/ctl_load.h"

#include <algorithm>
#include <chrono>

#include <unistd.h>

#include "ctl/ctl_file.h"
#include "ctl/ctl_interrupt.h"
#include "ctl/ctl_reply.h"

namespace {

using steady_clock = std::chrono::steady_clock;

// The daemon may work as long as it needs; when it dies the connection ends.
constexpr ymgr_duration LONG_WORK = std::chrono::hours(24 * 365);
// Nobody wants to read about what is over at once.
constexpr std::chrono::milliseconds QUIET_TIME{300};
constexpr char UNCHECKED[] = "<test-option>set</test-option>"; // what candidate held need not have been valid
constexpr char CLEAR_LINE[] = "\r\033[K";

// `options`: elements between the default operation and the data.
std::string edit_operation(const std::string &target, const char *default_operation, const std::string &options,
                           const std::string &config)
{
  return "<edit-config><target><" + target + "/></target><default-operation>" + default_operation +
         "</default-operation>" + options + "<config>" + config + "</config></edit-config>";
}

bool has_feature(ctl_device &device, const char *name)
{
  for (const ctl_module_t &module : device.modules()) {
    if (module.name == "ietf-netconf") {
      return std::find(module.features.begin(), module.features.end(), name) != module.features.end();
    }
  }
  return false;
}

std::string load_operation(ctl_device &device, const ctl_load_t &load)
{
  if (load.is_replacement && !load.is_test) {
    return "<copy-config><target><" + load.target + "/></target><source><config>" + load.config +
           "</config></source></copy-config>";
  }
  std::string options = load.is_test ? "<test-option>test-only</test-option>" : "";
  // A plugin that refuses a part of it shall leave the device as it was.
  options += has_feature(device, "rollback-on-error") ? "<error-option>rollback-on-error</error-option>" : "";
  return edit_operation(load.target, load.is_replacement ? "replace" : "merge", options, load.config);
}

// What stands in <data>; its elements declare their namespaces themselves.
std::string data_content(const std::string &reply)
{
  const size_t tag = reply.find("<data");
  const size_t begin = tag == std::string::npos ? tag : reply.find('>', tag);
  const size_t end = reply.rfind("</data>");
  return begin == std::string::npos || end == std::string::npos || end < begin
             ? ""
             : reply.substr(begin + 1, end - begin - 1);
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
  int fail_unanswered(const std::string &cause);
  int tell_errors(const std::string &reply);
  int take_back();
  int save_former(int exit_code);

  ctl_device &device_;
  const ctl_load_t &load_;
  const ctl_interrupt interrupt_;
  bool is_locked_ = false;
  bool had_changes_ = false;
  std::string former_; // what candidate held, when it had changes
  bool is_sent_ = false;
  int told_ = 0; // interrupts that were answered by a word
};

loader::~loader()
{
  if (is_locked_ && device_.session_id() != 0) {
    (void)device_.rpc("<unlock><target><candidate/></target></unlock>", nullptr); // told there
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
  result = tell_errors(reply);
  if (result != CTL_OK) {
    return interrupt_.count() > 0 ? CTL_INTERRUPTED : result; // refused: candidate is as it was
  }
  if (load_.report != nullptr && interrupt_.count() == 0) {
    result = load_.report();
  }
  if (interrupt_.count() > 0) {
    return take_back();
  }
  return result == CTL_OK && load_.is_committed ? device_.rpc("<commit/>", nullptr) : result;
}

// Nobody else's changes shall be lost when the load is taken back.
int loader::prepare()
{
  if (!is_undoable()) {
    return device_.client() == nullptr ? CTL_UNREACHABLE : CTL_OK;
  }
  // Who has it already goes on with it; when another session has it, the load is refused.
  int result = device_.try_rpc("<lock><target><candidate/></target></lock>", nullptr);
  is_locked_ = result == CTL_OK;
  if (result != CTL_OK && result != CTL_REFUSED) {
    return result;
  }
  std::string reply;
  result = device_.rpc("<get><filter type=\"subtree\"><daemon xmlns=\"com:zentra:netconf:private:opal:device:ymgrd\">"
                       "<datastore><name>candidate</name><pending-changes/></datastore></daemon></filter></get>",
                       &reply);
  had_changes_ = reply.find("<pending-changes>false<") == std::string::npos;
  if (result == CTL_OK && had_changes_) {
    result = device_.rpc("<get-config><source><candidate/></source></get-config>", &reply);
    former_ = data_content(reply);
  }
  return result == CTL_OK && interrupt_.count() > 0 ? ctl_fail(device_.output(), CTL_INTERRUPTED, "interrupted")
                                                    : result;
}

int loader::send(std::string *ret_reply)
{
  ymgr_client_t *client = device_.client();
  if (client == nullptr) {
    return CTL_UNREACHABLE;
  }
  const std::string operation = load_operation(device_, load_);
  std::optional<std::string> reply;
  std::string cause;
  {
    progress_line line(device_.output(), load_.name);
    ymgr_set_progress(client, [&](const ymgr_progress_t &progress) { return watch(&line, progress); });
    reply = ymgr_rpc(client, operation, LONG_WORK);
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
  const int count = interrupt_.count();
  if (count > 0 && !is_sent_) {
    return false;
  }
  if (count > told_) {
    told_ = count;
    line->clear();
    const std::string first =
        "the daemon has all of " + load_.name +
        (is_undoable() ? "; it is taken back as soon as it is carried out" : "; waiting for its answer");
    (void)ctl_fail(device_.output(), CTL_INTERRUPTED,
                   count == 1 ? first : "still waiting for the daemon: nothing is left half-done");
  }
  line->show(progress);
  return true;
}

int loader::fail_unanswered(const std::string &cause)
{
  const ctl_output_t &output = device_.output();
  is_locked_ = false; // it went with the session
  if (interrupt_.count() > 0 && !is_sent_) {
    return ctl_fail(output, CTL_INTERRUPTED, "interrupted; " + load_.target + " is as it was");
  }
  const std::string message = "the connection to the daemon is lost: " + cause;
  return ctl_fail(output, CTL_UNREACHABLE,
                  is_sent_ ? message + "; it is unknown whether " + load_.name + " was loaded"
                           : message + "; " + load_.name + " was not loaded");
}

int loader::tell_errors(const std::string &reply)
{
  int result = CTL_OK;
  for (const ctl_reply_error_t &error : ctl_reply_errors(reply)) {
    (void)ctl_fail(device_.output(), CTL_REFUSED, (error.is_warning ? "warning: " : "") + ctl_error_line(error));
    result = error.is_warning ? result : CTL_REFUSED;
  }
  return result;
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
    (void)ctl_fail(output, CTL_INTERRUPTED, "taking " + load_.name + " back");
  }
  int result = device_.rpc("<discard-changes/>", nullptr);
  if (had_changes_) {
    // From running on, so that what is pending is what was pending, and no more.
    result =
        result == CTL_OK ? device_.rpc(edit_operation("candidate", "replace", UNCHECKED, former_), nullptr) : result;
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
  return loader(device, load).run();
}
