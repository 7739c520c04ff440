// One edit of about ten megabytes.
#include "support/daemon_test.h"

namespace {

constexpr int ENTRIES = 40000;
constexpr std::chrono::minutes LONG_TIME{4};

using large_edit = support::daemon_test;

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
  daemon.options().modules.push_back({"ex-bench"});
  ASSERT_TRUE(daemon.start());
  support::netconf_session &session = connect();
  auto begin = std::chrono::steady_clock::now();
  std::string reply = session.rpc(support::edit_config("candidate", document), LONG_TIME);
  ASSERT_TRUE(support::is_ok(reply)) << reply.substr(0, 1000);
  reply = session.rpc(support::COMMIT, LONG_TIME);
  ASSERT_TRUE(support::is_ok(reply)) << reply.substr(0, 1000);
  reply = session.rpc(support::get_config("running"), LONG_TIME);
  auto taken = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin).count();
  std::cout << document.size() << " bytes edited, committed and read in " << taken << " ms\n";
  RecordProperty("milliseconds", static_cast<int>(taken));

  std::string expected = support::normalize(document, support::siblings::sorted);
  std::string found = support::reply_data(reply, support::siblings::sorted);
  auto [in_expected, in_found] = std::mismatch(expected.begin(), expected.end(), found.begin(), found.end());
  EXPECT_TRUE(expected == found) << "expected: " << std::string(in_expected, expected.end()).substr(0, 300)
                                 << "\nfound: " << std::string(in_found, found.end()).substr(0, 300);
}
