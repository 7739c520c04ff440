#include "ymgrd/schema/schema_operations.h"

#include <iterator>

#include "ymgrd/broker/broker.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/rpc/rpc_reply.h"
#include "ymgrd/schema/schema_internal.h"
#include "ymgrd/ymgrd.h"

namespace {

int add_capabilities(lyxml_elem *reply)
{
  lyxml_elem *capabilities = lyxml_new_elem(reply, "capabilities", nullptr);
  if (capabilities == nullptr) {
    log_error("Create children node <capabilities> failed.");
    return -1;
  }
  if (lyxml_set_elem_ns(capabilities, YMGRD_PRIVATE_NS, nullptr) != 0) {
    log_error("Create namepsace failed.");
    return -1;
  }
  int size = context_list_size("LIST-cpblt");
  for (int i = 0; i < size; i++) {
    const auto *capability = static_cast<const char *>(context_get_list_entry("LIST-cpblt", i));
    if (capability != nullptr && lyxml_new_elem(capabilities, "capability", capability) == nullptr) {
      log_error("Create child node <capability>(%.512s) failed.", capability);
    }
  }
  return 0;
}

} // namespace

int oper_get_capability(int session_id, const char *, lyxml_elem *rpc)
{
  lyxml_ptr reply = rpc_build_reply(rpc);
  if (reply == nullptr) {
    log_error("Build reply faild.");
  }
  if (reply == nullptr || add_capabilities(reply.get()) != 0) {
    return rpc_answer_error(session_id, rpc, rpc_make_error(REPLY_ERR_OP_FAILED, "The capabilities cannot be listed."));
  }
  return rpc_send_reply(session_id, reply.get());
}

int schema_reg_operation()
{
  const oper_registration_t operations[] = {{"zentra-ymgrd:get-capability", oper_get_capability}};
  const char *failed = nullptr;
  if (broker_reg_inside_operations(operations, static_cast<int>(std::size(operations)), &failed) != 0) {
    log_error("Schema register operation %s callback failed.", failed);
    return -1;
  }
  return 0;
}

// Here, and not beside schema_exit, because the registration needs the broker, which stands above the look-ups.
int schema_init(int stage)
{
  if (stage == STAGE_RESOURCE) {
    return schema_create_lists();
  }
  if (stage == STAGE_CONFIG) {
    return schema_load_yang() != 0 ? -1 : schema_reg_operation();
  }
  return 0;
}
