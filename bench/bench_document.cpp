#include "bench_document.h"

namespace {

constexpr char BEGIN[] = "<bench xmlns=\"urn:ex-bench\">";
constexpr char END[] = "</bench>";

std::string entry_name(int entry)
{
  return "entry-" + std::to_string(1000000 + entry);
}

std::string leaf(const char *name, const std::string &value)
{
  return std::string("<") + name + ">" + value + "</" + name + ">";
}

} // namespace

std::string bench_document(int entries)
{
  static const char *const kinds[] = {"ethernet", "serial", "tunnel"};
  std::string text = BEGIN;
  for (int i = 0; i < entries; ++i) {
    text += "<entry>" + leaf("name", entry_name(i)) + leaf("description", "port " + std::to_string(i)) +
            leaf("address", "10." + std::to_string(i / 65536 % 256) + "." + std::to_string(i / 256 % 256) + "." +
                                std::to_string(i % 256)) +
            leaf("mtu", "1500") + leaf("enabled", i % 2 == 0 ? "true" : "false") + leaf("weight", std::to_string(i)) +
            leaf("kind", kinds[i % 3]) + "<unit>" + leaf("id", "0") + leaf("label", "u") + "</unit></entry>";
  }
  return text + END;
}

std::string bench_entry_filter(int entry)
{
  return BEGIN + std::string("<entry>") + leaf("name", entry_name(entry)) + "</entry>" + END;
}

std::string bench_edit(const std::string &config)
{
  return "<edit-config><target><candidate/></target><config>" + config + "</config></edit-config>";
}

std::string bench_one_leaf_edit(int entry, unsigned value)
{
  return bench_edit(BEGIN + std::string("<entry>") + leaf("name", entry_name(entry)) +
                    leaf("weight", std::to_string(value)) + "</entry>" + END);
}
