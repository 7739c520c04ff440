#include "libredisapi/redis_connection.h"

#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstring>

#include <poll.h>
#include <sys/time.h>
#include <sys/un.h>

#include "libconf/safe_string.h"

namespace {

constexpr timeval CONNECT_TIMEOUT = {5, 0};
constexpr timeval REPLY_TIMEOUT = {60, 0};
constexpr std::string_view TCP_SCHEME = "tcp:";

void (*g_log)(const char *text) = nullptr;
void (*g_on_connect)(rContext *connection) = nullptr;
uint64_t g_lost = 0;

redisContext *open_tcp(std::string_view host_and_port)
{
  size_t colon = host_and_port.rfind(':');
  int port = 0;
  if (colon == std::string_view::npos || colon == 0) {
    redis_log("Redis address (tcp:%.512s) is not tcp:HOST:PORT", std::string(host_and_port).c_str());
    return nullptr;
  }
  std::string host(host_and_port.substr(0, colon));
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2); // a bracketed IPv6 address
  }
  const char *end = host_and_port.data() + host_and_port.size();
  auto [rest, error] = std::from_chars(host_and_port.data() + colon + 1, end, port);
  if (error != std::errc() || rest != end || port <= 0 || port > 65535) {
    redis_log("Redis address (tcp:%.512s) has no valid port", std::string(host_and_port).c_str());
    return nullptr;
  }
  return redisConnectWithTimeout(host.c_str(), port, CONNECT_TIMEOUT);
}

redisContext *open_link(const std::string &address)
{
  if (address.compare(0, TCP_SCHEME.size(), TCP_SCHEME) == 0) {
    return open_tcp(std::string_view(address).substr(TCP_SCHEME.size()));
  }
  // hiredis cuts a longer path silently and then reports a missing file.
  if (address.empty() || address.size() >= sizeof(sockaddr_un::sun_path)) {
    redis_log("Redis socket path (%.512s) is empty or too long", address.c_str());
    return nullptr;
  }
  return redisConnectUnixWithTimeout(address.c_str(), CONNECT_TIMEOUT);
}

// An idle link that has something to read was closed by the server: nobody asked it anything.
bool link_is_alive(const redisContext *link)
{
  if (link == nullptr || link->err != 0) {
    return false;
  }
  pollfd idle = {link->fd, POLLIN, 0};
  return poll(&idle, 1, 0) == 0;
}

int select_on_link(rContext *connection, int db)
{
  redis_reply_ptr reply(static_cast<redisReply *>(redisCommand(connection->link.get(), "SELECT %d", db)));
  if (reply == nullptr) {
    redis_drop_link(connection, "SELECT");
    return -1;
  }
  if (redis_reply_is_error(reply.get())) {
    redis_log("Redis SELECT %d: %.512s", db, reply->str);
    return -1;
  }
  return 0;
}

int establish(rContext *connection)
{
  connection->link.reset(open_link(connection->address));
  connection->serial++;
  redisContext *link = connection->link.get();
  if (link == nullptr) {
    return -1;
  }
  if (link->err != 0 || redisSetTimeout(link, REPLY_TIMEOUT) != REDIS_OK) {
    redis_drop_link(connection, "connect");
    return -1;
  }
  if (connection->db != 0 && select_on_link(connection, connection->db) != 0) {
    connection->link.reset();
    return -1;
  }
  if (g_on_connect != nullptr) {
    g_on_connect(connection);
  }
  return connection->link != nullptr ? 0 : -1;
}

} // namespace

void redis_log(const char *format, ...)
{
  if (g_log == nullptr) {
    return;
  }
  char text[1024];
  va_list args;
  va_start(args, format);
  (void)vsnprintf(text, sizeof(text), format, args); // a cut line is still worth logging
  va_end(args);
  g_log(text);
}

void redis_drop_link(rContext *connection, const char *during)
{
  redisContext *link = connection->link.get();
  redis_log("Redis connection (%.256s) failed during %.64s: %.256s", connection->address.c_str(), during,
            link != nullptr && link->errstr[0] != '\0' ? link->errstr : strerror(errno));
  g_lost += link != nullptr && (link->flags & REDIS_CONNECTED) != 0 ? 1 : 0;
  connection->link.reset();
}

void redis_set_logger(void (*log)(const char *text))
{
  g_log = log;
}

void redis_set_connect_hook(void (*on_connect)(rContext *connection))
{
  g_on_connect = on_connect;
}

void redis_reply_free(redisReply *reply)
{
  if (reply != nullptr) {
    freeReplyObject(reply);
  }
}

void redis_freeconn(rContext *connection)
{
  delete connection;
}

rContext *redis_connect(const char *address)
{
  if (address == nullptr) {
    return nullptr;
  }
  auto connection = std::make_unique<rContext>();
  connection->address = address;
  if (establish(connection.get()) != 0) {
    return nullptr;
  }
  return connection.release(); // to the caller, who gives it to redis_freeconn
}

int redis_ensure_connected(rContext *connection)
{
  if (link_is_alive(connection->link.get())) {
    return 0;
  }
  g_lost += connection->link != nullptr ? 1 : 0;
  return establish(connection);
}

int redis_select(rContext *connection, int db)
{
  if (redis_ensure_connected(connection) != 0 || select_on_link(connection, db) != 0) {
    return -1;
  }
  connection->db = db;
  return 0;
}

uint64_t redis_lost_connections()
{
  return g_lost;
}

int redis_selected(const rContext *connection)
{
  return connection->db;
}

int redis_ping(rContext *connection)
{
  redis_reply_ptr reply = redis_command(connection, {"PING"});
  return reply != nullptr && !redis_reply_is_error(reply.get()) ? 0
                                                                : -1; // a server that loads its data answers -LOADING
}

bool redis_reply_is_error(const redisReply *reply)
{
  return reply->type == REDIS_REPLY_ERROR;
}

redis_reply_ptr redis_command(rContext *connection, const std::vector<std::string_view> &words)
{
  if (redis_ensure_connected(connection) != 0) {
    return nullptr;
  }
  std::vector<const char *> texts;
  std::vector<size_t> lengths;
  for (std::string_view word : words) {
    texts.push_back(word.data());
    lengths.push_back(word.size());
  }
  void *reply = redisCommandArgv(connection->link.get(), static_cast<int>(words.size()), texts.data(), lengths.data());
  if (reply == nullptr) {
    redis_drop_link(connection, std::string(words.front()).c_str());
  }
  return redis_reply_ptr(static_cast<redisReply *>(reply));
}
