#include "bench_plugin_peer.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include "bench_document.h"
#include "libconf/plugin_message.h"

namespace {

std::string element(const char *name, std::string_view content)
{
  return std::string("<") + name + ">" + std::string(content) + "</" + name + ">";
}

// The text of the first element of that name; empty when there is none. The daemon prints names without attributes.
std::string_view text_in(std::string_view xml, std::string_view name)
{
  const std::string tag = "<" + std::string(name) + ">";
  size_t begin = xml.find(tag);
  if (begin == std::string_view::npos) {
    return {};
  }
  begin += tag.size();
  return xml.substr(begin, xml.find('<', begin) - begin);
}

// The id stands at the end, behind data of any size.
std::string_view id_of(std::string_view xml)
{
  constexpr std::string_view TAG = "<id>";
  size_t begin = xml.rfind(TAG);
  return begin == std::string_view::npos ? std::string_view() : text_in(xml.substr(begin), "id");
}

int number_of(std::string_view text)
{
  int number = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() ? number : -1;
}

int told(const char *what, std::string_view detail)
{
  std::fprintf(stderr, "ymgr-bench: plugin: %s: %.*s\n", what, static_cast<int>(std::min<size_t>(detail.size(), 500)),
               detail.data());
  return -1;
}

} // namespace

bench_plugin::~bench_plugin()
{
  if (sock_ >= 0) {
    close(sock_);
  }
}

int bench_plugin::connect_to(const std::string &run_dir)
{
  const std::string path = run_dir + "/plugin.sock";
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    return told("path too long", path);
  }
  std::memcpy(address.sun_path, path.c_str(), path.size());
  sock_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (sock_ < 0 || connect(sock_, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
    return told("no connection", std::strerror(errno));
  }
  return 0;
}

int bench_plugin::register_as(const std::string &name, bench_plugin_role_t role)
{
  role_ = std::move(role);
  std::string params = element("plugin-name", name);
  for (size_t i = 0; i < role_.config.size(); ++i) {
    params += element("config-subscribe", element("path", role_.config[i]) + element("priority", "10") +
                                              element("callback", std::to_string(i)));
  }
  if (!role_.status.empty()) {
    params += element("status-publish", element("path", role_.status) + element("callback", "0"));
  }
  if (!role_.operation.empty()) {
    params += element("operate-subscribe", element("path", role_.operation) + element("callback", "0"));
  }
  std::string result;
  return ask("register", params, &result);
}

int bench_plugin::activate(bool is_restored)
{
  std::string result;
  if (ask("activate", is_restored ? "<with-cfgr/>" : "", &result) != 0) {
    return -1;
  }
  // The kickoff may have come together with the reply.
  while (answer_received() == 0 && !is_kicked_off_) {
    if (receive() != 0) {
      return -1;
    }
  }
  if (!is_kicked_off_) {
    return -1;
  }
  // Messages of one connection are worked off in order: with this reply, the answer to the kickoff has been seen.
  return pull(bench_part_path(0), &result);
}

int bench_plugin::ask(const std::string &method, const std::string &params, std::string *ret_result)
{
  last_id_ = last_id_ % UINT16_MAX + 1;
  const std::string id = std::to_string(last_id_);
  if (send_message(element("rpc", element("method", method) + element("params", params) + element("id", id)),
                   last_id_) != 0) {
    return -1;
  }
  while (true) {
    std::string message;
    int found = next_message(&message);
    if (found < 0 || (found == 0 && receive() != 0)) {
      return -1;
    }
    if (found == 0) {
      continue;
    }
    if (message.starts_with("<rpc>")) {
      if (answer(message) != 0) {
        return -1;
      }
      continue;
    }
    if (id_of(message) != id || message.starts_with("<reply><error>")) {
      return told(method.c_str(), message);
    }
    constexpr std::string_view BEGIN = "<reply><result>";
    constexpr std::string_view END = "</result>";
    size_t end = message.rfind(END);
    *ret_result = message.starts_with(BEGIN) && end != std::string::npos
                      ? message.substr(BEGIN.size(), end - BEGIN.size())
                      : std::string();
    return 0;
  }
}

int bench_plugin::pull(const std::string &path, std::string *ret_data)
{
  return ask("pull", element("path", path) + element("old", "0"), ret_data);
}

int bench_plugin::serve()
{
  return receive() != 0 ? -1 : answer_received();
}

int bench_plugin::answer_received()
{
  std::string message;
  int found = next_message(&message);
  for (; found > 0; found = next_message(&message)) {
    if (!message.starts_with("<rpc>")) {
      return told("a reply to nothing", message);
    }
    if (answer(message) != 0) {
      return -1;
    }
  }
  return found;
}

std::vector<bench_change_t> bench_plugin::take_changes()
{
  return std::exchange(changes_, {});
}

