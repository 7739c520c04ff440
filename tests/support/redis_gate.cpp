#include "support/redis_gate.h"

#include <charconv>
#include <set>
#include <stdexcept>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace support {

namespace {

// What is not named here may change data.
const std::set<std::string, std::less<>> reading_commands = {
    "CLIENT", "DBSIZE", "DISCARD", "EXISTS", "HEXISTS", "HGET", "HGETALL", "HKEYS",    "INFO",      "KEYS", "LINDEX",
    "LLEN",   "LPOS",   "LRANGE",  "MULTI",  "PING",    "SCAN", "SELECT",  "SMEMBERS", "SUBSCRIBE", "TYPE"};

sockaddr_un address_of(const std::string &path)
{
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  return address;
}

int connect_to(const std::string &path)
{
  sockaddr_un address = address_of(path);
  int sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (sock >= 0 && connect(sock, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
    close(sock);
    return -1;
  }
  return sock;
}

int listen_on(const std::string &path)
{
  sockaddr_un address = address_of(path);
  int sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (sock < 0 || bind(sock, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
      listen(sock, SOMAXCONN) != 0) {
    throw std::runtime_error("cannot listen on " + path);
  }
  return sock;
}

// Appends what is there without waiting. False at the end of the connection.
bool receive(int sock, std::string *bytes)
{
  char chunk[65536];
  ssize_t got = 0;
  while ((got = recv(sock, chunk, sizeof(chunk), MSG_DONTWAIT)) > 0) {
    bytes->append(chunk, static_cast<size_t>(got));
  }
  return got < 0 && errno == EAGAIN;
}

bool send_bytes(int sock, std::string *bytes, int flags)
{
  while (!bytes->empty()) {
    ssize_t sent = send(sock, bytes->data(), bytes->size(), MSG_NOSIGNAL | flags);
    if (sent < 0) {
      return errno == EAGAIN;
    }
    bytes->erase(0, static_cast<size_t>(sent));
  }
  return true;
}

// Reads "MARK number CR LF" at `*at`. False when it is not there whole.
bool take_number(std::string_view bytes, char mark, size_t *at, size_t *ret_number)
{
  size_t end = bytes.find("\r\n", *at);
  if (end == std::string_view::npos || bytes[*at] != mark) {
    return false;
  }
  std::from_chars(bytes.data() + *at + 1, bytes.data() + end, *ret_number);
  *at = end + 2;
  return true;
}

// The length of the command at the front of `bytes`; 0 when it is not complete yet.
size_t parse_command(std::string_view bytes, std::vector<std::string> *ret_words)
{
  size_t at = 0;
  size_t count = 0;
  if (!take_number(bytes, '*', &at, &count)) {
    return 0;
  }
  std::vector<std::string> words;
  for (size_t i = 0; i < count; i++) {
    size_t length = 0;
    if (!take_number(bytes, '$', &at, &length) || bytes.size() < at + length + 2) {
      return 0;
    }
    words.emplace_back(bytes.substr(at, length));
    at += length + 2;
  }
  *ret_words = std::move(words);
  return at;
}

} // namespace

redis_gate::connection_t::~connection_t()
{
  close(daemon);
  close(server);
}

redis_gate::redis_gate(const std::string &dir, const std::string &server_socket)
    : socket_path_(dir + "/gate.sock"), server_path_(server_socket), listener_(listen_on(socket_path_)),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), thread_([this] { run(); })
{
}

redis_gate::~redis_gate()
{
  {
    std::lock_guard lock(mutex_);
    ending_ = true;
  }
  wake();
  thread_.join();
  close(listener_);
  close(wake_);
}

void redis_gate::wake() const
{
  (void)eventfd_write(wake_, 1); // only fails when it is awake already
}

void redis_gate::watch(size_t hold_before)
{
  std::lock_guard lock(mutex_);
  writes_.clear();
  hold_before_ = hold_before;
}

bool redis_gate::held()
{
  std::lock_guard lock(mutex_);
  return held_;
}

std::vector<redis_write_t> redis_gate::writes()
{
  std::lock_guard lock(mutex_);
  return writes_;
}

void redis_gate::open()
{
  std::lock_guard lock(mutex_);
  for (connection_t &connection : connections_) {
    shutdown(connection.server, SHUT_WR);
    char dropped[65536];
    while (recv(connection.server, dropped, sizeof(dropped), 0) > 0) { // the server closes when it is done
    }
  }
  connections_.clear();
  hold_before_ = NEVER;
  held_ = false;
  wake();
}

void redis_gate::wait_for_traffic()
{
  std::vector<pollfd> waited = {{wake_, POLLIN, 0}};
  {
    std::lock_guard lock(mutex_);
    if (!held_) {
      waited.push_back({listener_, POLLIN, 0});
      for (const connection_t &connection : connections_) {
        short room = connection.to_daemon.empty() ? 0 : POLLOUT;
        waited.push_back({connection.daemon, static_cast<short>(POLLIN | room), 0});
        waited.push_back({connection.server, POLLIN, 0});
      }
    }
  }
  (void)poll(waited.data(), waited.size(), -1); // whatever it says: all are tried
  eventfd_t count = 0;
  (void)eventfd_read(wake_, &count);
}

void redis_gate::run()
{
  while (true) {
    wait_for_traffic();
    std::lock_guard lock(mutex_);
    if (ending_) {
      connections_.clear();
      return;
    }
    if (!held_) {
      accept_all();
    }
    for (auto connection = connections_.begin(); connection != connections_.end() && !held_;) {
      connection = pump(&*connection) ? std::next(connection) : connections_.erase(connection);
    }
  }
}

void redis_gate::accept_all()
{
  int daemon = -1;
  while ((daemon = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0) {
    int server = connect_to(server_path_);
    if (server < 0) {
      close(daemon); // as if nobody listened
      continue;
    }
    connections_.emplace_back(daemon, server);
  }
}

bool redis_gate::pump(connection_t *connection)
{
  bool daemon_lives = receive(connection->daemon, &connection->unparsed);
  take_commands(connection);
  // The server always reads, so waiting for it is safe; the daemon may be writing itself.
  if (!send_bytes(connection->server, &connection->to_server, 0) || !daemon_lives || held_) {
    return held_;
  }
  bool server_lives = receive(connection->server, &connection->to_daemon);
  return send_bytes(connection->daemon, &connection->to_daemon, MSG_DONTWAIT) && server_lives;
}

void redis_gate::take_commands(connection_t *connection)
{
  size_t taken = 0;
  while (true) {
    std::string_view rest = std::string_view(connection->unparsed).substr(taken);
    std::vector<std::string> words;
    size_t length = parse_command(rest, &words);
    if (length == 0 || !passes(connection, std::move(words))) {
      break;
    }
    connection->to_server.append(rest.substr(0, length));
    taken += length;
  }
  connection->unparsed.erase(0, taken);
}

bool redis_gate::passes(connection_t *connection, std::vector<std::string> words)
{
  const std::string &name = words.front();
  if (name == "MULTI" || name == "EXEC" || name == "DISCARD") {
    connection->in_multi = name == "MULTI";
  }
  if (name == "SELECT") {
    connection->db = std::stoi(words.at(1));
  }
  if (connection->in_multi || reading_commands.contains(name)) {
    return true;
  }
  if (writes_.size() == hold_before_) {
    held_ = true;
    return false;
  }
  writes_.push_back({connection->db, std::move(words)});
  return true;
}

} // namespace support
