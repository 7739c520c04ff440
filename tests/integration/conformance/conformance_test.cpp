// Runs the case files: each folder below cases/ is a test suite with a daemon of its own, each file in it a test.
#include <cctype>
#include <filesystem>
#include <map>
#include <set>

#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include "conformance_case.h"
#include "support/daemon_test.h"

namespace {

namespace fs = std::filesystem;
using support::child_elements;
using support::netconf_session;
using support::siblings;

constexpr int RUNNING_DB = 4;
constexpr char BASE_NS[] = "urn:ietf:params:xml:ns:netconf:base:1.0";
// Prefixes of `select`.
constexpr std::pair<const char *, const char *> select_prefixes[] = {
    {"sys", "urn:ex-sys"}, {"ext", "urn:ex-ext"}, {"path", "urn:ex-path"}};

// What the cases of a suite share.
struct device_t {
  device_t()
  {
    fs::copy(fs::path(CONFORMANCE_CASES) / "../ex-path.yang", daemon.modules_dir());
    daemon.options().modules.push_back({"ex-ext"});
    daemon.options().modules.push_back({"ex-path"});
    daemon.options().profile["notification"] =
        R"({"db-enabled": true, "streams": [{"name": "NETCONF", "replay": true}, {"name": "other \"one\""}]})";
  }
  support::temp_dir dir;
  support::redis_server redis{dir.path()};
  support::daemon_process daemon{dir.path(), redis.socket_path()};
};

std::unique_ptr<device_t> device;

std::string print(const xmlNode *node)
{
  const char *own = node->ns == nullptr ? "" : reinterpret_cast<const char *>(node->ns->href);
  return support::normalize(node, own, siblings::by_name);
}

// Data nodes, those of one name in the order in which they come.
std::string print_data(const std::vector<const xmlNode *> &nodes)
{
  std::map<std::string, std::string> texts;
  for (const xmlNode *node : nodes) {
    texts[node_name(node)] += support::normalize(node, "", siblings::by_name);
  }
  std::string all;
  for (const auto &[name, text] : texts) {
    all += text;
  }
  return all;
}

// The children of <rpc-error> by name.
std::map<std::string, std::string> error_fields(const xmlNode *error)
{
  std::map<std::string, std::string> fields;
  for (const xmlNode *field : child_elements(error)) {
    fields[node_name(field)] += print(field);
  }
  return fields;
}

// The nodes of the reply's <data> that `select` names, or a text of why there are none.
std::string selected(xmlDoc *reply, const std::string &select)
{
  typedef std::unique_ptr<xmlXPathContext, void (*)(xmlXPathContext *)> context_ptr;
  typedef std::unique_ptr<xmlXPathObject, void (*)(xmlXPathObject *)> object_ptr;
  auto text = [](const char *chars) { return reinterpret_cast<const xmlChar *>(chars); };
  const xmlNode *root = reply == nullptr ? nullptr : xmlDocGetRootElement(reply);
  std::vector<const xmlNode *> children = root == nullptr ? std::vector<const xmlNode *>() : child_elements(root);
  if (children.size() != 1 || node_name(children.front()) != "data") {
    return "(no data)";
  }
  context_ptr context(xmlXPathNewContext(reply), xmlXPathFreeContext);
  for (const auto &[prefix, ns] : select_prefixes) {
    xmlXPathRegisterNs(context.get(), text(prefix), text(ns));
  }
  context->node = const_cast<xmlNode *>(children.front());
  object_ptr found(xmlXPathEval(text(select.c_str()), context.get()), xmlXPathFreeObject);
  if (found == nullptr || found->type != XPATH_NODESET) {
    return "(no path: " + select + ")";
  }
  std::vector<const xmlNode *> nodes;
  for (int i = 0; i < xmlXPathNodeSetGetLength(found->nodesetval); i++) {
    nodes.push_back(xmlXPathNodeSetItem(found->nodesetval, i));
  }
  return print_data(nodes);
}

bool is_good_name(const std::string &name)
{
  auto is_good = [](unsigned char c) { return std::islower(c) != 0 || std::isdigit(c) != 0 || c == '_'; };
  return !name.empty() && std::all_of(name.begin(), name.end(), is_good);
}

