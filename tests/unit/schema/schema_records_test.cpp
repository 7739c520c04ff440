// The records of all nodes, byte for byte. What is expected stands in records/*.txt: a line for each key, below it one
// for each field: name, kind, type of a leaf, flags, "=" and default. Where a further table of a case has the same
// field, it wins; "-" takes the field away.
#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>

#include "schema_fixture.h"
#include "ymgrd/schema/schema_record.h"

using namespace std::string_literals;

namespace {

using content_t = std::map<std::pair<std::string, std::string>, std::string>; // key and field, to the record

std::string big_endian(uint32_t number, int bytes)
{
  std::string text;
  while (bytes-- > 0) {
    text += static_cast<char>(number >> (8 * bytes));
  }
  return text;
}

std::string encode(std::istringstream &words)
{
  const std::map<std::string, uint32_t> kinds = {
      {"container", 1U << 21}, {"leaf", 2U << 21},    {"leaf-list", 3U << 21},     {"list", 4U << 21},
      {"choice", 5U << 21},    {"case", 6U << 21},    {"rpc", 0x20E00000},         {"input", 8U << 21},
      {"output", 9U << 21},    {"anyxml", 11U << 21}, {"notification", 0x11400000}};
  const std::map<std::string, uint32_t> flags = {
      {"ro", 0x80000000}, {"status", 0x40000000}, {"mandatory", 0x08000000}, {"presence", 0x04000000}};
  std::string kind, type, word, dflt;
  words >> kind;
  uint32_t word0 = 0x80000000 | kinds.at(kind);
  if (kind.starts_with("leaf")) {
    words >> type;
  }
  while (words >> word && word != "=") {
    word0 ^= flags.at(word);
  }
  std::getline(words >> std::ws, dflt);
  uint32_t type_size = static_cast<uint32_t>(type.size());
  uint32_t dflt_size = static_cast<uint32_t>(dflt.size());
  std::string head = big_endian(word0, 4) + std::string(10, '\0');
  if (kind == "leaf") {
    return head + big_endian(1, 2) + big_endian(type_size + 2, 2) + big_endian(type_size + dflt_size + 3, 2) + "\0"s +
           type + "\0"s + dflt + "\0"s;
  }
  if (kind == "leaf-list") {
    return head + big_endian(1, 2) + big_endian(0, 2) + big_endian(type_size + 2, 2) + "\0"s + type + "\0"s;
  }
  if (kind == "choice") {
    return head + big_endian(0, 2) + big_endian(1, 2) + big_endian(dflt_size + 2, 2) + "\0"s + dflt + "\0"s;
  }
  return head + std::string(7, '\0');
}

content_t expected(const std::vector<std::string> &tables)
{
  content_t content;
  for (const std::string &table : tables) {
    std::istringstream lines(support::read_file(RECORDS_DIR "/" + table + ".txt"));
    std::string line, key, field;
    while (std::getline(lines, line)) {
      if (line.starts_with("/")) {
        key = line;
        continue;
      }
      std::istringstream words(line);
      words >> field;
      if (line.ends_with(" -")) {
        content.erase({key, field});
      } else {
        content[{key, field}] = encode(words);
      }
    }
  }
  return content;
}

// The samples when ex-ext is not loaded.
content_t without_ext()
{
  content_t content = expected({"required", "samples"});
  std::erase_if(content, [](const auto &entry) {
    return (entry.first.first + entry.first.second).find("ex-ext:") != std::string::npos;
  });
  return content;
}

class schema_records : public schema_fixture {
protected:
  void SetUp() override
  {
    schema_fixture::SetUp();
    for (const char *folder : {EXAMPLES_DIR, RECORDS_DIR}) {
      std::filesystem::copy(folder, dir / "modules");
    }
  }

  content_t stored()
  {
    content_t content;
    for (const std::string &key : redis.command(0, {"KEYS", "/?*"})) {
      std::vector<std::string> texts = redis.command(0, {"HGETALL", key});
      for (size_t i = 0; i + 1 < texts.size(); i += 2) {
        content[{key, texts[i]}] = texts[i + 1];
      }
    }
    return content;
  }

