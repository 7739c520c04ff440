#include "ctl/ctl_commit.h"

#include "ctl/ctl_operations.h"
#include "ctl/ctl_reply.h"

int ctl_commit(ctl_device &device)
{
  const int result = device.rpc(CTL_COMMIT);
  if (result != CTL_REFUSED) {
    return result;
  }
  // What the daemon itself refuses stays in candidate, to be mended. What a plugin refuses does not.
  std::string reply;
  (void)device.try_rpc(ctl_get_candidate_state(), &reply); // without an answer nothing more is said
  if (const std::optional<ctl_candidate_state_t> candidate = ctl_read_candidate_state(reply)) {
    (void)ctl_fail(device.output(), result,
                   candidate->has_changes ? "nothing was committed; candidate still holds the changes"
                                          : "the changes were given up; candidate is as running again");
  }
  return result;
}
