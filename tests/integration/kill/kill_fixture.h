// A daemon that is killed before a chosen write to Redis, and what the next one must find.
#pragma once

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>

#include <sys/wait.h>

#include "support/daemon_test.h"

// A command that changed data, and the transaction state when it set that.
typedef struct _redis_write {
  int db;
  std::string command;
  std::string state;
} redis_write_t;

class kill_fixture : public support::daemon_test {
protected:
  static constexpr int SPARE_DB = 14; // the startup configuration that every round begins with
  static constexpr size_t NEVER = 1000000;

  void SetUp() override
  {
    setenv("YMGR_CUT_DIR", dir.path().c_str(), 1);
    daemon.options().binary = CUT_YMGRD;
    daemon.options().modules.push_back({"ex-ext"});
    ASSERT_TRUE(daemon.start());
    ASSERT_TRUE(connect_anew().ok(support::edit_config("running", BEGINNING)));
    copy_tree(RUNNING_DB, SPARE_DB);
    schema = redis.dump(SCHEMA_DB);
  }

  // Many by hand, few with every run of the tests.
  static int random_rounds()
  {
    const char *wanted = std::getenv("YMGR_KILL_ROUNDS");
    return wanted == nullptr ? 10 : std::atoi(wanted);
  }

  // A daemon that was started on the configuration of the beginning and has done `operations`.
  void begin_round(const std::vector<std::string> &operations)
  {
    end_round();
    for (int db = STARTUP_DB; db < SPARE_DB; db++) {
      redis.command(db, {"FLUSHDB"});
    }
    copy_tree(SPARE_DB, STARTUP_DB);
    ASSERT_TRUE(daemon.start());
    connect_anew();
    for (const std::string &operation : operations) {
      ASSERT_TRUE(session->ok(operation));
    }
  }

  // From now on the daemon's writes are counted; that after `limit` ones kills it.
  void watch(size_t limit = NEVER)
  {
    std::filesystem::remove(dir / "writes");
    support::write_file(dir / "limit", std::to_string(limit));
  }
  std::vector<redis_write_t> writes()
  {
    std::ifstream lines(dir / "writes");
    std::vector<redis_write_t> all;
    for (redis_write_t write; lines >> write.db >> write.command >> write.state;) {
      all.push_back(write);
    }
    return all;
  }
  // Waits until the watched daemon has died of its write.
  void expect_cut()
  {
    std::optional<int> status = daemon.wait();
    ASSERT_TRUE(status && WIFSIGNALED(*status) && WTERMSIG(*status) == SIGKILL);
    end_round();
  }
  void kill_in(const std::string &operation, size_t limit)
  {
    watch(limit);
    ASSERT_TRUE(session->send(operation));
    expect_cut();
  }

  void end_round()
  {
    session.reset();
    daemon.kill_now();
    std::filesystem::remove(dir / "limit");
  }

  // Starts the daemon so that what runs stays: its running configuration is one of those that were committed.
  void check_smooth_start(const std::set<std::string> &committed)
  {
    daemon.options().arguments = {"--smooth"};
    testing::AssertionResult started = daemon.start();
    daemon.options().arguments.clear();
    ASSERT_TRUE(started);
    EXPECT_TRUE(committed.contains(tree(RUNNING_DB))) << "half of a change:\n" << tree(RUNNING_DB);
    check_nothing_left();
    end_round();
  }

  // Whether a publication was going on. That is known over further smooth starts, until a client works.
  bool check_publication(const std::set<std::string> &committed)
  {
    std::string before = publication();
    check_smooth_start(committed);
    EXPECT_EQ(publication(), before);
    daemon.options().arguments = {"--smooth"};
    EXPECT_TRUE(daemon.start());
    daemon.options().arguments.clear();
    (void)connect_anew().rpc(support::get_config("running"));
    EXPECT_EQ(publication(), "0");
    end_round();
    return before == "1";
  }
  std::string publication() { return redis.command(RUNNING_DB, {"EXISTS", "ymgrd-publication"}).front(); }

