// Event notifications as subscribers see them. The events are those of a module of the test, numbered by their sender;
// other events of the daemon are passed over.
#include <algorithm>
#include <ctime>
#include <limits>
#include <regex>
#include <thread>

#include "support/daemon_test.h"

namespace {

using texts = std::vector<std::string>;
using namespace std::chrono_literals;

constexpr char MODULE[] = "module ex-events { namespace \"urn:ex-events\"; prefix ev; revision 2026-01-01; "
                          "notification tick { leaf number { type uint32; } leaf text { type string; } } }";
constexpr char REPLAYED[] = "replayComplete";
constexpr char ENDED[] = "notificationComplete";

std::string tick(int number, const std::string &text = "")
{
  return R"(<tick xmlns="urn:ex-events"><number>)" + std::to_string(number) + "</number><text>" + text +
         "</text></tick>";
}

std::string time_text(time_t moment)
{
  char text[32] = "";
  tm parts = {};
  (void)std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&moment, &parts));
  return text;
}

std::string subscribe(const std::string &parameters = "")
{
  return "<create-subscription xmlns=\"urn:ietf:params:xml:ns:netconf:notification:1.0\">" + parameters +
         "</create-subscription>";
}

std::string from(time_t start, time_t stop = 0)
{
  return "<startTime>" + time_text(start) + "</startTime>" +
         (stop == 0 ? "" : "<stopTime>" + time_text(stop) + "</stopTime>");
}

texts numbers(int first, int last)
{
  texts found;
  for (int number = first; number <= last; number++) {
    found.push_back(std::to_string(number));
  }
  return found;
}

// The bytes of a stored event.
std::string record(time_t moment, const std::string &content)
{
  return std::string(reinterpret_cast<const char *>(&moment), sizeof(moment)) + content + '\0';
}

class notifications : public support::daemon_test {
protected:
  static constexpr int NOTIFY_DB = 10;

  void SetUp() override
  {
    setenv("TZ", "UTC0", 1); // the daemon's, too
    support::write_file(daemon.modules_dir() + "/ex-events.yang", MODULE);
    for (const char *name : {"notifications", "nc-notifications", "ex-events"}) {
      daemon.options().modules.push_back({name});
    }
  }

  // `section` behind the streams: more members of the section.
  void start(const std::string &replay, const std::string &section = "", bool is_stored = true)
  {
    daemon.options().profile["notification"] = std::string("{\"db-enabled\": ") + (is_stored ? "true" : "false") +
                                               ", \"streams\": [{\"name\": \"NETCONF\"" + replay + "}]" + section + "}";
    ASSERT_TRUE(daemon.running() ? daemon.restart() : daemon.start());
  }

  using daemon_test::emit;
  void emit(int first, int last, size_t length = 0)
  {
    for (int number = first; number <= last; number++) {
      ASSERT_TRUE(emit(tick(number, std::string(length, 'x'))));
    }
  }
  void plant(time_t moment, const std::string &content)
  {
    redis.command(NOTIFY_DB, {"RPUSH", "event_key_list", record(moment, content)});
  }
  // Without the daemon's own events.
  texts stored()
  {
    texts records = redis.command(NOTIFY_DB, {"LRANGE", "event_key_list", "0", "-1"});
    std::erase_if(records, [](const std::string &text) { return contains(text, "urn:ietf"); });
    return records;
  }

  // The number of the next event of ours, or the name of a mark of the daemon. Empty when none comes.
  static std::string next(support::netconf_session &session, std::chrono::milliseconds timeout = support::DEADLINE)
  {
    static const std::regex form("</eventTime><(?:tick[^<]*<number>(\\d+)|(replayComplete|notificationComplete) )");
    std::smatch match;
    std::string frame;
    do {
      frame = session.next_notification(timeout).substr(0, 300);
    } while (!frame.empty() && !std::regex_search(frame, match, form));
    return frame.empty() ? "" : match[1].str() + match[2].str();
  }
  // As many as that, or all up to the one that is named; fewer when no more come.
  static texts take(support::netconf_session &session, size_t count, const std::string &last = "")
  {
    texts found;
    while (found.size() < count && (found.empty() || (!found.back().empty() && found.back() != last))) {
      found.push_back(next(session));
    }
    return found;
  }
  static bool is_quiet(support::netconf_session &session) { return next(session, 300ms).empty(); }