class conformance : public testing::Test {
public:
  explicit conformance(std::string path) : path_(std::move(path)) {}

protected:
  static void SetUpTestSuite() { device = std::make_unique<device_t>(); }
  static void TearDownTestSuite()
  {
    EXPECT_TRUE(!device->daemon.running() || device->daemon.stop());
    EXPECT_EQ(device->daemon.log_text().find("Sanitizer"), std::string::npos) << device->daemon.log_tail();
    device.reset();
  }
  void TestBody() override;
  void TearDown() override;

private:
  testing::AssertionResult empty_datastores();
  netconf_session &session(const std::string &name);
  std::string with_session_ids(std::string text);
  std::string read(const std::string &datastore);
  void perform(const conformance_step_t &step);
  void request(const conformance_step_t &step);
  void compare(const conformance_step_t &step, const std::string &reply);
  void compare_error(const xmlNode *expected, const xmlNode *found, std::string *differences);
  static void forget_kept_tree();
  void close(const std::string &name);
  void expect_ended(const conformance_step_t &step);

  std::string path_;
  std::map<std::string, netconf_session> sessions_; // by the names in the case; "" looks at the datastores
};

netconf_session &conformance::session(const std::string &name)
{
  return sessions_.try_emplace(name, device->daemon.run_dir()).first->second;
}

// The sessions of the case before may still hold locks for a moment: asked until it works.
testing::AssertionResult conformance::empty_datastores()
{
  const std::string nc = std::string(" xmlns:nc=\"") + BASE_NS + "\" nc:operation=\"remove\"/>";
  std::string config;
  for (const char *top : {"system", "services", "routes"}) {
    config += "<" + std::string(top) + " xmlns=\"urn:ex-sys\"" + nc;
  }
  config += "<paths xmlns=\"urn:ex-path\"" + nc;
  testing::AssertionResult done = testing::AssertionFailure();
  auto empty = [&] {
    done = session("").ok(support::DISCARD_CHANGES);
    done = done ? session("").ok(support::edit_config("running", config)) : done;
    done = done ? session("").ok("<delete-config><target><startup/></target></delete-config>") : done;
    return static_cast<bool>(done) || !device->daemon.running();
  };
  support::wait_until(empty, std::chrono::seconds(5));
  return done;
}

// "{session b}" in requests and replies is the id of session b.
std::string conformance::with_session_ids(std::string text)
{
  const std::string begin = "{session ";
  for (size_t at = text.find(begin); at != std::string::npos; at = text.find(begin, at)) {
    size_t end = text.find('}', at);
    std::string name = text.substr(at + begin.size(), end - at - begin.size());
    text.replace(at, end - at + 1, std::to_string(session(name).id()));
  }
  return text;
}

std::string conformance::read(const std::string &datastore)
{
  return session("").rpc(support::get_config(datastore));
}

void conformance::compare_error(const xmlNode *expected, const xmlNode *found, std::string *differences)
{
  std::map<std::string, std::string> fields = error_fields(found);
  for (const char *always : {"error-type", "error-tag", "error-severity"}) {
    *differences += fields.count(always) == 0 ? "no <" + std::string(always) + ">\n" : "";
  }
  for (const auto &[name, text] : error_fields(expected)) {
    if (fields[name] != with_session_ids(text)) {
      *differences += "<" + name + ">\n";
    }
  }
}

// Elements that the protocol defines are written without namespace in cases.
void conformance::compare(const conformance_step_t &step, const std::string &reply)
{
  support::xml_document_ptr document = support::parse_xml(reply, support::xml_blanks::kept);
  const xmlNode *root = document == nullptr ? nullptr : xmlDocGetRootElement(document.get());
  std::string differences;
  if (step.kind == step_kind::datastore) {
    std::string expected = print_data(child_elements(step.expect));
    differences = selected(document.get(), attribute(step.expect, "select")) == expected ? "" : "data\n";
  } else if (root == nullptr || node_name(root) != "rpc-reply" || root->ns == nullptr ||
             std::string(BASE_NS) != reinterpret_cast<const char *>(root->ns->href)) {
    differences = "no <rpc-reply>\n";
  } else {
    std::vector<const xmlNode *> expected = child_elements(step.expect);
    bool is_whole = node_name(expected.front()) == "rpc-reply";
    std::vector<const xmlNode *> found = is_whole ? std::vector<const xmlNode *>{root} : child_elements(root);
    differences = found.size() == expected.size() ? "" : "number of elements\n";
    for (size_t i = 0; i < std::min(found.size(), expected.size()); i++) {
      if (node_name(expected[i]) == "rpc-error" && node_name(found[i]) == "rpc-error") {
        compare_error(expected[i], found[i], &differences);
      } else if (with_session_ids(print(expected[i])) != print(found[i])) {
        differences += "<" + node_name(expected[i]) + ">\n";
      }
    }
  }
  if (!differences.empty()) {
    std::string expected = with_session_ids(support::normalize(step.expect, "", siblings::by_name));
    ADD_FAILURE_AT(path_.c_str(), step.line) << "differs in: " << differences << "--- sent\n"
                                             << step.request << "\n--- reply\n"
                                             << support::normalize(reply, siblings::by_name) << "--- expected\n"
                                             << expected;
  }
}

