#include "ctl/ctl_operations.h"

#include <initializer_list>

#include "client/client.h"

namespace {

template <class TEXT = std::string>
TEXT joined(std::initializer_list<std::string_view> parts)
{
  size_t size = 0;
  for (std::string_view part : parts) {
    size += part.size();
  }
  TEXT text;
  text.reserve(size);
  for (std::string_view part : parts) {
    text.append(part);
  }
  return text;
}

std::string lock_operation(std::string_view name, std::string_view datastore)
{
  return joined({"<", name, "><target><", datastore, "/></target></", name, ">"});
}

// An element that is left out without text.
std::string option_element(std::string_view name, std::string_view text)
{
  return text.empty() ? "" : joined({"<", name, ">", text, "</", name, ">"});
}

} // namespace

std::string ctl_subtree_filter(std::string_view content)
{
  return content.empty() ? "" : joined({"<filter type=\"subtree\">", content, "</filter>"});
}

std::string ctl_get(std::string_view selection)
{
  return joined({"<get>", ctl_subtree_filter(selection), "</get>"});
}

std::string ctl_get_config(std::string_view datastore, std::string_view selection)
{
  return joined({"<get-config><source><", datastore, "/></source>", ctl_subtree_filter(selection), "</get-config>"});
}

std::string ctl_get_daemon(std::string_view selection)
{
  return ctl_get(joined({"<daemon xmlns=\"", YMGR_DAEMON_NAMESPACE, "\">", selection, "</daemon>"}));
}

std::string ctl_get_candidate_state()
{
  return ctl_get_daemon("<datastore><name>candidate</name><pending-changes/><lock-holder/></datastore>");
}

std::string ctl_get_capability()
{
  return joined({"<get-capability xmlns=\"", YMGR_DAEMON_NAMESPACE, "\"/>"});
}

std::string ctl_copy_config(std::string_view source, std::string_view target)
{
  return joined({"<copy-config><target><", target, "/></target><source><", source, "/></source></copy-config>"});
}

wiped_string ctl_replace_config(std::string_view target, std::string_view config)
{
  return joined<wiped_string>(
      {"<copy-config><target><", target, "/></target><source><config>", config, "</config></source></copy-config>"});
}

std::string ctl_lock(std::string_view datastore)
{
  return lock_operation("lock", datastore);
}

std::string ctl_unlock(std::string_view datastore)
{
  return lock_operation("unlock", datastore);
}

std::string ctl_kill_session(unsigned id)
{
  return joined({"<kill-session><session-id>", std::to_string(id), "</session-id></kill-session>"});
}

wiped_string ctl_edit_config(std::string_view target, std::string_view config, const ctl_edit_options_t &options)
{
  return joined<wiped_string>(
      {"<edit-config><target><", target, "/></target>", option_element("default-operation", options.default_operation),
       option_element("test-option", options.test), option_element("error-option", options.on_error), "<config>",
       config, "</config></edit-config>"});
}
