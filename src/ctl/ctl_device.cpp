#include "ctl/ctl_device.h"

ctl_device::ctl_device(std::string run_dir, ctl_output_t output) : run_dir_(std::move(run_dir)), output_(output) {}

ctl_device::~ctl_device() = default;

int ctl_device::rpc(const std::string &operation, std::string *ret_reply)
{
  return try_rpc(operation, ret_reply);
}

int ctl_device::try_rpc(const std::string &, std::string *)
{
  return ctl_fail(output_, CTL_UNREACHABLE, "not there yet");
}

ymgr_client_t *ctl_device::client()
{
  return connect() == CTL_OK ? client_.get() : nullptr;
}

void ctl_device::disconnect()
{
  client_.reset();
  session_id_ = 0;
}

const ly_ctx *ctl_device::schema()
{
  return nullptr;
}

const std::vector<ctl_module_t> &ctl_device::modules()
{
  return modules_;
}

int ctl_device::connect()
{
  return CTL_UNREACHABLE;
}
