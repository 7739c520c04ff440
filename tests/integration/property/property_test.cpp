// Random edits of a real daemon with a real Redis, compared with the model: what get-config answers, what Redis holds,
// what is refused and with which error. YMGR_SEED and YMGR_EDITS choose the run.
#include <charconv>
#include <cstdlib>
#include <filesystem>

#include "property_compare.h"
#include "property_generator.h"
#include "support/daemon_test.h"

namespace {

using property::lines_t;
using property::node_t;

constexpr int STARTUP_DB = 2;
constexpr int RUNNING_DB = 4;
constexpr int CANDIDATE_DB = 6;
constexpr uint64_t DEFAULT_SEED = 20260101;

uint64_t number_from(const char *variable, uint64_t otherwise)
{
  const char *text = std::getenv(variable);
  uint64_t number = otherwise;
  if (text != nullptr) {
    (void)std::from_chars(text, text + std::char_traits<char>::length(text), number);
  }
  return number;
}

class random_edits : public support::daemon_test {
protected:
  void SetUp() override
  {
    for (const char *module : {property::MODULE, property::AUGMENTING_MODULE}) {
      std::string file = std::string(module) + ".yang";
      std::filesystem::copy_file(std::string(PROPERTY_MODULES_DIR) + "/" + file, daemon.modules_dir() + "/" + file);
      daemon.options().modules.push_back({module});
    }
    daemon.options().arguments = {"--log-level", "info"};
    ASSERT_TRUE(daemon.start());
    session.emplace(daemon.run_dir());
  }

  void step()
  {
    size_t dice = random.pick(1000);
    if (dice < 2) {
      restart();
    } else if (dice < 10) {
      copy();
    } else if (dice < 20) {
      session.emplace(daemon.run_dir());
    } else if (dice < 60) {
      write_from_outside();
    } else if (dice < 220) {
      commit();
    } else if (dice < 260) {
      discard();
    }
    // With changes of candidate pending, running is not to be edited.
    bool wants_running = random.chance(is_clean ? 15 : 1);
    wants_running = wants_running && (is_clean || property::lines_of(candidate) != property::lines_of(running));
    edit(wants_running ? "running" : "candidate");
  }

  void edit(const std::string &target)
  {
    bool is_running = target == "running";
    node_t *data = is_running ? &running : &candidate;
    property::request_t request = random.edit(*data);
    if (is_running && !is_clean) {
      request.tags.insert("operation-failed"); // candidate's changes go first
    }
    const std::string text = support::edit_config(
        target, request.config, "<default-operation>" + request.default_operation + "</default-operation>");
    SCOPED_TRACE(text);
    if (!request.tags.empty()) {
      return expect_refused(text, request.tags, is_stale && !is_running);
    }
    ASSERT_TRUE(session->ok(text));
    *data = std::move(request.result);
    if (is_running) {
      candidate = running;
      is_stale = true;
      verify();
    } else {
      is_clean = false;
      is_stale = false;
      if (random.chance(20)) {
        verify();
      }
    }
  }

  // `is_refreshed`: even then the database of candidate becomes running's.
  void expect_refused(const std::string &text, const std::set<std::string> &tags, bool is_refreshed)
  {
    refused_++;
    lines_t before = stored_in_all(is_refreshed);
    std::string tag = session->error(text).tag;
    EXPECT_TRUE(tags.contains(tag)) << tag << " instead of " << testing::PrintToString(tags);
    EXPECT_EQ(property::difference(before, stored_in_all(is_refreshed)), "");
    is_stale = is_stale && !is_refreshed;
    verify();
  }

  void commit()
  {
    ASSERT_TRUE(session->ok(support::COMMIT));
    running = candidate;
    is_stale = is_stale && is_clean;
    is_clean = true;
    verify();
  }

  void discard()
  {
    ASSERT_TRUE(session->ok(support::DISCARD_CHANGES));
    candidate = running;
    is_stale = is_stale && is_clean;
    is_clean = true;
    verify();
  }

