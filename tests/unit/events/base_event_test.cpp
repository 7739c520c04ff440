// What the daemon tells of itself, checked by the module that defines it.
#include "unit/edit/edit_fixture.h"
#include "ymgrd/datastore/ds_operation.h"
#include "ymgrd/notify/base_event.h"

namespace {

class base_event : public edit_fixture {
protected:
  base_event() { more_modules = {{"ietf-netconf-notifications", ""}}; }

  // The event, when its notification admits it and running has what it names.
  static std::string valid_event(notification_kind_t kind, const base_notification_info_t &info)
  {
    std::string content;
    lyd_tree_ptr tree;
    lyd_node *notification = nullptr;
    EXPECT_EQ(base_event_build(kind, info, &content), 0);
    EXPECT_EQ(ds_parse_operation(content.c_str(), LYD_TYPE_NOTIF_YANG, &tree, &notification), 0) << content;
    return content;
  }
};

} // namespace

TEST_F(base_event, changed_nodes_are_named_whatever_their_keys)
{
  free_differ_tree(apply(ENUM_DATASTORE_RUNNING,
                         {"<top xmlns='urn:sample'><plain-list><k>it's/[1]</k></plain-list><rule><k>say \"x\"</k>"
                          "<n>,</n><v>1</v></rule><tag>back\\slash&lt;</tag></top>"})
                       .tree);
  base_notification_info_t info;
  info.session_id = 7;
  info.username = "<root>";
  info.edits = {{"/sample:top/plain-list[k=\"it's/[1]\"]", DBDIFF_ADD | DBDIFF_MOVE},
                {"/sample:top/rule[k=\"say \\\"x\\\"\",n=\",\"]/v", DBDIFF_MOD},
                {"/sample:top/tag[.=\"back\\\\slash<\"]", DBDIFF_REM},
                // No instance-identifier can name these.
                {"/sample:top/plain-list[k=\"'\\\"\"]/preset", DBDIFF_ADD},
                {"/sample:top-rule[k=\"'\\\"\"]", DBDIFF_REM}};
  std::string event = valid_event(NCNTF_BASE_CFG_CHANGE, info);
  EXPECT_EQ(event.substr(event.find("<edit>")),
            "<edit><target>/sample:top/sample:plain-list[sample:k=\"it's/[1]\"]</target>"
            "<operation>create</operation></edit>"
            "<edit><target>/sample:top/sample:rule[sample:k='say \"x\"'][sample:n=',']/sample:v</target>"
            "<operation>replace</operation></edit>"
            "<edit><target>/sample:top/sample:tag[.='back\\slash&lt;']</target><operation>delete</operation></edit>"
            "<edit><target>/sample:top</target><operation>merge</operation></edit>"
            "<edit><operation>merge</operation></edit></netconf-config-change>");
}

TEST_F(base_event, every_kind_fits_its_module)
{
  base_notification_info_t info; // of the daemon itself, and of a session without a user
  info.datastore = ENUM_DATASTORE_STARTUP;
  info.added_capabilities = info.modified_capabilities = {"urn:a?module=a&revision=2026-01-01", "urn:b"};
  info.killed_by = 2;
  for (int kind = NCNTF_BASE_CFG_CHANGE; kind < NCNTF_BASE_SESSION_END; kind++) {
    (void)valid_event(static_cast<notification_kind_t>(kind), info);
  }
  for (const char *reason : {"closed", "killed", "dropped", "timeout", "bad-hello", "other", "other"}) {
    std::string event = valid_event(NCNTF_BASE_SESSION_END, info);
    EXPECT_NE(event.find(std::string("<termination-reason>") + reason), std::string::npos) << event;
    info.termination_reason++;
  }
}