  // What a session gets that reads nothing while 3000 events of 1 KB come, which another one gets: in their order, and
  // as many fewer as the log says. The last number that was sent follows.
  void leave_unread(const std::string &replay, bool is_stored, texts *ret_found, int *ret_last)
  {
    start(replay, ", \"max-queue\": 262144", is_stored);
    support::netconf_session &slow = connect(), &reader = connect();
    ASSERT_TRUE(slow.ok(subscribe()) && reader.ok(subscribe()));
    for (int first = 1; first <= 3000; first += 100) {
      emit(first, first + 99, 1000);
      ASSERT_EQ(numbers(first, first + 99), take(reader, 100));
    }
    ASSERT_TRUE(slow.send("<discard-changes/>")) << "a request of a session that is behind";
    texts found = {next(slow)};
    int last = 3000;
    for (;;) {
      for (std::string number = next(slow, 1000ms); !number.empty(); number = next(slow, 1000ms)) {
        ASSERT_LT(std::stoi(found.back()), std::stoi(number));
        found.push_back(number);
      }
      if (found.back() == std::to_string(last)) {
        break;
      }
      last++; // there is room now
      emit(last, last);
    }
    EXPECT_TRUE(support::is_ok(slow.receive()));
    int missed = 0;
    const std::regex form("has missed (\\d+) events");
    std::string log = daemon.log_text();
    for (std::sregex_iterator match(log.begin(), log.end(), form), end; match != end; ++match) {
      missed += std::stoi((*match)[1]);
    }
    EXPECT_EQ(last, static_cast<int>(found.size()) + missed);
    *ret_found = found;
    *ret_last = last;
  }

  const time_t now = time(nullptr);
};

} // namespace

TEST_F(notifications, events_go_to_each_subscription_once)
{
  start(", \"replay\": true");
  support::netconf_session &twice = connect(), &once = connect(), &none = connect();
  EXPECT_TRUE(twice.ok(subscribe()));
  EXPECT_TRUE(twice.ok(subscribe("<stream> NETCONF </stream>")));
  EXPECT_TRUE(once.ok(subscribe(from(now - 10))));
  EXPECT_EQ(REPLAYED, next(once));
  emit(tick(1, std::string(200000, 'x'))); // longer than the usual buffer
  emit(tick(2));
  std::string frame = twice.next_notification();
  EXPECT_TRUE(std::regex_search(
      frame.substr(0, 300),
      std::regex("^<notification xmlns=\"urn:ietf:params:xml:ns:netconf:notification:1.0\">"
                 "<eventTime>[-0-9]{10}T[0-9:]{8}(Z|[-+][0-9:]{5})</eventTime><tick xmlns=\"urn:ex-events\">")))
      << frame.substr(0, 300);
  EXPECT_EQ(support::find_text(frame, "text"), std::string(200000, 'x'));
  EXPECT_EQ((texts{"1", "2", "2"}), take(twice, 3));
  EXPECT_TRUE(twice.ok("<discard-changes/>"));
  EXPECT_EQ((texts{"1", "2"}), take(once, 2));
  EXPECT_TRUE(is_quiet(none) && is_quiet(once) && is_quiet(twice));
  once.close();
  emit(3, 3);
  EXPECT_EQ((texts{"3", "3"}), take(twice, 2));
}

