// Random edits of a real daemon with a real Redis, compared with the model: what get-config answers, what Redis holds,
// what is refused and with which error. YMGR_SEED and YMGR_EDITS choose the run.
#include <algorithm>
#include <filesystem>
#include <optional>

#include "property_compare.h"
#include "property_generator.h"
#include "support/daemon_test.h"
#include "support/working_key.h"

namespace {

using property::difference;
using property::lines_of;
using property::lines_t;
using property::node_t;
using property::stored_lines;

constexpr uint64_t DEFAULT_SEED = 20260101;

class random_edits : public support::daemon_test {
protected:
  void SetUp() override
  {
    for (const char *module : {property::MODULE, property::AUGMENTING_MODULE}) {
      std::string file = std::string("/") + module + ".yang";
      std::filesystem::copy_file(PROPERTY_MODULES_DIR + file, daemon.modules_dir() + file);
      daemon.options().modules.push_back({module});
    }
    daemon.options().profile["sensitive-key"] = property::SENSITIVE_KEYS;
    daemon.options().working_key = support::provision_key(dir.path());
    daemon.options().arguments = {"--log-level", "info"};
    ASSERT_TRUE(daemon.start());
    session.emplace(daemon.run_dir());
  }

  void step()
  {
    struct {
      size_t per_mille;
      void (random_edits::*act)();
    } const actions[] = {{2, &random_edits::restart},    {8, &random_edits::copy},
                         {10, &random_edits::reconnect}, {40, &random_edits::write_from_outside},
                         {160, &random_edits::commit},   {40, &random_edits::discard}};
    size_t dice = random.pick(1000);
    for (const auto &action : actions) {
      if (dice < action.per_mille) {
        (this->*action.act)();
        verify();
        break;
      }
      dice -= action.per_mille;
    }
    if (is_clean ? random.chance(15) : random.chance(1) && lines_of(candidate) != lines_of(running)) {
      edit("running", &running);
    } else {
      edit("candidate", &candidate);
    }
    if (random.chance(10)) {
      verify();
    }
  }

  void edit(const std::string &target, node_t *data)
  {
    property::request_t request = random.edit(*data);
    bool is_tried_only = random.chance(3);
    const std::string text = "<edit-config><target><" + target + "/></target><default-operation>" +
                             request.default_operation + "</default-operation>" +
                             (is_tried_only ? "<test-option>test-only</test-option>" : "") +
                             "<config xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\" "
                             "xmlns:yang=\"urn:ietf:params:xml:ns:yang:1\" xmlns:p=\"urn:prop\" "
                             "xmlns:e=\"urn:prop-ext\">" +
                             request.config + "</config></edit-config>";
    SCOPED_TRACE(text);
    if (data == &running && !is_clean) {
      request.tags.insert("operation-failed"); // candidate's changes go first
    }
    if (is_tried_only || !request.tags.empty()) {
      return expect_no_change(text, request.tags);
    }
    ASSERT_TRUE(session->ok(text));
    *data = std::move(request.result);
    is_clean = data == &running;
    is_stale = data == &running;
    if (is_clean) {
      candidate = running;
    }
  }

  void expect_no_change(const std::string &text, const std::set<std::string> &tags)
  {
    const lines_t running_before = stored_lines(yang, &redis, RUNNING_DB);
    const lines_t candidate_before = stored_lines(yang, &redis, CANDIDATE_DB);
    const std::string reply = session->rpc(text);
    const std::string tag = support::find_error(reply).value_or(support::rpc_error_t()).tag;
    EXPECT_TRUE(tags.empty() ? support::is_ok(reply) : tags.contains(tag))
        << reply << "\ninstead of " << testing::PrintToString(tags);
    EXPECT_EQ(difference(running_before, stored_lines(yang, &redis, RUNNING_DB)), "");
    if (!is_stale) {
      EXPECT_EQ(difference(candidate_before, stored_lines(yang, &redis, CANDIDATE_DB)), "");
    }
  }

  void commit()
  {
    ASSERT_TRUE(session->ok(support::COMMIT));
    running = candidate;
    is_stale = is_stale && is_clean;
    is_clean = true;
  }

  void discard()
  {
    ASSERT_TRUE(session->ok(support::DISCARD_CHANGES));
    candidate = running;
    is_stale = is_stale && is_clean;
    is_clean = true;
  }

