// What the daemon's data offer for completion.
#include <algorithm>
#include <memory>
#include <set>

#include <libxml/xmlreader.h>

#include "ctl/ctl_complete_path.h"
#include "ctl/ctl_operations.h"

namespace {

constexpr ymgr_duration PATIENCE{2000}; // of somebody who has pressed a key
constexpr size_t MOST_VALUES = 1000;

// Adds the texts of the elements at the path's depth that have its last name. The filter has selected nothing else
// there.
void read_values(const std::string &reply, const ctl_path_t &path, std::string_view prefix,
                 std::vector<std::string> *values)
{
  std::unique_ptr<xmlTextReader, void (*)(xmlTextReader *)> reader(
      xmlReaderForMemory(reply.data(), static_cast<int>(reply.size()), nullptr, nullptr,
                         XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_HUGE),
      xmlFreeTextReader);
  const std::string_view name = path.back().schema->name;
  const int depth = static_cast<int>(path.size()) + 1; // below <rpc-reply> and <data>
  std::set<std::string> seen(values->begin(), values->end());
  while (reader != nullptr && values->size() < MOST_VALUES && xmlTextReaderRead(reader.get()) == 1) {
    if (xmlTextReaderNodeType(reader.get()) != XML_READER_TYPE_ELEMENT || xmlTextReaderDepth(reader.get()) != depth ||
        name != reinterpret_cast<const char *>(xmlTextReaderConstLocalName(reader.get()))) {
      continue;
    }
    std::unique_ptr<xmlChar, void (*)(void *)> text(xmlTextReaderReadString(reader.get()), xmlFree);
    std::string value = text == nullptr ? "" : reinterpret_cast<const char *>(text.get());
    if (value.starts_with(prefix) && seen.insert(value).second) {
      values->push_back(std::move(value));
    }
  }
}

void ask(ctl_device &device, const std::string &operation, const ctl_path_t &path, std::string_view prefix,
         std::vector<std::string> *values)
{
  ymgr_client_t *client = device.client();
  std::optional<std::string> reply = client == nullptr ? std::nullopt : ymgr_rpc(client, operation, PATIENCE);
  if (reply && reply->size() <= INT32_MAX) {
    read_values(*reply, path, prefix, values);
  }
}

} // namespace

std::vector<std::string> ctl_find_values(ctl_device &device, const ctl_path_t &path, std::string_view prefix)
{
  std::vector<std::string> values;
  const std::string selection = ctl_filter(path);
  if ((path.back().schema->flags & LYS_CONFIG_W) == 0) {
    ask(device, ctl_get(selection), path, prefix, &values);
    return values;
  }
  for (const char *source : {"running", "candidate"}) {
    ask(device, ctl_get_config(source, selection), path, prefix, &values);
  }
  return values;
}

std::vector<std::string> ctl_find_candidate_values(ctl_device &device, const ctl_path_t &path)
{
  std::vector<std::string> values;
  ask(device, ctl_get_config("candidate", ctl_filter(path)), path, "", &values);
  return values;
}