TEST_F(notifications, stored_events_are_replayed_between_start_and_stop)
{
  for (int age : {500, 400, 300, 200, 100}) {
    plant(now - age, tick(age));
  }
  start(", \"replay\": true");
  support::netconf_session &session = connect();
  ASSERT_TRUE(session.ok(subscribe(from(now - 400, now - 200))));
  EXPECT_EQ((texts{"400", "300", "200", REPLAYED, ENDED}), take(session, 5));
  emit(1, 1);
  EXPECT_TRUE(is_quiet(session)) << "the subscription is over";
  ASSERT_TRUE(session.ok(subscribe(from(now - 300))));
  EXPECT_EQ((texts{"300", "200", "100", "1", REPLAYED}), take(session, 5));
  emit(2, 2);
  EXPECT_EQ("2", next(session)) << "live behind the replay";
  // An end that is still to come: what happens up to then is sent, also while the daemon has no quiet second.
  support::netconf_session &ending = connect();
  ASSERT_TRUE(ending.ok(subscribe(from(now - 10, time(nullptr) + 3))));
  texts found;
  for (int number = 3; found.empty() || (found.back() != ENDED && number < 2000); number++) {
    emit(number, number);
    std::this_thread::sleep_for(5ms);
    std::string got = next(ending, 100ms);
    found.insert(found.end(), got.empty() ? 0 : 1, got);
  }
  EXPECT_EQ((texts{"1", "2", REPLAYED, "3"}), texts(found.begin(), found.begin() + 4));
  EXPECT_EQ(ENDED, found.back());
  EXPECT_TRUE(is_quiet(ending));
}

TEST_F(notifications, aged_and_damaged_records_are_removed_when_they_are_met)
{
  const time_t aged = now - 10000001 - 60, fresh = now - 10000000 + 600;
  texts planting = {"RPUSH", "event_key_list", record(aged, tick(1)), record(fresh, tick(2)), "short"};
  for (int number = 1001; number <= 2000; number++) {
    planting.push_back(record(now, tick(number, std::string(1000, 'x'))));
  }
  for (const std::string &text : {record(aged, tick(3)), record(now, tick(4)) + "more", record(now, "<a><b></a>"),
                                  record(now, "<?xml version=\"1.0\"?><a/>"),
                                  record(std::numeric_limits<time_t>::max(), tick(4)), record(now, tick(5))}) {
    planting.push_back(text);
  }
  redis.command(NOTIFY_DB, planting);
  start(", \"replay\": true, \"max-entries-num\": 5000", ", \"max-queue\": 65536");
  support::netconf_session &slow = connect(), &fast = connect();
  ASSERT_TRUE(fast.ok(subscribe(from(now - 5000))));
  EXPECT_EQ("5", take(fast, 2000, REPLAYED)[1000]);
  EXPECT_EQ(1004U, stored().size()) << "what is aged stays as long as nobody asks for it";
  // The slow one has no room for all: the fast one removes records in front of it.
  ASSERT_TRUE(slow.ok(subscribe(from(aged - 10))));
  ASSERT_TRUE(fast.ok(subscribe(from(aged - 10))));
  texts expected = numbers(1001, 2000);
  expected.insert(expected.begin(), "2");
  expected.insert(expected.end(), {"5", REPLAYED, "6"});
  texts found = take(fast, 2000, REPLAYED);
  emit(6, 6);
  found.push_back(next(fast));
  EXPECT_EQ(expected, found);
  EXPECT_EQ(expected, take(slow, 2000, "6"));
  EXPECT_EQ(1003U, stored().size());
}

TEST_F(notifications, log_keeps_the_newest_events_up_to_its_bound)
{
  const struct {
    const char *replay;
    int bound;
  } steps[] = {{", \"replay\": true, \"max-entries-num\": 0", 200},
               {", \"replay\": {\"enabled\": true, \"max-entries-num\": 500}", 500},
               {", \"replay\": {\"enabled\": true, \"max-entries-num\": 3}", 3}};
  int last = 0;
  for (const auto &step : steps) {
    SCOPED_TRACE(step.replay);
    start(step.replay);
    support::netconf_session &session = connect();
    ASSERT_TRUE(session.ok(subscribe()));
    int first = last + 1;
    last += step.bound + (step.bound == 3 ? 1 : 301);
    emit(first, last, 10);
    ASSERT_EQ(std::to_string(last), take(session, 1000, std::to_string(last)).back());
    EXPECT_EQ(static_cast<size_t>(step.bound), stored().size());
    ASSERT_TRUE(session.ok(subscribe(from(now - 10))));
    texts expected = numbers(last - step.bound + 1, last);
    expected.push_back(REPLAYED);
    EXPECT_EQ(expected, take(session, expected.size()));
  }
}

