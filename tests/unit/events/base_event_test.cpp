// What the daemon tells of itself, checked by the module that defines it.
#include "unit/edit/edit_fixture.h"
#include "ymgrd/datastore/ds_operation.h"
#include "ymgrd/notify/base_event.h"

namespace {

class base_event : public edit_fixture {
protected:
  base_event() { more_modules = {{"ietf-netconf-notifications", ""}}; }

  // The event's content behind its first tag; what is wrong with it when it is not valid against running.
  static std::string event(notification_kind_t kind, const base_notification_info_t &info)
  {
    std::string content;
    lyd_tree_ptr tree;
    lyd_node *notification = nullptr;
    if (base_event_build(kind, info, &content) != 0) {
      return "nothing built";
    }
    if (ds_parse_operation(content.c_str(), LYD_TYPE_NOTIF_YANG, &tree, &notification) != 0) {
      return std::string(ly_errmsg(notification->schema->module->ctx)) + " in " + content;
    }
    return content.substr(content.find('>') + 1);
  }
};

} // namespace

// Running holds all that is named: an instance-identifier must name something that exists.
TEST_F(base_event, changed_nodes_are_named_whatever_their_keys)
{
  const char config[] = "<top xmlns='urn:sample'><plain-list><k>it's/[1]</k></plain-list><rule><k>say \"x\"</k><n>,</n>"
                        "<v>1</v></rule><tag>back\\slash&lt;</tag><plain-list><k>'\"</k></plain-list></top>"
                        "<top-rule xmlns='urn:sample'><k>'\"</k></top-rule>";
  apply(ENUM_DATASTORE_RUNNING, {config});
  base_notification_info_t info;
  info.session_id = 7;
  info.username = "<root>";
  info.ipaddr = "2001:db8::1";
  info.datastore = ENUM_DATASTORE_RUNNING;
  info.edits = {{"/sample:top/plain-list[k=\"it's/[1]\"]", DBDIFF_ADD | DBDIFF_MOVE},
                {"/sample:top/rule[k=\"say \\\"x\\\"\",n=\",\"]/v", DBDIFF_MOD},
                {"/sample:top/tag[.=\"back\\\\slash<\"]", DBDIFF_REM},
                {"/sample:top/plain-list[k=\"'\\\"\"]/preset", DBDIFF_ADD},
                {"/sample:top-rule[k=\"'\\\"\"]", DBDIFF_REM},
                {"/sample:top", DBDIFF_CHAIN}};
  EXPECT_EQ(event(NCNTF_BASE_CFG_CHANGE, info),
            "<changed-by><username>&lt;root&gt;</username><session-id>7</session-id>"
            "<source-host>2001:db8::1</source-host></changed-by><datastore>running</datastore>"
            "<edit><target>/sample:top/sample:plain-list[sample:k=\"it's/[1]\"]</target>"
            "<operation>create</operation></edit>"
            "<edit><target>/sample:top/sample:rule[sample:k='say \"x\"'][sample:n=',']/sample:v</target>"
            "<operation>replace</operation></edit>"
            "<edit><target>/sample:top/sample:tag[.='back\\slash&lt;']</target><operation>delete</operation></edit>"
            // No instance-identifier can name these.
            "<edit><target>/sample:top</target><operation>merge</operation></edit>"
            "<edit><operation>merge</operation></edit>"
            "<edit><target>/sample:top</target><operation>merge</operation></edit></netconf-config-change>");
}

TEST_F(base_event, every_kind_fits_its_module)
{
  base_notification_info_t daemon;
  daemon.datastore = ENUM_DATASTORE_STARTUP;
  daemon.added_capabilities = {"urn:a?module=a&revision=2026-01-01"};
  daemon.modified_capabilities = {"urn:b?revision=2026-01-01"};
  EXPECT_EQ(event(NCNTF_BASE_CFG_CHANGE, daemon),
            "<changed-by><server/></changed-by><datastore>startup</datastore></netconf-config-change>");
  EXPECT_EQ(event(NCNTF_BASE_CPBLT_CHANGE, daemon),
            "<changed-by><server/></changed-by>"
            "<added-capability>urn:a?module=a&amp;revision=2026-01-01</added-capability>"
            "<modified-capability>urn:b?revision=2026-01-01</modified-capability></netconf-capability-change>");

  base_notification_info_t session;
  session.session_id = 3;
  EXPECT_EQ(event(NCNTF_BASE_SESSION_START, session), "<username/><session-id>3</session-id></netconf-session-start>");
  session.killed_by = 2;
  const char *const ends[] = {"closed", "killed", "dropped", "timeout", "bad-hello", "other", "other"};
  for (const char *reason : ends) {
    std::string killer = session.termination_reason == NC_SESSION_TERM_KILLED ? "<killed-by>2</killed-by>" : "";
    EXPECT_EQ(event(NCNTF_BASE_SESSION_END, session), "<username/><session-id>3</session-id>" + killer +
                                                          "<termination-reason>" + reason +
                                                          "</termination-reason></netconf-session-end>");
    session.termination_reason++;
  }
  EXPECT_EQ(event(NCNTF_GENERIC, session), "nothing built");
}
