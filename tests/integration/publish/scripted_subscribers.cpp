// Subscribers of configuration inside the daemon, driven by files of the directory YMGR_SCRIPT_DIR. They are named by
// "subscribers" (lines "PRIORITY PATH"); every offer is appended to "offers" ("PRIORITY CODE MORE PATH") and answered
// by the first line of "answers" that fits ("PRIORITY CODE ANSWER PATH": refuse or wait). Who publishes state is asked
// by the same file, with 0 for priority and code. A wait ends within about a second after the file "go" appeared.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "ymgrd/broker/broker.h"

namespace {

std::string file(const char *name)
{
  return std::getenv("YMGR_SCRIPT_DIR") + std::string("/") + name;
}

std::string answer_to(int priority, int code, const std::string &path)
{
  std::ifstream answers(file("answers"));
  int for_priority = 0;
  int for_code = 0;
  std::string answer;
  std::string for_path;
  while (answers >> for_priority >> for_code >> answer >> for_path) {
    if (for_priority == priority && for_code == code && for_path == path) {
      return answer;
    }
  }
  return "accept";
}

} // namespace

extern "C" {

int __real__Z11broker_initi(int stage);
int __wrap__Z11broker_initi(int stage);
int __wrap__Z21plugin_publish_configiPK20_plugin_publish_infoPi(int, const plugin_publish_info_t *info, int *status);
int __real__Z23plugin_subscribe_statusiPK21_plugin_subscibe_infoPi(int, const plugin_subscibe_info_t *info,
                                                                   int *status);
int __wrap__Z23plugin_subscribe_statusiPK21_plugin_subscibe_infoPi(int, const plugin_subscibe_info_t *info,
                                                                   int *status);
void __wrap__Z14plugin_timeoutv(void);

int __wrap__Z11broker_initi(int stage)
{
  int result = __real__Z11broker_initi(stage);
  std::ifstream subscribers(stage == STAGE_CONFIG ? file("subscribers") : std::string());
  int priority = 0;
  std::string path;
  while (subscribers >> priority >> path) {
    result |= broker_reg_config_subscriber(nullptr, path.c_str(), priority, {});
  }
  return result;
}

int __wrap__Z21plugin_publish_configiPK20_plugin_publish_infoPi(int, const plugin_publish_info_t *info, int *status)
{
  const auto &item = info->config;
  std::ofstream(file("offers"), std::ios::app)
      << item.priority << ' ' << item.oper_type << ' ' << item.more_flag << ' ' << item.path << std::endl;
  std::string answer = answer_to(item.priority, item.oper_type, item.path);
  *status = answer == "wait" ? SUBPUB_WAIT : answer == "refuse" ? SUBPUB_ERROR : SUBPUB_CONTINUE;
  if (answer == "refuse") {
    (void)broker_save_error(42, ("refused by " + std::to_string(item.priority)).c_str());
  }
  return 0;
}

int __wrap__Z23plugin_subscribe_statusiPK21_plugin_subscibe_infoPi(int id, const plugin_subscibe_info_t *info,
                                                                   int *status)
{
  if (answer_to(0, 0, info->path) != "wait") {
    return __real__Z23plugin_subscribe_statusiPK21_plugin_subscibe_infoPi(id, info, status);
  }
  std::ofstream(file("offers"), std::ios::app) << "state " << info->path << std::endl;
  *status = SUBPUB_WAIT;
  return 0;
}

void __wrap__Z14plugin_timeoutv(void)
{
  if (!std::filesystem::remove(file("go"))) {
    return;
  }
  if (broker_is_publish_over() == -1) {
    broker_publish_continue(0);
  } else {
    broker_subscribe_continue(0);
  }
}
}