TEST_F(notifications, replays_run_side_by_side)
{
  start(", \"replay\": {\"enabled\": true, \"max-entries-num\": 20000}");
  texts planting = {"RPUSH", "event_key_list"};
  for (int number = 1; number <= 10000; number++) {
    planting.push_back(record(now - 100, tick(number)));
  }
  redis.command(NOTIFY_DB, planting);
  std::vector<support::netconf_session *> sessions = {&connect(), &connect(), &connect()};
  for (support::netconf_session *session : sessions) {
    ASSERT_TRUE(session->ok(subscribe(from(now - 200))));
  }
  EXPECT_EQ(numbers(1, 10), take(*sessions[0], 10));
  sessions[0]->close();
  emit(10001, 10001);
  for (support::netconf_session *session : {sessions[1], sessions[2]}) {
    texts found = take(*session, 20000, "10001");
    found.erase(std::remove(found.begin(), found.end(), REPLAYED), found.end());
    EXPECT_EQ(numbers(1, 10001), found);
  }
}

TEST_F(notifications, slow_subscriber_gets_what_the_log_keeps)
{
  texts found;
  int last = 0;
  leave_unread(", \"replay\": true, \"max-entries-num\": 5000", true, &found, &last);
  EXPECT_EQ(numbers(1, last), found);
  leave_unread(", \"replay\": true, \"max-entries-num\": 1000", true, &found, &last);
  EXPECT_LT(found.size(), 3000U);
  EXPECT_EQ(numbers(2001, 3000), texts(std::find(found.begin(), found.end(), "2001"), found.end()));
  EXPECT_TRUE(contains(daemon.log_text(), "takes events too slowly and misses"));
}

TEST_F(notifications, slow_subscriber_without_a_log_misses_what_it_has_no_room_for)
{
  texts found;
  int last = 0;
  leave_unread(", \"replay\": true", false, &found, &last);
  EXPECT_LT(found.size(), 3000U);
  EXPECT_TRUE(contains(daemon.log_text(), "misses 1: they are not stored."));
  EXPECT_EQ(texts(), stored());
}

TEST_F(notifications, live_events_need_no_database)
{
  start(", \"replay\": true");
  support::netconf_session &session = connect();
  ASSERT_TRUE(session.ok(subscribe()));
  emit(1, 1);
  EXPECT_EQ("1", next(session));
  redis.stop();
  emit(2, 3);
  EXPECT_EQ((texts{"2", "3"}), take(session, 2));
  EXPECT_EQ("operation-failed", session.error(subscribe(from(now - 10))).tag);
  redis.start();
  std::this_thread::sleep_for(1100ms); // it is asked again after a second
  emit(4, 4);
  EXPECT_EQ("4", next(session));
  ASSERT_TRUE(session.ok(subscribe(from(now - 10))));
  EXPECT_EQ((texts{"4", REPLAYED}), take(session, 2));
}

TEST_F(notifications, what_is_not_configured_is_refused)
{
  start(", \"replay\": false");
  EXPECT_EQ("Do not support replay mode", connect().error(subscribe(from(now - 10))).message);
  start(", \"enabled\": false");
  EXPECT_EQ("Requested stream does not exist..", connect().error(subscribe()).message);
  daemon.options().profile.erase("notification");
  ASSERT_TRUE(daemon.restart());
  EXPECT_EQ("get notification config from hash failed", connect().error(subscribe()).message);
  emit(1, 1);
  EXPECT_TRUE(daemon.wait_for_log("If you want to use notification, Please configure it in ymgrd.conf first."));
}

TEST_F(notifications, capabilities_and_the_begin_of_the_log_are_told)
{
  daemon.options().profile["capabilities"] =
      R"([{"capid": "urn:ietf:params:netconf:capability:interleave:1.0", "enable": true}])";
  start(", \"replay\": true");
  support::netconf_session &session = connect();
  std::string capabilities = session.rpc("<get-capability xmlns=\"com:zentra:netconf:private:opal:device:ymgrd\"/>");
  for (const char *name : {":notification:1.0<", ":interleave:1.0<"}) {
    size_t first = capabilities.find(name);
    EXPECT_TRUE(first != std::string::npos && first == capabilities.rfind(name)) << name;
  }
  std::string state = session.rpc("<get/>");
  std::string created = support::find_text(state, "replayLogCreationTime").value_or("");
  EXPECT_LE(time_text(now - 1), created);
  EXPECT_GE(time_text(time(nullptr)), created);
}
