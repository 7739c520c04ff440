#include "bench_document.h"

namespace {

constexpr char BEGIN[] = "<bench xmlns=\"urn:ex-bench\">";
constexpr char END[] = "</bench>";
constexpr char BENCH_NAMESPACE[] = " xmlns=\"urn:ex-bench\">";
constexpr char PARTS_NAMESPACE[] = " xmlns=\"urn:ex-bench-parts\">";

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

std::string bench_parts_module()
{
  std::string text = "module ex-bench-parts { yang-version 1.1; namespace \"urn:ex-bench-parts\"; prefix p;\n"
                     "revision 2026-01-01;\n"
                     "grouping part { leaf value { type uint32; } }\n"
                     "container parts {\n";
  for (int i = 0; i < BENCH_PARTS; ++i) {
    text += "container part-" + std::to_string(i) + " { uses part; }\n";
  }
  return text + "container state { config false; leaf text { type string; } }\n}\n"
                "rpc echo { input { leaf text { type string; } } output { leaf text { type string; } } }\n"
                "notification happened { leaf number { type uint32; } leaf text { type string; } }\n}\n";
}

std::string bench_part_path(int part)
{
  return "/ex-bench-parts:parts/part-" + std::to_string(part);
}

std::string bench_parts_edit(int first, int last, unsigned value)
{
  std::string text = std::string("<parts") + PARTS_NAMESPACE;
  for (int i = first; i <= last; ++i) {
    text += leaf(("part-" + std::to_string(i)).c_str(), leaf("value", std::to_string(value)));
  }
  return bench_edit(text + "</parts>");
}

std::string bench_parts_state()
{
  return std::string("<parts") + PARTS_NAMESPACE + leaf("state", leaf("text", BENCH_PARTS_WORDS)) + "</parts>";
}

std::string bench_parts_echo()
{
  return std::string("<echo") + PARTS_NAMESPACE + leaf("text", BENCH_PARTS_WORDS) + "</echo>";
}

std::string bench_parts_echoed()
{
  return std::string("<text") + PARTS_NAMESPACE + BENCH_PARTS_WORDS + "</text>";
}

std::string bench_word(int entry, unsigned value)
{
  return "word-" + std::to_string(entry) + "-" + std::to_string(value);
}

std::string bench_words_edit(const std::string &list, int first, int last, unsigned value)
{
  std::string entries;
  for (int i = first; i <= last; ++i) {
    entries += leaf(list.c_str(), leaf("name", entry_name(i)) + leaf("word", bench_word(i, value)));
  }
  return bench_edit(std::string("<accounts") + BENCH_NAMESPACE + entries + "</accounts>");
}

std::string bench_words_filter(const std::string &list)
{
  return std::string("<accounts") + BENCH_NAMESPACE + "<" + list + "/></accounts>";
}

std::string bench_words_filter(const std::string &list, int entry)
{
  return std::string("<accounts") + BENCH_NAMESPACE + leaf(list.c_str(), leaf("name", entry_name(entry))) +
         "</accounts>";
}

std::string bench_event(long number)
{
  return std::string("<happened") + PARTS_NAMESPACE + leaf("number", std::to_string(number)) +
         leaf("text", BENCH_PARTS_WORDS) + "</happened>";
}

std::string bench_event_filter()
{
  return std::string("<happened") + PARTS_NAMESPACE + leaf("text", BENCH_PARTS_WORDS) + "</happened>";
}