  void copy()
  {
    struct {
      const char *source;
      const char *target;
      node_t *from;
      node_t *to;
    } copies[] = {{"running", "startup", &running, &startup},
                  {"startup", "candidate", &startup, &candidate},
                  {"running", "candidate", &running, &candidate},
                  {"startup", "running", &startup, &running}};
    const auto &chosen = copies[random.pick(is_clean ? 4 : 3)]; // the last is refused while candidate has changes
    SCOPED_TRACE(std::string("copy of ") + chosen.source + " to " + chosen.target);
    ASSERT_TRUE(session->ok(std::string("<copy-config><target><") + chosen.target + "/></target><source><" +
                            chosen.source + "/></source></copy-config>"));
    *chosen.to = *chosen.from;
    if (chosen.to == &running) {
      candidate = running;
      is_stale = true;
    } else if (chosen.to == &candidate) {
      is_stale = is_stale && is_clean && chosen.from == &running;
      is_clean = chosen.from == &running;
    }
    verify();
  }

  // Another client of Redis writes what stands there already: the daemon must read again, and must find the same.
  void write_from_outside()
  {
    for (int db : {RUNNING_DB, CANDIDATE_DB}) {
      for (const char *key : {"/prop", "/prop/top"}) {
        std::vector<std::string> fields = redis.command(db, {"HGETALL", key});
        if (!fields.empty() && random.chance(50)) {
          redis.command(db, {"HSET", key, fields[0], fields[1]});
        }
      }
    }
    verify();
  }

  void restart()
  {
    session.reset();
    ASSERT_TRUE(daemon.restart());
    session.emplace(daemon.run_dir());
    running = startup;
    candidate = running;
    is_clean = true;
    is_stale = true;
    verify();
  }

  // Model, replies and databases agree.
  void verify()
  {
    for (const auto &[name, data] : {std::pair{"running", &running}, std::pair{"candidate", &candidate}}) {
      largest_ = std::max(largest_, property::lines_of(*data).size());
      sum_ += property::lines_of(*data).size();
      n_++;
      lines_t reply = property::lines_of_reply(yang, session->rpc(support::get_config(name)));
      EXPECT_EQ(property::difference(property::lines_of(*data), reply), "") << "get-config of " << name;
    }
    EXPECT_EQ(property::difference(property::stored_lines(running), property::stored_lines(&yang, &redis, RUNNING_DB)),
              "")
        << "stored";
    EXPECT_EQ(property::difference(property::stored_lines(startup), property::stored_lines(&yang, &redis, STARTUP_DB)),
              "")
        << "stored of startup";
    if (!is_stale) {
      EXPECT_EQ(
          property::difference(property::stored_lines(candidate), property::stored_lines(&yang, &redis, CANDIDATE_DB)),
          "")
          << "stored of candidate";
    }
  }

  lines_t stored_in_all(bool but_candidate)
  {
    lines_t all;
    for (int db : {RUNNING_DB, STARTUP_DB, CANDIDATE_DB}) {
      if (db != CANDIDATE_DB || !but_candidate) {
        for (const std::string &line : property::stored_lines(nullptr, &redis, db)) {
          all.insert(std::to_string(db) + ": " + line);
        }
      }
    }
    return all;
  }

  const property::schema yang{PROPERTY_MODULES_DIR};
  const uint64_t seed = number_from("YMGR_SEED", DEFAULT_SEED);
  property::generator random{yang, seed};
  std::optional<support::netconf_session> session;
  node_t startup;
  node_t running;
  node_t candidate;
  bool is_clean = true;  // candidate was not edited since it was equal to running
  bool is_stale = false; // candidate's database lags behind; get-config of candidate answers running
  uint64_t refused_ = 0;
  size_t largest_ = 0, sum_ = 0, n_ = 0;
};

} // namespace

TEST_F(random_edits, leave_the_data_that_the_model_says)
{
  const uint64_t count = number_from("YMGR_EDITS", PROPERTY_EDITS);
  for (uint64_t i = 1; i <= count && !HasFailure(); i++) {
    SCOPED_TRACE("YMGR_SEED=" + std::to_string(seed) + ", edit " + std::to_string(i));
    step();
  }
  std::cerr << "refused " << refused_ << " of " << count << ", lines " << largest_ << " avg " << sum_ / n_ << "\n";
}
