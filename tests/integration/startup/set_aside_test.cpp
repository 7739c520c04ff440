// Starts whose schema does not know all that is stored.
#include <filesystem>

#include "support/daemon_test.h"

namespace {

const std::string system_of_other = "<system xmlns='urn:ex-sys'><hostname xmlns='urn:ex-part'>b</hostname></system>";
const std::string part_head = "<part xmlns='urn:ex-part' xmlns:p='urn:ex-part'><kept>k</kept><base>p:fast</base>"
                              "<at>/p:part/p:entry[p:name='7']</at>";

class set_aside : public support::daemon_test {
protected:
  void SetUp() override
  {
    use_revision("first");
    daemon.options().modules.push_back({"ex-part"});
    ASSERT_TRUE(daemon.start());
    session = &connect();
    ASSERT_TRUE(edit("running", "<system xmlns='urn:ex-sys'><hostname>a</hostname></system>"));
    without = data("running");
    ASSERT_TRUE(edit("running", system_of_other + part_head +
                                    "<gone>g</gone><level>high</level><mode>fast</mode><box><in>x</in></box>"
                                    "<entry><name>7</name><size>1</size></entry><entry><name>seven</name></entry>"
                                    "<tag>5</tag><tag>five</tag></part>"));
    ASSERT_TRUE(session->ok(support::copy_config("startup", "<running/>")));
    complete = data("startup");
  }
  void use_revision(const std::string &which)
  {
    std::filesystem::copy_file(std::string(STARTUP_DIR) + "/ex-part-" + which + ".yang",
                               daemon.modules_dir() + "/ex-part.yang",
                               std::filesystem::copy_options::overwrite_existing);
  }
  void restart(const std::vector<std::string> &arguments = {})
  {
    daemon.options().arguments = arguments;
    ASSERT_TRUE(daemon.restart());
    session = &connect();
  }
  testing::AssertionResult edit(const std::string &target, const std::string &config)
  {
    return session->ok(support::edit_config(target, config));
  }
  std::string data(const std::string &source, const std::string &filter = "")
  {
    std::string reply = session->rpc("<get-config><source><" + source + "/></source>" + filter + "</get-config>");
    return support::reply_data(reply, support::siblings::sorted);
  }
  bool warned(const std::string &text) const { return contains(daemon.log_text(), "[WARN] " + text); }

  support::netconf_session *session = nullptr;
  std::string without, complete; // all but the configuration of ex-part, and with it
};

} // namespace

TEST_F(set_aside, a_module_taken_out_hinders_nothing_and_comes_back_with_its_data)
{
  daemon.options().modules.pop_back();
  for (bool is_smooth : {true, false}) {
    restart(is_smooth ? std::vector<std::string>{"--smooth"} : std::vector<std::string>{});
    for (const char *datastore : {"running", "startup", "candidate"}) {
      EXPECT_EQ(data(datastore), without);
    }
    EXPECT_TRUE(warned("Module ex-part is not loaded: "));
    EXPECT_TRUE(warned("What is stored of module ex-sys does not fit it and is set aside until startup is written (1): "
                       "/ex-sys:system/ex-part:hostname."));
    EXPECT_FALSE(contains(tree(RUNNING_DB), "/ex-part"));
    ASSERT_TRUE(edit("candidate", "<system xmlns='urn:ex-sys'><port>2</port></system>"));
    ASSERT_TRUE(session->ok(support::COMMIT));
    ASSERT_TRUE(session->ok(support::copy_config("running", "<startup/>")));
    EXPECT_EQ(data("running"), without);
  }
  daemon.options().modules.push_back({"ex-part"});
  restart();
  EXPECT_EQ(data("running"), complete);
}

TEST_F(set_aside, what_a_revision_refuses_can_be_set_anew_and_goes_with_the_next_save)
{
  use_revision("second");
  restart();
  auto part = [this](const std::string &source) {
    return data(source, "<filter><part xmlns='urn:ex-part'/></filter>");
  };
  auto content = [](const std::string &level) {
    return support::normalize(part_head + level + "<entry><name>7</name></entry><tag>5</tag></part>",
                              support::siblings::sorted);
  };
  EXPECT_EQ(part("running"), content(""));
  EXPECT_EQ(part("startup"), content(""));
  EXPECT_TRUE(
      warned("What is stored of module ex-part does not fit it and is set aside until startup is written (7): "));
  const std::string other = "<system xmlns='urn:ex-sys'><port>2</port></system>";
  EXPECT_TRUE(contains(session->error(support::edit_config("running", other)).message, "level"));
  ASSERT_TRUE(edit("running", other + "<part xmlns='urn:ex-part'><level>3</level></part>"));
  ASSERT_TRUE(session->ok(support::copy_config("startup", "<running/>")));
  EXPECT_EQ(part("startup"), content("<level>3</level>"));
  restart();
  EXPECT_FALSE(warned("What is stored"));
  EXPECT_EQ(part("running"), content("<level>3</level>"));
}