// A write of another process: the daemon's next answer comes from Redis.
void conformance::forget_kept_tree()
{
  device->redis.command(RUNNING_DB, {"SET", "of-another-process", "x"});
  device->redis.command(RUNNING_DB, {"DEL", "of-another-process"});
}

// A refused request must have left every datastore as it was.
void conformance::request(const conformance_step_t &step)
{
  auto contents = [this] {
    std::string all;
    for (const char *datastore : {"running", "candidate", "startup"}) {
      all += support::reply_data(read(datastore), siblings::by_name);
    }
    return all;
  };
  bool is_refused = node_name(child_elements(step.expect).front()) == "rpc-error";
  std::string before = is_refused ? contents() : "";
  netconf_session &sender = session(step.session);
  std::string text = with_session_ids(step.request);
  auto send = [&] { return step.is_raw ? ymgr_request(sender.client(), text).value_or("") : sender.rpc(text); };
  compare(step, send());
  if (node_name(child_elements(step.expect).front()) == "data") {
    forget_kept_tree();
    compare(step, send());
  }
  if (is_refused && before != contents()) {
    ADD_FAILURE_AT(path_.c_str(), step.line) << "the refused request has changed a datastore";
  }
}

void conformance::close(const std::string &name)
{
  std::string line = "Session " + std::to_string(session(name).id()) + " exit.";
  size_t logged = device->daemon.log_text().rfind(line);
  sessions_.erase(name);
  EXPECT_TRUE(support::wait_until([&] { return device->daemon.log_text().rfind(line) != logged; }));
}

void conformance::expect_ended(const conformance_step_t &step)
{
  if (!support::is_closed_by_daemon(session(step.session).client())) {
    ADD_FAILURE_AT(path_.c_str(), step.line) << "session " << step.session << " was not ended";
  }
  sessions_.erase(step.session);
}

void conformance::perform(const conformance_step_t &step)
{
  switch (step.kind) {
  case step_kind::request:
    return request(step);
  case step_kind::datastore:
    compare(step, read(attribute(step.expect, "name")));
    forget_kept_tree();
    return compare(step, read(attribute(step.expect, "name")));
  case step_kind::close:
    return close(step.session);
  case step_kind::ended:
    return expect_ended(step);
  case step_kind::restart:
    sessions_.clear();
    ASSERT_TRUE(device->daemon.restart());
  }
}

void conformance::TestBody()
{
  conformance_case_t test_case;
  ASSERT_TRUE(load_case(path_, &test_case));
  ASSERT_TRUE(device->daemon.running() || device->daemon.start());
  ASSERT_TRUE(empty_datastores());
  if (!test_case.start.empty()) {
    ASSERT_TRUE(session("").ok(support::edit_config("running", test_case.start)));
  }
  for (const conformance_step_t &step : test_case.steps) {
    perform(step);
    if (HasFailure()) { // what follows would only tell of the same fault again
      return;
    }
  }
}

void conformance::TearDown()
{
  for (const auto &[name, session] : sessions_) {
    std::optional<ymgr_frame_t> frame;
    do { // notifications are no replies
      frame = session.client() == nullptr ? std::nullopt : ymgr_receive(session.client(), std::chrono::milliseconds(0));
    } while (frame && frame->seq == 0);
    EXPECT_FALSE(frame) << "session " << name << " was sent more than its replies";
  }
  if (HasFailure() && device->daemon.running()) { // the next case starts from scratch
    device->daemon.kill_now();
    device->redis.command(0, {"FLUSHALL"});
  }
}

void register_cases(const fs::path &cases)
{
  std::set<fs::path> paths; // sorted
  for (const fs::directory_entry &entry : fs::recursive_directory_iterator(cases)) {
    if (!entry.is_directory()) {
      paths.insert(entry.path());
    }
  }
  for (const fs::path &path : paths) {
    std::string suite = path.parent_path().filename();
    std::string name = path.stem();
    if (path.extension() != ".xml" || path.parent_path().parent_path() != cases || !is_good_name(suite + name)) {
      throw std::runtime_error(path.string() + " is no SECTION/NAME.xml of lower case letters, digits and _");
    }
    testing::RegisterTest(suite.c_str(), name.c_str(), nullptr, nullptr, path.c_str(), 1,
                          [path]() -> conformance * { return new conformance(path); });
  }
}

} // namespace

int main(int argc, char **argv)
{
  register_cases(CONFORMANCE_CASES);
  testing::InitGoogleTest(&argc, argv);
  int failures = RUN_ALL_TESTS();
  bool has_run = testing::UnitTest::GetInstance()->test_to_run_count() > 0 || testing::GTEST_FLAG(list_tests);
  return has_run ? failures : 1;
}