  // Starts the daemon. Its running configuration is what startup holds, and nothing of its earlier life is left.
  void check_start()
  {
    ASSERT_TRUE(daemon.start());
    EXPECT_EQ(tree(RUNNING_DB), tree(STARTUP_DB));
    EXPECT_EQ(publication(), "0");
    check_nothing_left();
    connect_anew();
    EXPECT_EQ(support::reply_data(session->rpc(support::get_config("candidate"))),
              support::reply_data(session->rpc(support::get_config("running"))));
  }

  void check_nothing_left()
  {
    EXPECT_EQ(redis.dump(SCHEMA_DB), schema);
    for (int master = STARTUP_DB; master <= STATUS_DB; master += 2) {
      EXPECT_EQ(redis.dump(master + 1), "") << "the backup of database " << master;
    }
  }

  // Changes the configuration that startup holds. The result is the same for every life that came before.
  void check_work()
  {
    std::string startup = tree(STARTUP_DB);
    for (const std::string &operation : {std::string(LOCK), support::edit_config("running", FURTHER_EDIT),
                                         support::edit_config("candidate", LAST_EDIT), std::string(support::COMMIT)}) {
      ASSERT_TRUE(session->ok(operation));
    }
    std::string result = redis.dump(RUNNING_DB) + redis.dump(CANDIDATE_DB);
    EXPECT_EQ(expected.emplace(startup, result).first->second, result);
    EXPECT_EQ(tree(STARTUP_DB), startup);
  }

  support::netconf_session &connect_anew()
  {
    session.reset();
    return session.emplace(daemon.run_dir());
  }
  void copy_tree(int from, int to)
  {
    for (const std::string &key : redis.command(from, {"KEYS", "/*"})) {
      redis.command(from, {"COPY", key, key, "DB", std::to_string(to)});
    }
  }
  // The values that the datastore's persistent state took, in order.
  std::string states_of(int db)
  {
    std::string states;
    for (const redis_write_t &write : writes()) {
      states += write.db == db && write.state != "-" ? write.state : "";
    }
    return states;
  }

  static constexpr char LOCK[] = "<lock><target><candidate/></target></lock>";
  static constexpr char BEGINNING[] =
      "<system xmlns=\"urn:ex-sys\"><hostname>box</hostname><logging><level>debug</level></logging>"
      "<dns>10.0.0.1</dns><dns>10.0.0.2</dns><dns>10.0.0.3</dns><user><name>alice</name><uid>7</uid>"
      "<key><index>1</index><data>A</data></key></user><user><name>bob</name></user></system>"
      "<routes xmlns=\"urn:ex-sys\"><route><dest>10.0.0.0</dest><mask>8</mask></route></routes>";
  // Sets, deletes a container, an entry with entries below it and a module's last node; adds, moves and inserts
  // entries.
  static constexpr char EDIT[] =
      "<system xmlns=\"urn:ex-sys\" xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\" "
      "xmlns:yang=\"urn:ietf:params:xml:ns:yang:1\"><hostname>changed</hostname><logging nc:operation=\"delete\"/>"
      "<dns yang:insert=\"first\">10.0.0.9</dns><dns nc:operation=\"delete\">10.0.0.2</dns>"
      "<user nc:operation=\"delete\"><name>alice</name></user><user><name>carol</name><uid>9</uid></user>"
      "<ntp xmlns=\"urn:ex-ext\"><server><address>a.example</address></server></ntp></system>"
      "<routes xmlns=\"urn:ex-sys\" xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\" nc:operation=\"delete\"/>";
  static constexpr char FURTHER_EDIT[] = "<system xmlns=\"urn:ex-sys\"><hostname>next</hostname><user><name>dora</name>"
                                         "<uid>4</uid></user><tag>new</tag></system>";
  static constexpr char LAST_EDIT[] = "<system xmlns=\"urn:ex-sys\" "
                                      "xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><user nc:operation="
                                      "\"delete\"><name>dora</name></user><location>hall</location></system>";

  static constexpr char DELETE_ALL[] =
      "<system xmlns=\"urn:ex-sys\" xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\" nc:operation=\"delete\"/>";

  std::optional<support::netconf_session> session;
  std::string schema;
  std::map<std::string, std::string> expected; // by what startup held: databases after check_work()
};