  // What is on one side only, both when they differ.
  testing::AssertionResult holds(const content_t &wanted)
  {
    content_t found = stored();
    content_t missing, unwanted;
    std::set_difference(wanted.begin(), wanted.end(), found.begin(), found.end(),
                        std::inserter(missing, missing.end()));
    std::set_difference(found.begin(), found.end(), wanted.begin(), wanted.end(),
                        std::inserter(unwanted, unwanted.end()));
    return wanted.size() > 100 && missing.empty() && unwanted.empty()
               ? testing::AssertionSuccess()
               : testing::AssertionFailure() << "missing: " << testing::PrintToString(missing)
                                             << "\nunwanted: " << testing::PrintToString(unwanted);
  }

  int write_commands() // that reached the server so far
  {
    int writes = 0;
    for (const char *command : {"hset", "hdel", "unlink", "exec"}) {
      std::string stats = redis.command(0, {"INFO", "commandstats"}).front();
      size_t at = stats.find("cmdstat_"s + command + ":calls=");
      writes += at == std::string::npos ? 0 : std::stoi(stats.substr(stats.find('=', at) + 1));
    }
    return writes;
  }

  const model_config_t types = {"ex-types", "2026-01-01", {}, {}};
  const model_config_t sys = {"ex-sys", "2026-01-01", {}, {}};
  const model_config_t deviated_sys = {"ex-sys", "2026-01-01", {"*"}, {"ex-sys-dev"}};
  const model_config_t ext = {"ex-ext", "2026-01-01", {}, {}};
  const model_config_t kinds = {"kinds", "2026-01-01", {"on"}, {}};
  const model_config_t kinds_more = {"kinds-more", "2026-01-01", {}, {}};
  const model_config_t kinds_last = {"kinds-last", "2026-01-01", {}, {}};
};

} // namespace

TEST(schema_record, all_flags_have_their_bits_and_the_data_has_its_longest)
{
  std::string record;
  conf_mnode_schema_t node;
  node.node_type = CONF_NODE_LEAF;
  node.type_name = "uint8";
  node.config = false;
  node.status = node.rpc = node.notification = node.mandatory = node.precense = true;
  ASSERT_EQ(0, schema_encode_record(node, &record));
  EXPECT_EQ("\x7c\x40\0\0"s + std::string(10, '\0') + "\0\x01\0\x07\0\x08\0uint8\0\0"s, record);

  node.default_text.assign(32767 - 8, 'x');
  ASSERT_EQ(0, schema_encode_record(node, &record));
  EXPECT_EQ("\x7f\xff"s, record.substr(18, 2));
  node.default_text += 'x';
  const std::string before = record;
  EXPECT_EQ(-1, schema_encode_record(node, &record));
  EXPECT_EQ(before, record);
}

TEST_F(schema_records, database_follows_the_profile)
{
  const content_t samples = expected({"required", "samples"});
  const struct {
    std::vector<model_config_t> profile;
    content_t content;
  } steps[] = {
      {{types, sys, ext}, samples},
      {{types, deviated_sys, ext}, expected({"required", "samples", "samples-changed"})},
      {{types, sys}, without_ext()},
      {{sys, ext}, samples},
      {{kinds, kinds_more, kinds_last}, expected({"required", "kinds"})},
      {{sys}, without_ext()},
  };
  for (const auto &step : steps) {
    SCOPED_TRACE(&step - steps);
    ASSERT_EQ(0, load(step.profile));
    EXPECT_TRUE(holds(step.content));
    std::set<std::string> modules = {"ietf-netconf", "ietf-netconf-notifications", "zentra-ymgrd", "notifications",
                                     "nc-notifications"};
    for (const model_config_t &module : step.profile) {
      modules.insert({module.name, module.name == sys.name ? types.name : module.name}); // what it imports, too
      modules.insert(module.deviation.begin(), module.deviation.end());
    }
    std::vector<std::string> stored = redis.command(0, {"HKEYS", "/"});
    EXPECT_EQ(modules, std::set(stored.begin(), stored.end()));
    int writes = write_commands();
    ASSERT_EQ(0, load(step.profile));
    EXPECT_EQ(writes, write_commands()) << "an unchanged profile writes nothing";
  }
}

