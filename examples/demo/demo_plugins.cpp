#include "demo_plugins.h"

#include <cstdio>
#include <fstream>
#include <sstream>

#include "demo_xml.h"

namespace {

std::string read_file(const std::string &path)
{
  std::ifstream file(path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

void show_file(const std::string &path)
{
  std::printf("   %s:\n", path.c_str());
  std::istringstream text(read_file(path));
  for (std::string line; std::getline(text, line);) {
    std::printf("      %s\n", line.c_str());
  }
}

bool holds(const std::string &path, const std::string &part)
{
  return read_file(path).find(part) != std::string::npos;
}

void apply(demo_t *demo, const std::string &hostname, const std::string &resolver)
{
  begin_step(demo, "commit: plugins bring the device to what was committed");
  (void)edit_candidate(demo,
                       R"(<system xmlns="urn:ex-device-system"><hostname>gw-north</hostname>)"
                       R"(<dns><search>example.net</search><search>example.org</search></dns></system>)"
                       R"(<firewall xmlns="urn:ex-firewall"><default-policy>drop</default-policy>)"
                       R"(<rule><name>ssh</name><action>accept</action><protocol>tcp</protocol><port>22</port></rule>)"
                       R"(<rule><name>web</name><action>accept</action><protocol>tcp</protocol><port>443</port></rule>)"
                       "</firewall>");
  expect(demo, is_ok(ask(demo, "<commit/>")), "both plugins accept");
  show_file(hostname);
  show_file(resolver);
  expect(demo, holds(hostname, "gw-north"), "the host's name is in its file");
  expect(demo, holds(resolver, "example.net example.org"), "the search list is in the resolver's file");
}

void reorder(demo_t *demo, const std::string &rules)
{
  begin_step(demo, "commit: an entry of a user-ordered list moves");
  (void)edit_candidate(demo, R"(<firewall xmlns="urn:ex-firewall" xmlns:yang="urn:ietf:params:xml:ns:yang:1">)"
                             R"(<rule yang:insert="first"><name>web</name></rule></firewall>)");
  expect(demo, is_ok(ask(demo, "<commit/>")), "the plugin accepts");
  show_file(rules);
  std::string text = read_file(rules);
  expect(demo, text.find("443") < text.find("22"), "the rules of the file stand in the new order");
}

void refuse(demo_t *demo, const std::string &hostname, const std::string &rules)
{
  begin_step(demo, "commit: one plugin refuses, the other takes back what it did");
  const std::string rules_before = read_file(rules);
  (void)edit_candidate(demo, R"(<system xmlns="urn:ex-device-system"><hostname>gw-south</hostname></system>)"
                             R"(<firewall xmlns="urn:ex-firewall"><rule><name>odd</name><action>drop</action>)"
                             "<protocol>icmp</protocol><port>7</port></rule></firewall>");
  std::string reply = ask(demo, "<commit/>");
  expect(demo, demo_text(reply, {"rpc-error", "error-message"}).find("odd") != std::string::npos,
         "the plugin's message names the rule");
  expect(demo, demo_text(reply, {"rpc-error", "error-info"}).find("(plugin firewall)") != std::string::npos,
         "the error names the plugin");
  expect(demo, holds(hostname, "gw-north"), "the host's name is what it was");
  expect(demo, read_file(rules) == rules_before, "so are the rules");
  expect(demo, demo_text(get_config(demo, "running"), {"data", "firewall", "rule", "name"}) == "web",
         "running has not changed");
}

void ask_plugins(demo_t *demo)
{
  begin_step(demo, "get and operations: plugins supply state and implement rpcs");
  std::string state = ask(demo, R"(<get><filter type="subtree"><system xmlns="urn:ex-device-system"><state/></system>)"
                                R"(<firewall xmlns="urn:ex-firewall"><state/></firewall></filter></get>)");
  expect(demo, !demo_text(state, {"data", "system", "state", "uptime"}).empty(), "the kernel's uptime is there");
  expect(demo, demo_text(state, {"data", "firewall", "state", "rule-count"}) == "2", "the firewall counts its rules");
  std::string verdict = ask(demo, R"(<lookup xmlns="urn:ex-firewall"><protocol>tcp</protocol><port>22</port>)"
                                  "<source>192.0.2.1</source><destination>192.0.2.2</destination></lookup>");
  expect(demo, demo_text(verdict, {"rule"}) == "ssh", "the rule that decides is told");
}

} // namespace

void demo_plugins(demo_t *demo, const std::string &root)
{
  const std::string hostname = root + "/etc/hostname";
  const std::string rules = root + "/etc/ex-firewall.nft";
  apply(demo, hostname, root + "/etc/resolv.conf");
  reorder(demo, rules);
  refuse(demo, hostname, rules);
  ask_plugins(demo);
}
