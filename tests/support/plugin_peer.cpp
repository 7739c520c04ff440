#include "support/plugin_peer.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "support/netconf_session.h"

namespace support {

namespace {

constexpr size_t HEAD_SIZE = 12;

std::string element(const std::string &name, const std::string &content)
{
  return "<" + name + ">" + content + "</" + name + ">";
}

// The markup between the first <name> and the last </name>; empty for <name/>.
std::string content_of(const std::string &xml, const std::string &name)
{
  size_t begin = xml.find("<" + name + ">");
  size_t end = xml.rfind("</" + name + ">");
  return begin == std::string::npos || end == std::string::npos
             ? ""
             : xml.substr(begin + name.size() + 2, end - begin - name.size() - 2);
}

} // namespace

std::string plugin_call_t::change() const
{
  return find_text(xml, "oper-type").value_or("?") + " " + find_text(xml, "path").value_or("?");
}

plugin_peer::plugin_peer(const std::string &run_dir, const std::string &name) : name_(name)
{
  sock_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, (run_dir + "/plugin.sock").c_str(), sizeof(address.sun_path) - 1);
  EXPECT_EQ(connect(sock_, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0) << std::strerror(errno);
}

plugin_peer::plugin_peer(plugin_peer &&other) noexcept
    : name_(std::move(other.name_)), registration_(std::move(other.registration_)),
      is_registered_(other.is_registered_), sock_(std::exchange(other.sock_, -1)), last_id_(other.last_id_),
      buffer_(std::move(other.buffer_)), waiting_(std::move(other.waiting_))
{
}

plugin_peer::~plugin_peer()
{
  die();
}

plugin_peer &plugin_peer::config(const std::string &path, int priority)
{
  std::string number = std::to_string(priority);
  registration_ +=
      element("config-subscribe", element("path", path) + element("priority", number) + element("callback", number));
  return *this;
}

plugin_peer &plugin_peer::status(const std::string &path)
{
  registration_ += element("status-publish", element("path", path) + element("callback", "1"));
  return *this;
}

plugin_peer &plugin_peer::operation(const std::string &path)
{
  registration_ += element("operate-subscribe", element("path", path) + element("callback", "1"));
  return *this;
}

std::string plugin_peer::register_now()
{
  is_registered_ = true;
  return request("register", element("plugin-name", name_) + registration_);
}

std::string plugin_peer::activate(const std::string &wishes)
{
  std::string fault = is_registered_ ? "" : register_now();
  return fault.empty() ? request("activate", wishes) : fault;
}

std::vector<std::string> plugin_peer::start(const std::string &wishes)
{
  EXPECT_EQ(activate(wishes), "");
  std::vector<std::string> changes;
  while (true) {
    plugin_call_t call = next();
    accept(call);
    if (call.method != "publish") {
      EXPECT_EQ(call.method, "kickoff");
      return changes;
    }
    changes.push_back(call.change());
  }
}

plugin_call_t plugin_peer::next(std::chrono::milliseconds timeout)
{
  if (waiting_.empty()) {
    return receive(timeout).value_or(plugin_call_t{});
  }
  plugin_call_t call = std::move(waiting_.front());
  waiting_.pop_front();
  return call;
}

void plugin_peer::accept(const plugin_call_t &call, const std::string &result)
{
  send_text(element("reply", element("result", result) + element("id", std::to_string(call.id))), call.id);
}

void plugin_peer::refuse(const plugin_call_t &call, int code, const std::string &message)
{
  std::string error = element("code", std::to_string(code)) + element("message", message);
  send_text(element("reply", element("error", error) + element("id", std::to_string(call.id))), call.id);
}

std::string plugin_peer::take()
{
  plugin_call_t call = next();
  accept(call);
  return call.method == "publish" ? call.change() : call.method;
}

std::string plugin_peer::request(const std::string &method, const std::string &params)
{
  int id = last_id_ = last_id_ % UINT16_MAX + 1;
  send_text(element("rpc", element("method", method) + element("params", params) + element("id", std::to_string(id))),
            id);
  while (std::optional<plugin_call_t> call = receive(DEADLINE)) {
    if (!call->method.empty()) {
      waiting_.push_back(std::move(*call));
    } else if (call->id == id) { // others answer what a test sent by hand
      bool is_error = call->xml.find("<error>") != std::string::npos;
      return is_error ? "ERROR " + find_text(call->xml, "message").value_or("") : content_of(call->xml, "result");
    }
  }
  return "ERROR no reply";
}

std::string plugin_peer::pull(const std::string &path, bool old)
{
  return request("pull", element("path", path) + element("old", old ? "1" : "0"));
}

void plugin_peer::send_text(const std::string &xml, int id)
{
  send_raw(ymgr_frame(xml, static_cast<uint16_t>(id))); // agents and plugins have the same frames
}

void plugin_peer::send_raw(const std::string &bytes)
{
  for (size_t sent = 0; sent < bytes.size();) {
    ssize_t count = send(sock_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) {
      return; // the daemon has ended the connection, which the test then sees
    }
    sent += static_cast<size_t>(count);
  }
}

void plugin_peer::die()
{
  if (sock_ >= 0) {
    close(sock_);
    sock_ = -1;
  }
}

bool plugin_peer::is_cut_off()
{
  return wait_until([this] {
    char bytes[4096];
    ssize_t count = recv(sock_, bytes, sizeof(bytes), MSG_DONTWAIT);
    return count == 0 || (count < 0 && errno != EAGAIN);
  });
}

// A reply has no method.
std::optional<plugin_call_t> plugin_peer::receive(std::chrono::milliseconds timeout)
{
  while (true) {
    uint32_t length = 0;
    if (buffer_.size() >= HEAD_SIZE) {
      std::memcpy(&length, buffer_.data() + 4, sizeof(length));
    }
    if (buffer_.size() >= HEAD_SIZE && buffer_.size() >= HEAD_SIZE + length) {
      plugin_call_t call;
      call.xml = buffer_.substr(HEAD_SIZE, length);
      buffer_.erase(0, HEAD_SIZE + length);
      call.id = std::stoi(find_text(call.xml, "id").value_or("0"));
      call.method = call.xml.starts_with("<rpc>") ? find_text(call.xml, "method").value_or("?") : "";
      return call;
    }
    if (sock_ < 0) {
      return std::nullopt;
    }
    pollfd ready = {sock_, POLLIN, 0};
    char bytes[65536];
    int is_ready = poll(&ready, 1, static_cast<int>(timeout.count()));
    ssize_t count = is_ready > 0 ? recv(sock_, bytes, sizeof(bytes), 0) : is_ready;
    if (count < 0 && errno == EINTR) {
      continue; // a fuzzer has timers
    }
    if (count <= 0) {
      return std::nullopt;
    }
    buffer_.append(bytes, static_cast<size_t>(count));
  }
}

} // namespace support