TEST_F(schema_records, module_that_comes_anew_keeps_what_others_added_to_it)
{
  ASSERT_EQ(0, load({types, sys, ext}));
  int writes = write_commands();
  std::string file = dir / "modules/ex-sys.yang";
  std::string text = support::read_file(file);
  text.replace(text.find("revision 2026-01-01"), 19, "revision 2026-07-07");
  text.replace(text.find("leaf location"), 13, "leaf standing");
  support::write_file(file, text);
  ASSERT_EQ(0, load({types, sys, ext}));
  content_t content = expected({"required", "samples"});
  content[{"/ex-sys/system", "standing"}] = content[{"/ex-sys/system", "location"}];
  content.erase({"/ex-sys/system", "location"});
  EXPECT_TRUE(holds(content));
  EXPECT_EQ(writes + 4, write_commands()) << "out, in, the module's own record, EXEC";
  EXPECT_EQ("2026-07-07", stored_record("ex-sys").substr(0, 10));
}

TEST_F(schema_records, damage_is_repaired_and_what_is_not_the_schemas_stays)
{
  ASSERT_EQ(0, load({types, sys, ext}));
  const std::vector<std::string> modules = redis.command(0, {"HGETALL", "/"});
  content_t content = expected({"required", "samples"});
  // Modules that are gone, with names that are parts of others or patterns; records that are wrong, lost, left over.
  std::istringstream planted("/ ex  / ex-sys-more  / *  / ex-sys  /ex a  /ex/a[] ex-sys:b  /ex-sys-more a "
                             "/ex-sys/system ex:a  /ex-sys/system/ex:a b  /ex-sys/system hostname  /ex-sys/system left "
                             "/ex-sys/system/ex-ext:ntp unknown:left  /ex-sys/left/unknown:over x");
  for (std::string key, field; planted >> key >> field;) {
    redis.command(0, {"HSET", key, field, "rubbish"});
  }
  redis.command(0, {"HDEL", "/ex-sys/system/user[]", "uid", "ex-ext:quota"});
  redis.command(0, {"DEL", "/ex-sys/routes"});
  // Of no module that ever was in the database.
  for (const std::string &key : {"/e"s, "/ex-sy/system"s, "//ex-sys"s}) {
    redis.command(0, {"HSET", key, "ex-sys:field", "foreign"});
    content[{key, "ex-sys:field"}] = "foreign";
  }
  ASSERT_EQ(0, load({types, sys, ext}));
  EXPECT_TRUE(holds(content));
  std::vector<std::string> repaired = redis.command(0, {"HGETALL", "/"});
  EXPECT_EQ(std::multiset(modules.begin(), modules.end()), std::multiset(repaired.begin(), repaired.end()));
}

TEST_F(schema_records, module_that_cannot_be_saved_is_not_half_in_the_database)
{
  ASSERT_EQ(0, load({types, sys, ext}));
  redis.command(0, {"HDEL", "/ex-sys/system/mode", "ex-ext:ppp"});
  redis.command(0, {"DEL", "/ex-sys/system/ex-ext:ntp"});
  redis.command(0, {"SET", "/ex-sys/system/ex-ext:ntp", "no hash"});
  ASSERT_EQ(0, load({types, sys, ext}));
  EXPECT_TRUE(logged("[ERROR] hash set error\n") && logged("[WARN] Save module ex-ext to schema-db failed\n")) << log;
  EXPECT_TRUE(holds(without_ext()));
  EXPECT_EQ("", stored_record("ex-ext"));
  EXPECT_EQ(0, announced("urn:ex-ext?revision=2026-01-01&module=ex-ext"));
  ASSERT_EQ(0, load({types, sys, ext}));
  EXPECT_TRUE(holds(expected({"required", "samples"})));
  EXPECT_EQ(1, announced("urn:ex-ext?revision=2026-01-01&module=ex-ext"));
}
