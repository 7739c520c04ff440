#include "sdk/plugin_connection.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/un.h>

namespace {

using steady_clock = std::chrono::steady_clock;

constexpr char SOCKET_NAME[] = "plugin.sock";
constexpr int SHORTEST_BACKOFF_MS = 100;
constexpr int LONGEST_BACKOFF_MS = 5000;
constexpr int REPLY_TIMEOUT_MS = 10000;
constexpr size_t READ_SIZE = 16384;
constexpr size_t KEPT_BUFFER = 65536; // a longer one is given back once it is empty
// The daemon has one request at a time with a plugin; a new one follows only when that is answered or overdue.
constexpr size_t MOST_REQUESTS = 64;

// --- Descriptors.

void arm_timer(sdk_connection_t *connection, int milliseconds) // 0: off
{
  itimerspec when = {};
  when.it_value = {milliseconds / 1000, (milliseconds % 1000) * 1'000'000L};
  (void)timerfd_settime(connection->timer.get(), 0, &when, nullptr); // fails for invalid arguments only
}

// Empties a timerfd or eventfd. Whether it had fired.
bool drain(int fd)
{
  uint64_t count = 0;
  return read(fd, &count, sizeof(count)) == static_cast<ssize_t>(sizeof(count));
}

void raise_alarm(const sdk_connection_t *connection)
{
  uint64_t one = 1;
  (void)!write(connection->alarm.get(), &one, sizeof(one)); // fails when it is raised to the utmost already
}

int watch(const sdk_connection_t *connection, int operation, int fd, uint32_t events)
{
  epoll_event event = {};
  event.events = events;
  event.data.fd = fd;
  return epoll_ctl(connection->epoll.get(), operation, fd, &event);
}

void watch_output(sdk_connection_t *connection)
{
  bool is_needed = connection->sock.get() >= 0 && !connection->unsent.empty();
  if (is_needed != connection->is_awaiting_output) {
    (void)watch(connection, EPOLL_CTL_MOD, connection->sock.get(), is_needed ? EPOLLIN | EPOLLOUT : EPOLLIN);
    connection->is_awaiting_output = is_needed; // the descriptor is registered: changing it takes no memory
  }
}

void empty_buffer(wiped_string *buffer)
{
  if (buffer->capacity() > KEPT_BUFFER) {
    *buffer = wiped_string();
  } else {
    memset_s(buffer->data(), buffer->size(), 0, buffer->size());
    buffer->clear();
  }
}

// --- Connecting.

// A failure that repeats is told once.
void log_failure(ymgr_plugin_t *plugin, const std::string &failure)
{
  sdk_connection_t *connection = plugin->connection.get();
  if (failure != connection->last_failure) {
    sdk_log(plugin, SDK_LOG_WARN, "%s", failure.c_str());
    connection->last_failure = failure;
  }
}

void plan_next_attempt(sdk_connection_t *connection)
{
  connection->state = SDK_LINK_WAITING;
  connection->backoff_ms = std::clamp(connection->backoff_ms, SHORTEST_BACKOFF_MS, LONGEST_BACKOFF_MS);
  arm_timer(connection, connection->backoff_ms);
  connection->backoff_ms *= 2;
}

void close_connection(ymgr_plugin_t *plugin)
{
  sdk_connection_t *connection = plugin->connection.get();
  connection->sock.reset(); // which takes it out of the epoll descriptor
  connection->state = SDK_LINK_IDLE;
  connection->has_ended = false;
  connection->is_awaiting_output = false;
  empty_buffer(&connection->received);
  empty_buffer(&connection->unsent);
  connection->sent = 0;
  connection->awaited_id = 0;
  connection->awaited_reply.reset();
  connection->requests.clear();
  connection->serving_id = 0;
  connection->deferral = {};
  plugin->is_ready = false;
  arm_timer(connection, 0);
}

int open_socket(ymgr_plugin_t *plugin)
{
  sdk_connection_t *connection = plugin->connection.get();
  std::string path = plugin->run_dir + "/" + SOCKET_NAME;
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  unique_fd sock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  // A unix socket connects at once or not at all.
  if (strncpy_s(address.sun_path, sizeof(address.sun_path), path.c_str(), path.size()) != 0) {
    errno = ENAMETOOLONG;
  } else if (sock.get() >= 0 &&
             connect(sock.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0 &&
             watch(connection, EPOLL_CTL_ADD, sock.get(), EPOLLIN) == 0) {
    connection->sock = std::move(sock);
    return 0;
  }
  log_failure(plugin, "Connect to " + path + " failed(" + std::strerror(errno) + "), tried again until it succeeds.");
  return -1;
}

// --- Frames.

// Writes what the socket takes. Errors are left to the next read, which finds the connection ended.
void flush(sdk_connection_t *connection)
{
  while (connection->sent < connection->unsent.size()) {
    ssize_t count = send(connection->sock.get(), connection->unsent.data() + connection->sent,
                         connection->unsent.size() - connection->sent, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      if (errno != EAGAIN) {
        connection->sent = connection->unsent.size();
      }
      break;
    }
    connection->sent += static_cast<size_t>(count);
  }
  if (connection->sent == connection->unsent.size()) {
    empty_buffer(&connection->unsent);
    connection->sent = 0;
  }
  watch_output(connection);
}

// Sorts one message in. Null, or what is wrong with it.
const char *take_message(ymgr_plugin_t *plugin, std::string_view text)
{
  sdk_connection_t *connection = plugin->connection.get();
  plugin_doc_ptr message = plugin_parse_message(text);
  if (message == nullptr) {
    return "a message is not well-formed";
  }
  const xmlNode *root = plugin_root_of(message);
  if (!plugin_is_reply(root)) {
    if (connection->requests.size() == MOST_REQUESTS) {
      return "too many requests at once";
    }
    connection->requests.push_back(std::move(message));
  } else if (connection->awaited_id != 0 && plugin_get_msgid(root) == connection->awaited_id) {
    connection->awaited_id = 0;
    connection->awaited_reply = std::move(message);
  } else {
    sdk_log(plugin, SDK_LOG_WARN, "Reply %d is not waited for any more.", plugin_get_msgid(root));
  }
  return nullptr;
}

// Takes all complete frames out of the buffer. Null, or what is wrong with one.
const char *take_frames(ymgr_plugin_t *plugin)
{
  sdk_connection_t *connection = plugin->connection.get();
  std::string_view rest = connection->received;
  while (rest.size() >= sizeof(plugin_msg_head_t)) {
    plugin_msg_head_t head;
    memcpy_s(&head, sizeof(head), rest.data(), sizeof(head));
    if (head.magic != PLUGIN_MSG_MAGIC) {
      return "what came is no message";
    }
    if (head.length > PLUGIN_MAX_MESSAGE_SIZE) {
      return "a message is too long";
    }
    if (rest.size() - sizeof(head) < head.length) {
      break;
    }
    const char *fault = take_message(plugin, rest.substr(sizeof(head), head.length));
    if (fault != nullptr) {
      return fault;
    }
    rest.remove_prefix(sizeof(head) + head.length);
  }
  if (rest.empty()) {
    empty_buffer(&connection->received);
  } else {
    connection->received.erase(0, connection->received.size() - rest.size());
  }
  return nullptr;
}

// Reads what is there. 0 (also at the end of the stream: `has_ended`), or -1 after the connection was dropped.
int receive(ymgr_plugin_t *plugin)
{
  sdk_connection_t *connection = plugin->connection.get();
  while (!connection->has_ended) {
    size_t before = connection->received.size();
    connection->received.resize(before + READ_SIZE);
    ssize_t count = recv(connection->sock.get(), connection->received.data() + before, READ_SIZE, 0);
    int cause = errno;
    connection->received.resize(before + static_cast<size_t>(std::max<ssize_t>(count, 0)));
    if (count < 0 && cause == EINTR) {
      continue;
    }
    if (count < 0 && cause == EAGAIN) {
      return 0;
    }
    connection->has_ended = count <= 0;
    const char *fault = count > 0 ? take_frames(plugin) : nullptr;
    if (fault != nullptr) {
      sdk_connection_drop(plugin, fault);
      return -1;
    }
  }
  return 0;
}

// --- Requests of ours.

uint16_t next_id(sdk_connection_t *connection)
{
  connection->last_id = connection->last_id == UINT16_MAX ? 1 : static_cast<uint16_t>(connection->last_id + 1);
  return connection->last_id;
}

int send_request(ymgr_plugin_t *plugin, const char *method, plugin_doc_ptr params)
{
  sdk_connection_t *connection = plugin->connection.get();
  uint16_t id = next_id(connection);
  plugin_doc_ptr message = plugin_build_rpc_message(method, std::move(params), id);
  if (message == nullptr) {
    return sdk_fail_memory(plugin);
  }
  connection->awaited_id = id;
  connection->awaited_reply.reset();
  if (sdk_connection_send(plugin, message, id) != 0) {
    connection->awaited_id = 0;
    return -1;
  }
  return 0;
}

// What a reply says. 0 with its <result>; -1 with the error set.
int read_reply(ymgr_plugin_t *plugin, const plugin_doc_ptr &reply, xmlNode **ret_result)
{
  xmlNode *result = nullptr;
  xmlNode *error = nullptr;
  if (plugin_parse_reply(plugin_root_of(reply), &result, &error) != 0) {
    return sdk_fail(plugin, "The daemon's reply has neither a result nor an error.");
  }
  if (error != nullptr) {
    return sdk_fail(plugin, "%s", plugin_get_reply_errmsg(error).c_str());
  }
  *ret_result = result;
  return 0;
}

int wait_for_reply(ymgr_plugin_t *plugin)
{
  sdk_connection_t *connection = plugin->connection.get();
  auto deadline = steady_clock::now() + std::chrono::milliseconds(REPLY_TIMEOUT_MS);
  while (true) {
    if (receive(plugin) != 0) {
      return -1; // the error is set
    }
    if (connection->awaited_reply != nullptr) {
      return 0;
    }
    if (connection->has_ended) {
      sdk_connection_drop(plugin, "the daemon closed it");
      return -1;
    }
    auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now()).count();
    if (left <= 0) {
      connection->awaited_id = 0;
      return sdk_fail(plugin, "The daemon did not answer in %d seconds.", REPLY_TIMEOUT_MS / 1000);
    }
    pollfd socket_events = {connection->sock.get(), POLLIN, 0};
    if (!connection->unsent.empty()) {
      socket_events.events |= POLLOUT;
    }
    (void)poll(&socket_events, 1, static_cast<int>(left)); // whatever it says, the next round looks
    flush(connection);
  }
}

// --- Registration.

int add_registration(xmlNode *params, const sdk_registration_t &registration, size_t number)
{
  constexpr const char *ELEMENTS[] = {"config-subscribe", "status-publish", "operate-subscribe"};
  xmlNode *entry = plugin_add_text(params, ELEMENTS[static_cast<int>(registration.kind)], "");
  if (entry == nullptr || plugin_add_text(entry, "path", registration.path) == nullptr) {
    return -1;
  }
  if (registration.kind == sdk_kind::config && plugin_add_int(entry, "priority", registration.priority) == nullptr) {
    return -1;
  }
  return plugin_add_int(entry, "callback", static_cast<long>(number)) == nullptr ? -1 : 0;
}

int send_register(ymgr_plugin_t *plugin)
{
  plugin_doc_ptr params = plugin_new_params();
  xmlNode *root = plugin_root_of(params);
  if (root == nullptr || plugin_add_text(root, "plugin-name", plugin->name) == nullptr) {
    return sdk_fail(plugin, "The plugin's name can not be sent.");
  }
  size_t number = 0; // one more than the index: what the daemon sends back
  for (const sdk_registration_t &registration : plugin->registrations) {
    if (add_registration(root, registration, ++number) != 0) {
      return sdk_fail(plugin, "The path %s can not be sent.", registration.path.c_str());
    }
  }
  return send_request(plugin, "register", std::move(params));
}

int send_activate(ymgr_plugin_t *plugin)
{
  plugin_doc_ptr params = plugin_new_params();
  xmlNode *root = plugin_root_of(params);
  if (root == nullptr || plugin_add_int(root, "with-cfgr", 1) == nullptr ||
      (plugin->connection->was_ready && plugin_add_int(root, "with-smooth", 1) == nullptr)) {
    return sdk_fail_memory(plugin);
  }
  return send_request(plugin, "activate", std::move(params));
}

// The reply to "register" is there. 0, or -1 when it is a refusal: trying again would not help.
int finish_registering(ymgr_plugin_t *plugin)
{
  sdk_connection_t *connection = plugin->connection.get();
  plugin_doc_ptr reply = std::move(connection->awaited_reply);
  xmlNode *result = nullptr;
  if (read_reply(plugin, reply, &result) != 0) {
    sdk_log(plugin, SDK_LOG_ERROR, "The daemon refuses the plugin: %s", plugin->error.c_str());
    close_connection(plugin);
    return -1;
  }
  if (send_activate(plugin) != 0) {
    sdk_connection_drop(plugin, "memory is short");
    return 0;
  }
  connection->state = SDK_LINK_ACTIVATING;
  arm_timer(connection, REPLY_TIMEOUT_MS);
  return 0;
}

void finish_activating(ymgr_plugin_t *plugin)
{
  sdk_connection_t *connection = plugin->connection.get();
  plugin_doc_ptr reply = std::move(connection->awaited_reply);
  xmlNode *result = nullptr;
  if (read_reply(plugin, reply, &result) != 0) {
    std::string reason = plugin->error;
    sdk_connection_drop(plugin, reason.c_str());
    return;
  }
  connection->state = SDK_LINK_ACTIVE;
  connection->backoff_ms = 0;
  connection->last_failure.clear();
  arm_timer(connection, 0);
  sdk_log(plugin, SDK_LOG_INFO, "Connected to the daemon.");
}

// 0, or -1 when the registration can not even be sent.
int start_connection(ymgr_plugin_t *plugin)
{
  sdk_connection_t *connection = plugin->connection.get();
  if (open_socket(plugin) != 0) {
    plan_next_attempt(connection);
    return 0;
  }
  if (send_register(plugin) != 0) {
    close_connection(plugin);
    return -1;
  }
  connection->state = SDK_LINK_REGISTERING;
  arm_timer(connection, REPLY_TIMEOUT_MS);
  return 0;
}

} // namespace

