// One edit of about ten megabytes.
#include "support/daemon_test.h"

namespace {

constexpr int ENTRIES = 40000;
constexpr std::chrono::minutes LONG_TIME{4};

class large_edit : public support::daemon_test {
protected:
  static std::string timed(const char *what, support::netconf_session &session, const std::string &operation)
  {
    auto begin = std::chrono::steady_clock::now();
    std::string reply = session.rpc(operation, LONG_TIME);
    std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    RecordProperty(what, std::to_string(taken.count()));
    std::cout << what << ": " << taken.count() << " s\n";
    return reply;
  }
};

std::string leaf(const std::string &name, const std::string &value)
{
  return "<" + name + ">" + value + "</" + name + ">";
}

// No two entries are equal in any leaf that may differ; some texts need escapes.
std::string large_document()
{
  static const char *const kinds[] = {"ethernet", "serial", "tunnel"};
  std::string text = "<bench xmlns=\"urn:ex-bench\">";
  for (int i = 0; i < ENTRIES; i++) {
    std::string number = std::to_string(i);
    text += "<entry>" + leaf("name", "entry-" + number) + leaf("description", "port " + number + " &lt;\"'&amp;é&gt;") +
            leaf("address", "10.0.0." + number) + leaf("mtu", std::to_string(68 + i % 1000)) +
            leaf("enabled", i % 2 == 0 ? "true" : "false") + leaf("weight", number) + leaf("kind", kinds[i % 3]) +
            "<unit>" + leaf("id", "0") + leaf("label", "unit of " + number) + "</unit></entry>";
  }
  return text + "</bench>";
}

} // namespace

TEST_F(large_edit, of_forty_thousand_entries_is_committed_and_read_back_equal)
{
  const std::string document = large_document();
  ASSERT_GT(document.size(), 10000000U);
  const std::string expected = support::normalize(document, support::siblings::sorted);
  daemon.options().modules.push_back({"ex-bench"});
  ASSERT_TRUE(daemon.start());
  EXPECT_TRUE(support::is_ok(timed("edit", connect(), support::edit_config("candidate", document))));
  ASSERT_TRUE(support::is_ok(timed("commit", connect(), support::COMMIT)));
  std::string reply = timed("read", connect(), support::get_config("running"));
  EXPECT_TRUE(support::reply_data(reply, support::siblings::sorted) == expected) << reply.substr(0, 1000);
  daemon.options().arguments = {"--smooth"}; // running stays as Redis holds it
  ASSERT_TRUE(daemon.restart());
  reply = timed("read after restart", connect(), support::get_config("running"));
  EXPECT_TRUE(support::reply_data(reply, support::siblings::sorted) == expected) << reply.substr(0, 1000);
}
