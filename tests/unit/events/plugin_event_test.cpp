// Which events of plugins are sent, and in what form.
#include "unit/edit/edit_fixture.h"
#include "ymgrd/notify/plugin_event.h"

namespace {

const char events_module[] = R"(
module events {
  yang-version 1.1; namespace "urn:events"; prefix ev; import sample { prefix s; } revision 2026-01-01;
  identity colour; identity red { base colour; }
  container box { list item { key k; leaf k { type string; } notification opened { leaf by { type string; } } } }
  notification alarm {
    leaf level { type uint8; mandatory true; } leaf colour { type identityref { base colour; } }
    leaf shown { type string; default "yes"; } leaf rule { type leafref { path "/s:top-rule/s:k"; } }
    container more { leaf-list n { type int8; max-elements 2; } must 'not(n = 9)';
}
}
})";

class plugin_event : public edit_fixture {
protected:
  plugin_event() { more_modules = {{"events", events_module}, {"ietf-netconf-notifications", ""}}; }

  // The content to be sent, or the reason that is logged.
  static std::string take(const std::string &datagram)
  {
    std::string content;
    testing::internal::CaptureStderr();
    int result = plugin_event_check(datagram, &content);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(result == 0, log.find("[ERROR] An event of a plugin is not sent: ") != std::string::npos) << log;
    return result == 0 ? content : "refused: " + log;
  }
};

} // namespace

TEST_F(plugin_event, what_fits_is_sent_in_canonical_form)
{
  free_differ_tree(apply(ENUM_DATASTORE_RUNNING, {"<top-rule xmlns='urn:sample'><k>r</k></top-rule>"}).tree);
  EXPECT_EQ(take("<?xml version='1.0'?><!-- new --><e:alarm xmlns:e='urn:events' xmlns:f='urn:events'><e:level>007"
                 "</e:level><e:colour>f:red</e:colour><e:rule>r</e:rule></e:alarm>\n"),
            "<alarm xmlns=\"urn:events\"><level>7</level><colour xmlns:ev=\"urn:events\">ev:red</colour><rule>r</rule>"
            "</alarm>");
  EXPECT_EQ(take("<box xmlns='urn:events'><item><k>a</k><opened><by>me</by></opened></item></box>"),
            "<box xmlns=\"urn:events\"><item><k>a</k><opened><by>me</by></opened></item></box>");
  edit_outcome_t later = apply(ENUM_DATASTORE_RUNNING, {"<top-rule xmlns='urn:sample'><k>s</k></top-rule>"});
  free_differ_tree(later.tree);
  EXPECT_EQ(text_of(later.data), text_of(stored(ENUM_DATASTORE_RUNNING))); // the checks have left nothing in it
}

TEST_F(plugin_event, what_does_not_fit_is_refused_with_the_reason)
{
  std::string nested;
  for (int i = 0; i < 300; i++) {
    nested = "<a>" + nested + "</a>";
  }
  const struct {
    std::string datagram;
    const char *reason;
  } cases[] = {
      {"", "not one well-formed element"},
      {"<alarm xmlns='urn:events'><level>1</level></alarm><alarm xmlns='urn:events'/>", "not one well-formed element"},
      {"<!DOCTYPE a []><alarm xmlns='urn:events'><level>1</level></alarm>", "not one well-formed element"},
      {"<alarm xmlns='urn:events'>" + nested + "</alarm>", "not one well-formed element"},
      {"<alarm><level>1</level></alarm>", "no module defines it(alarm)"},
      {"<alarm xmlns='urn:events'/>", "level"},
      {"<alarm xmlns='urn:events'><level>256</level></alarm>", "level"},
      {"<alarm xmlns='urn:events'><level>1</level><other/></alarm>", "other"},
      {"<alarm xmlns='urn:events'><level>1</level><rule>none</rule></alarm>", "rule"},
      {"<alarm xmlns='urn:events'><level>1</level><more><n>1</n><n>2</n><n>3</n></more></alarm>", "\"n\""},
      {"<alarm xmlns='urn:events'><level>1</level><more><n>9</n></more></alarm>", "not(n = 9)"},
      {"<box xmlns='urn:events'><item><k>a</k></item></box>", ""},
      {"<netconf-session-start xmlns='urn:ietf:params:xml:ns:yang:ietf-netconf-notifications'><username>root"
       "</username><session-id>1</session-id></netconf-session-start>",
       "the daemon's own"},
  };
  for (const auto &row : cases) {
    std::string outcome = take(row.datagram);
    EXPECT_TRUE(outcome.starts_with("refused") && outcome.find(row.reason) != std::string::npos) << row.datagram << "\n"
                                                                                                 << outcome;
  }
}