int bench_plugin::receive()
{
  char bytes[65536];
  ssize_t count = recv(sock_, bytes, sizeof(bytes), 0);
  if (count <= 0) {
    return told("the connection has ended", count == 0 ? "" : std::strerror(errno));
  }
  received_.append(bytes, static_cast<size_t>(count));
  return 0;
}

int bench_plugin::next_message(std::string *ret_text)
{
  plugin_msg_head_t head = {};
  if (received_.size() - read_ < sizeof(head)) {
    return 0;
  }
  std::memcpy(&head, received_.data() + read_, sizeof(head));
  if (head.magic != PLUGIN_MSG_MAGIC) {
    return told("no frame", "");
  }
  if (received_.size() - read_ - sizeof(head) < head.length) {
    received_.reserve(read_ + sizeof(head) + head.length);
    return 0;
  }
  ret_text->assign(received_, read_ + sizeof(head), head.length);
  read_ += sizeof(head) + head.length;
  if (read_ == received_.size()) {
    received_.clear();
    read_ = 0;
  }
  return 1;
}

int bench_plugin::send_message(std::string_view text, int id)
{
  plugin_msg_head_t head = {PLUGIN_MSG_MAGIC, static_cast<uint32_t>(text.size()), static_cast<uint16_t>(id), 0};
  std::string frame(reinterpret_cast<const char *>(&head), sizeof(head));
  frame += text;
  for (size_t sent = 0; sent < frame.size();) {
    ssize_t count = send(sock_, frame.data() + sent, frame.size() - sent, MSG_NOSIGNAL);
    if (count < 0) {
      return told("not sent", std::strerror(errno));
    }
    sent += static_cast<size_t>(count);
  }
  return 0;
}

int bench_plugin::answer(const std::string &request)
{
  std::string result;
  const std::string_view method = text_in(request, "method");
  if (method == "publish") {
    if (answer_publish(request, &result) != 0) {
      return -1;
    }
  } else if (method == "subscribe") {
    result = role_.state;
  } else if (method == "kickoff") {
    is_kicked_off_ = true;
  } else {
    return told("unknown method", request);
  }
  const std::string_view id = id_of(request);
  return send_message(element("reply", element("result", result) + element("id", id)), number_of(id));
}

int bench_plugin::answer_publish(const std::string &request, std::string *ret_result)
{
  if (text_in(request, "type") == "operate") {
    *ret_result = role_.output;
    return 0;
  }
  bench_change_t change = {number_of(text_in(request, "callback")), std::string(text_in(request, "path"))};
  if (role_.pulls) {
    std::string data;
    if (pull(change.path, &data) != 0) {
      return -1;
    }
    if (data.empty()) {
      return told("nothing at the changed path", change.path);
    }
  }
  changes_.push_back(std::move(change));
  return 0;
}

bench_plugin_host::~bench_plugin_host()
{
  (void)pause(); // whoever wanted to know has asked before
}

int bench_plugin_host::start(const std::string &run_dir, int count, const bench_plugin_role_t &role)
{
  for (int i = 0; i < count; ++i) {
    auto plugin = std::make_unique<bench_plugin>();
    if (plugin->connect_to(run_dir) != 0 || plugin->register_as("bench-" + std::to_string(i), role) != 0 ||
        plugin->activate(false) != 0) {
      return -1;
    }
    plugins_.push_back(std::move(plugin));
  }
  resume();
  return 0;
}

int bench_plugin_host::start_on(const std::vector<int> &socks)
{
  for (int sock : socks) {
    plugins_.push_back(std::make_unique<bench_plugin>());
    plugins_.back()->adopt(sock);
  }
  resume();
  return 0;
}

void bench_plugin_host::resume()
{
  wake_ = eventfd(0, EFD_CLOEXEC);
  thread_ = std::thread([this] { serve(); });
}

int bench_plugin_host::pause()
{
  if (thread_.joinable()) {
    eventfd_write(wake_, 1);
    thread_.join();
    close(wake_);
  }
  return has_failed_ ? -1 : 0;
}

void bench_plugin_host::serve()
{
  std::vector<pollfd> ready;
  for (const auto &plugin : plugins_) {
    ready.push_back({plugin->sock(), POLLIN, 0});
  }
  ready.push_back({wake_, POLLIN, 0});
  while (true) {
    if (poll(ready.data(), ready.size(), -1) < 0) {
      has_failed_ = true;
      return;
    }
    bool is_idle = true;
    for (size_t i = 0; i < plugins_.size(); ++i) {
      if (ready[i].revents == 0) {
        continue;
      }
      is_idle = false;
      if (plugins_[i]->serve() != 0) {
        has_failed_ = true;
        plugins_.clear(); // the daemon is not to wait for any of them
        return;
      }
    }
    if (is_idle && ready.back().revents != 0) {
      return; // what was sent before the wake-up has been answered
    }
  }
}