  void copy()
  {
    struct {
      const char *source;
      const char *target;
      node_t *from;
      node_t *to;
    } const copies[] = {{"<running/>", "startup", &running, &startup},
                        {"<startup/>", "candidate", &startup, &candidate},
                        {"<running/>", "candidate", &running, &candidate},
                        {"<startup/>", "running", &startup, &running}};
    const auto &chosen = copies[random.pick(is_clean ? 4 : 3)]; // the last is refused while candidate has changes
    ASSERT_TRUE(session->ok(support::copy_config(chosen.target, chosen.source)));
    *chosen.to = *chosen.from;
    if (chosen.to == &running) {
      candidate = running;
      is_stale = true;
    } else if (chosen.to == &candidate) {
      is_stale = is_stale && is_clean && chosen.from == &running;
      is_clean = chosen.from == &running;
    }
  }

  // Another client of Redis writes what stands there already: the daemon must read again, and find the same.
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
  }

  void reconnect() { session.emplace(daemon.run_dir()); }

  void restart()
  {
    session.reset();
    ASSERT_TRUE(daemon.restart());
    reconnect();
    running = startup;
    candidate = startup;
    is_clean = true;
    is_stale = true;
  }

  // Model, replies and databases agree.
  void verify()
  {
    struct {
      const char *name;
      const node_t *data;
      int db;
    } const stores[] = {{"running", &running, RUNNING_DB}, {"candidate", &candidate, CANDIDATE_DB}};
    for (const auto &store : stores) {
      SCOPED_TRACE(store.name);
      lines_t reply = lines_of_reply(yang, session->rpc(support::get_config(store.name)));
      EXPECT_EQ(difference(lines_of(*store.data), reply), "") << "get-config";
      if (store.data == &running || !is_stale) {
        EXPECT_EQ(difference(stored_lines(*store.data), stored_lines(yang, &redis, store.db)), "") << "stored";
      }
      largest = std::max(largest, reply.size());
    }
    if (random.chance(5)) {
      EXPECT_EQ(difference(stored_lines(startup), stored_lines(yang, &redis, STARTUP_DB)), "") << "stored startup";
    }
  }

  const property::schema yang{PROPERTY_MODULES_DIR};
  const uint64_t seed = support::number_from("YMGR_SEED", DEFAULT_SEED);
  property::generator random{yang, seed};
  std::optional<support::netconf_session> session;
  node_t startup;
  node_t running;
  node_t candidate;
  bool is_clean = true;  // candidate was not edited since it was equal to running
  bool is_stale = false; // candidate's database lags behind; get-config of candidate answers running
  size_t largest = 0;    // number of nodes
};

} // namespace

TEST_F(random_edits, leave_the_data_that_the_model_says)
{
  const uint64_t count = support::number_from("YMGR_EDITS", PROPERTY_EDITS);
  for (uint64_t i = 1; i <= count && !HasFailure(); i++) {
    SCOPED_TRACE("YMGR_SEED=" + std::to_string(seed) + ", edit " + std::to_string(i));
    step();
  }
  EXPECT_GT(largest, 50U) << "the data stayed too small to say anything";
}

// libyang takes the node out while it finds another one to refuse, and puts in as many that it implies.
TEST_F(random_edits, refused_edit_gives_a_node_back_whose_condition_it_made_false)
{
  auto edit = [](const std::string &content) {
    return support::edit_config("candidate", "<top xmlns=\"urn:prop\">" + content + "</top>");
  };
  ASSERT_TRUE(session->ok(edit("<banner>true</banner><settings><deep/></settings><pool/>")));
  ASSERT_TRUE(session->ok(edit("<number>1</number>"))); // validated again: the condition is known to have held
  std::string before = session->rpc(support::get_config("candidate"));
  ASSERT_NE(before.find("<banner-size>"), std::string::npos);
  EXPECT_FALSE(session->error(edit("<banner>false</banner><banner-text>x</banner-text>")).tag.empty());
  std::string after = session->rpc(support::get_config("candidate")); // read from Redis, in whose order
  EXPECT_EQ(support::reply_data(after, support::siblings::sorted),
            support::reply_data(before, support::siblings::sorted));
}