void sdk_connection_delete_t::operator()(sdk_connection_t *connection) const
{
  delete connection;
}

int sdk_open(ymgr_plugin_t *plugin)
{
  std::unique_ptr<sdk_connection_t, sdk_connection_delete_t> connection(new sdk_connection_t);
  connection->epoll.reset(epoll_create1(EPOLL_CLOEXEC));
  connection->timer.reset(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
  connection->alarm.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (connection->epoll.get() < 0 || connection->timer.get() < 0 || connection->alarm.get() < 0 ||
      watch(connection.get(), EPOLL_CTL_ADD, connection->timer.get(), EPOLLIN) != 0 ||
      watch(connection.get(), EPOLL_CTL_ADD, connection->alarm.get(), EPOLLIN) != 0) {
    return -1;
  }
  plugin->connection = std::move(connection);
  return 0;
}

void sdk_connection_drop(ymgr_plugin_t *plugin, const char *reason)
{
  (void)sdk_fail(plugin, "The connection to the daemon is lost: %s.", reason); // for whoever waits for a reply
  log_failure(plugin, plugin->error);
  close_connection(plugin);
  plan_next_attempt(plugin->connection.get());
}

int sdk_connection_send(ymgr_plugin_t *plugin, const plugin_doc_ptr &message, uint16_t id)
{
  sdk_connection_t *connection = plugin->connection.get();
  wiped_string frame = plugin_frame_message(message, id);
  if (frame.size() <= sizeof(plugin_msg_head_t)) {
    return sdk_fail_memory(plugin);
  }
  if (frame.size() - sizeof(plugin_msg_head_t) > PLUGIN_MAX_MESSAGE_SIZE) {
    return sdk_fail(plugin, "A message of %zu bytes is too long.", frame.size());
  }
  connection->unsent.append(frame);
  flush(connection);
  return 0;
}

int sdk_connection_ask(ymgr_plugin_t *plugin, const char *method, plugin_doc_ptr params, plugin_doc_ptr *ret_reply,
                       xmlNode **ret_result)
{
  sdk_connection_t *connection = plugin->connection.get();
  if (connection->state != SDK_LINK_ACTIVE) {
    return sdk_fail(plugin, "There is no connection to the daemon.");
  }
  if (send_request(plugin, method, std::move(params)) != 0) {
    return -1;
  }
  int result = wait_for_reply(plugin);
  if (!connection->requests.empty() || connection->has_ended) {
    raise_alarm(connection); // the socket has been read: it would not tell the application
  }
  if (result != 0) {
    return -1;
  }
  plugin_doc_ptr reply = std::move(connection->awaited_reply);
  if (read_reply(plugin, reply, ret_result) != 0) {
    return -1;
  }
  *ret_reply = std::move(reply);
  return 0;
}

int sdk_connection_step(ymgr_plugin_t *plugin)
{
  sdk_connection_t *connection = plugin->connection.get();
  (void)drain(connection->alarm.get());
  bool is_time = drain(connection->timer.get());
  if (connection->state == SDK_LINK_IDLE || (connection->state == SDK_LINK_WAITING && is_time)) {
    if (start_connection(plugin) != 0) {
      return -1;
    }
  } else if (is_time && connection->state != SDK_LINK_ACTIVE && connection->state != SDK_LINK_WAITING) {
    sdk_connection_drop(plugin, "the daemon does not answer");
  }
  if (connection->sock.get() < 0 || receive(plugin) != 0) {
    return 0;
  }
  if (connection->state == SDK_LINK_REGISTERING && connection->awaited_reply != nullptr &&
      finish_registering(plugin) != 0) {
    return -1;
  }
  if (connection->state == SDK_LINK_ACTIVATING && connection->awaited_reply != nullptr) {
    finish_activating(plugin);
  }
  if (connection->has_ended) {
    sdk_connection_drop(plugin, "the daemon closed it");
  } else {
    flush(connection);
  }
  return 0;
}

int ymgr_plugin_fd(const ymgr_plugin_t *plugin)
{
  return plugin->connection->epoll.get();
}

void ymgr_plugin_stop(ymgr_plugin_t *plugin)
{
  // May run in a signal handler: both steps may.
  int cause = errno;
  plugin->connection->is_stopping = true;
  raise_alarm(plugin->connection.get());
  errno = cause;
}
