#include "demo_events.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "demo_xml.h"

namespace {

constexpr const char SERVICE_FAILED[] =
    R"(<service-failed xmlns="urn:ex-sys"><name>ftp</name><exit-code>1</exit-code></service-failed>)";

ymgr_client_ptr open_watcher(demo_t *demo, const std::string &parameters)
{
  ymgr_client_ptr watcher = ymgr_connect(demo->run_dir, nullptr);
  if (watcher == nullptr || !ymgr_create_session(watcher.get(), "watcher").has_value()) {
    expect(demo, false, "a session for the subscription opens");
    return nullptr;
  }
  std::string reply = ask_in(demo, watcher.get(),
                             R"(<create-subscription xmlns="urn:ietf:params:xml:ns:netconf:notification:1.0">)" +
                                 parameters + "</create-subscription>");
  expect(demo, is_ok(reply), "it has subscribed");
  return watcher;
}

std::string next_event(demo_t *demo, ymgr_client_t *watcher)
{
  std::optional<ymgr_frame_t> frame = ymgr_receive_notification(watcher);
  expect(demo, frame.has_value(), "a notification comes");
  std::string text = frame.has_value() ? frame->payload : "";
  std::printf("   came:\n%s", demo_pretty(text, "      ").c_str());
  return text;
}

// As a plugin's ymgr_plugin_notify() does.
bool send_event(const demo_t *demo, const std::string &event)
{
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof(address.sun_path), "%s/notify.sock", demo->run_dir.c_str());
  int sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  bool sent = sendto(sock, event.data(), event.size(), 0, reinterpret_cast<const sockaddr *>(&address),
                     sizeof(address)) == static_cast<ssize_t>(event.size());
  close(sock);
  return sent;
}

std::string rfc3339(time_t moment)
{
  char text[sizeof("2026-01-01T00:00:00Z")];
  tm parts = {};
  (void)strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&moment, &parts));
  return text;
}

void watch(demo_t *demo)
{
  begin_step(demo, "create-subscription: another session hears of what happens");
  ymgr_client_ptr watcher = open_watcher(
      demo,
      R"(<filter type="subtree"><netconf-config-change xmlns="urn:ietf:params:xml:ns:yang:ietf-netconf-notifications"/><service-failed xmlns="urn:ex-sys"/></filter>)");
  if (watcher == nullptr) {
    return;
  }
  begin_step(demo, "commit: the subscriber hears who changed what");
  (void)edit_candidate(demo, R"(<system xmlns="urn:ex-sys"><location>Rack 9</location></system>)");
  expect(demo, is_ok(ask(demo, "<commit/>")), "the commit is accepted");
  std::string change = next_event(demo, watcher.get());
  expect(demo, demo_text(change, {"netconf-config-change", "changed-by", "username"}) == "demo", "it names the user");
  expect(demo, demo_text(change, {"netconf-config-change", "edit", "target"}).find("location") != std::string::npos,
         "and the leaf");

  begin_step(demo, "a plugin reports an event");
  expect(demo, send_event(demo, SERVICE_FAILED), "it is sent");
  std::string event = next_event(demo, watcher.get());
  expect(demo, demo_text(event, {"service-failed", "name"}) == "ftp", "the subscriber hears of it");
}

void replay(demo_t *demo, time_t begin)
{
  begin_step(demo, "create-subscription with a startTime: who comes late hears it all the same");
  ymgr_client_ptr watcher =
      open_watcher(demo, R"(<filter type="subtree"><service-failed xmlns="urn:ex-sys"/></filter><startTime>)" +
                             rfc3339(begin) + "</startTime>");
  if (watcher == nullptr) {
    return;
  }
  expect(demo, demo_text(next_event(demo, watcher.get()), {"service-failed", "name"}) == "ftp",
         "the stored event comes");
  expect(demo, next_event(demo, watcher.get()).find("replayComplete") != std::string::npos,
         "and the word that this was all");
}

} // namespace

void demo_events(demo_t *demo)
{
  time_t begin = std::time(nullptr);
  watch(demo);
  replay(demo, begin);
}
