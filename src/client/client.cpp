#include "client/client.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <initializer_list>
#include <type_traits>

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "libconf/wiped_string.h"

namespace {

using steady_clock = std::chrono::steady_clock;

constexpr uint32_t FRAME_MAGIC = 0xFEDCBAFFU;
constexpr size_t FIRST_READ = 65536; // a payload's first room; it doubles as the bytes really arrive
constexpr size_t MOST_FRAMES = 64;   // taken in before anybody looks at them: notifications may come without end
constexpr time_t CONNECT_SECONDS = 10;
constexpr ymgr_duration PROGRESS_PERIOD{100};

// Machine byte order, followed directly by the payload.
typedef struct _frame_head {
  uint32_t magic = FRAME_MAGIC;
  uint32_t length = 0; // of the payload
  uint16_t seq = 0;
  uint16_t format = 0;
} frame_head_t;
static_assert(sizeof(frame_head_t) == YMGR_FRAME_HEAD_SIZE && std::is_trivially_copyable_v<frame_head_t>);

// The frame that is arriving. Payload bytes go straight to their place.
typedef struct _incoming {
  frame_head_t head;
  size_t head_bytes = 0; // of the head that are here
  std::string payload;   // room for the bytes; longer than payload_bytes while it fills
  size_t payload_bytes = 0;
} incoming_t;

enum class wait_result { ready, timed_out, failed };

} // namespace

struct _ymgr_client {
  int sock = -1;
  bool ended = false;  // nothing more can be read
  bool broken = false; // a frame was cut off on its way out: nothing more can be sent
  incoming_t incoming;
  std::deque<ymgr_frame_t> inbox; // complete frames in order of arrival
  uint16_t last_seq = 0;
  uint64_t last_message_id = 0;
  std::string error;
  ymgr_progress_hook progress_hook; // may be empty
  ymgr_progress_t progress;         // of the last request
  bool in_request = false;          // it is being sent, or its reply awaited: the hook is called
};

namespace {

void fail(ymgr_client_t *client, const char *what, int cause)
{
  client->error = cause == 0 ? std::string(what) : std::string(what) + ": " + strerror(cause);
}

// --- Receiving.

enum class read_result { progress, nothing_yet, ended };

read_result read_some(ymgr_client_t *client, void *room, size_t size, size_t *ret_count)
{
  for (;;) {
    ssize_t count = recv(client->sock, room, size, MSG_DONTWAIT);
    if (count > 0) {
      *ret_count = static_cast<size_t>(count);
      return read_result::progress;
    }
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      return read_result::nothing_yet;
    }
    client->ended = true;
    fail(client, count == 0 ? "the daemon closed the connection" : "receive", count == 0 ? 0 : errno);
    return read_result::ended;
  }
}

read_result read_head(ymgr_client_t *client)
{
  incoming_t &in = client->incoming;
  size_t count = 0;
  auto *bytes = reinterpret_cast<char *>(&in.head);
  read_result result = read_some(client, bytes + in.head_bytes, sizeof(in.head) - in.head_bytes, &count);
  if (result != read_result::progress) {
    return result;
  }
  in.head_bytes += count;
  if (in.head_bytes == sizeof(in.head) && in.head.magic != FRAME_MAGIC) {
    client->ended = true;
    fail(client, "the daemon sent something that is no frame", 0);
    return read_result::ended;
  }
  return result;
}

read_result read_payload(ymgr_client_t *client)
{
  incoming_t &in = client->incoming;
  if (in.payload_bytes == in.payload.size()) {
    // Never much more than what has come: the length is only a claim of the other side.
    in.payload.resize(std::min<size_t>(in.head.length, std::max(FIRST_READ, in.payload_bytes * 2)));
  }
  size_t count = 0;
  read_result result =
      read_some(client, in.payload.data() + in.payload_bytes, in.payload.size() - in.payload_bytes, &count);
  in.payload_bytes += count;
  return result;
}

// Takes in what has arrived, but for frames beyond the first MOST_FRAMES. Complete frames go to the inbox.
void drain(ymgr_client_t *client)
{
  incoming_t &in = client->incoming;
  read_result result = client->ended ? read_result::ended : read_result::progress;
  for (size_t most = client->inbox.size() + MOST_FRAMES;
       result == read_result::progress && client->inbox.size() < most;) {
    if (in.head_bytes < sizeof(in.head)) {
      result = read_head(client);
    } else if (in.payload_bytes < in.head.length) {
      result = read_payload(client);
    }
    if (result == read_result::progress && in.head_bytes == sizeof(in.head) && in.payload_bytes == in.head.length) {
      client->inbox.push_back({in.head.seq, std::move(in.payload)});
      in = incoming_t();
    }
  }
}

// Whether to go on, which the hook decides.
bool report_progress(ymgr_client_t *client)
{
  if (!client->in_request || !client->progress_hook || client->progress_hook(client->progress)) {
    return true;
  }
  fail(client, "interrupted", 0);
  return false;
}

wait_result wait_for(ymgr_client_t *client, short events, steady_clock::time_point deadline)
{
  const int64_t longest = client->in_request && client->progress_hook ? PROGRESS_PERIOD.count() : INT_MAX;
  for (;;) {
    if (!report_progress(client)) {
      return wait_result::failed;
    }
    auto left = std::chrono::ceil<ymgr_duration>(deadline - steady_clock::now()).count();
    pollfd state = {client->sock, events, 0};
    int count = poll(&state, 1, static_cast<int>(std::clamp<int64_t>(left, 0, longest)));
    if (count > 0) {
      return wait_result::ready;
    }
    if (count < 0 && errno != EINTR) {
      fail(client, "poll", errno);
      return wait_result::failed;
    }
    if (count == 0 && left <= longest) {
      fail(client, "timed out", 0);
      return wait_result::timed_out;
    }
  }
}

// Waits until the inbox holds more than `count` frames.
bool await_frame(ymgr_client_t *client, size_t count, steady_clock::time_point deadline)
{
  for (;;) {
    drain(client);
    if (client->inbox.size() > count) {
      return true;
    }
    if (client->ended || wait_for(client, POLLIN, deadline) != wait_result::ready) {
      return false;
    }
  }
}

// The first frame with that number behind the first `seen` ones; the others stay in their order.
std::optional<ymgr_frame_t> take_frame(ymgr_client_t *client, size_t seen, uint16_t seq,
                                       steady_clock::time_point deadline)
{
  for (; await_frame(client, seen, deadline); seen++) {
    auto place = client->inbox.begin() + static_cast<std::ptrdiff_t>(seen);
    if (place->seq == seq) {
      ymgr_frame_t frame = std::move(*place);
      client->inbox.erase(place);
      return frame;
    }
  }
  return std::nullopt;
}

// --- Sending.

// Writes all bytes, taking in what arrives meanwhile: a daemon that waits for room for its own bytes would not read
// ours.
bool send_all(ymgr_client_t *client, std::string_view bytes, steady_clock::time_point deadline)
{
  if (client->broken) {
    return false; // the error of the first failure stands
  }
  size_t &sent = client->progress.sent;
  client->progress = {0, bytes.size()};
  while (sent < bytes.size()) {
    ssize_t count = send(client->sock, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count >= 0) {
      sent += static_cast<size_t>(count);
      // Behind the last piece whoever awaits the reply looks at it: the request has its number, and its reply comes.
      if (!report_progress(client) && sent < bytes.size()) {
        client->broken = true;
        return false;
      }
      continue;
    }
    if (errno == EINTR) {
      continue;
    }
    bool full = errno == EAGAIN || errno == EWOULDBLOCK;
    if (!full) {
      fail(client, "send", errno);
    }
    short events = client->ended ? POLLOUT : POLLOUT | POLLIN;
    if (!full || wait_for(client, events, deadline) != wait_result::ready) {
      client->broken = sent > 0 || !full;
      return false;
    }
    drain(client);
  }
  return true;
}

// A payload in pieces, so that only the frame holds all of it: requests may be large. They may hold secrets, too.
using pieces_t = std::initializer_list<std::string_view>;

std::optional<uint16_t> send_request(ymgr_client_t *client, pieces_t payload, steady_clock::time_point deadline)
{
  size_t length = 0;
  for (std::string_view piece : payload) {
    length += piece.size();
  }
  if (length > UINT32_MAX) {
    fail(client, "send", EMSGSIZE);
    return std::nullopt;
  }
  auto seq = static_cast<uint16_t>(client->last_seq == UINT16_MAX ? 1 : client->last_seq + 1);
  wiped_string frame;
  frame.reserve(YMGR_FRAME_HEAD_SIZE + length);
  frame.append(ymgr_frame_head({static_cast<uint32_t>(length), seq}));
  for (std::string_view piece : payload) {
    frame.append(piece);
  }
  if (!send_all(client, frame, deadline)) {
    return std::nullopt;
  }
  client->last_seq = seq;
  return seq;
}

// The hook is called while one of these lives.
class request_scope {
public:
  explicit request_scope(ymgr_client_t *client) : client_(client) { client_->in_request = true; }
  ~request_scope() { client_->in_request = false; }
  request_scope(const request_scope &) = delete;
  request_scope &operator=(const request_scope &) = delete;

private:
  ymgr_client_t *client_;
};

std::optional<std::string> exchange(ymgr_client_t *client, pieces_t payload, ymgr_duration timeout)
{
  auto deadline = steady_clock::now() + timeout;
  request_scope scope(client);
  drain(client);
  // What is here already answers earlier requests.
  size_t seen = client->inbox.size();
  std::optional<uint16_t> seq = send_request(client, payload, deadline);
  std::optional<ymgr_frame_t> frame = seq ? take_frame(client, seen, *seq, deadline) : std::nullopt;
  return frame ? std::optional(std::move(frame->payload)) : std::nullopt;
}

// --- XML.

std::string escaped(const std::string &text)
{
  auto *plain = reinterpret_cast<const xmlChar *>(text.c_str());
  std::unique_ptr<xmlChar, void (*)(void *)> markup(xmlEncodeSpecialChars(nullptr, plain), xmlFree);
  return markup == nullptr ? std::string() : reinterpret_cast<const char *>(markup.get());
}

// Null when the reply is no XML.
std::unique_ptr<xmlDoc, void (*)(xmlDoc *)> parse(const std::string &reply)
{
  const int options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;
  const bool is_readable = reply.size() <= INT_MAX;
  return {is_readable ? xmlReadMemory(reply.data(), static_cast<int>(reply.size()), nullptr, nullptr, options)
                      : nullptr,
          xmlFreeDoc};
}

const xmlNode *find_child(const xmlNode *parent, const char *name)
{
  const xmlNode *child = parent == nullptr ? nullptr : parent->children;
  while (child != nullptr &&
         (child->type != XML_ELEMENT_NODE || std::strcmp(reinterpret_cast<const char *>(child->name), name) != 0)) {
    child = child->next;
  }
  return child;
}

std::string text_of(const xmlNode *node)
{
  std::unique_ptr<xmlChar, void (*)(void *)> text(node == nullptr ? nullptr : xmlNodeGetContent(node), xmlFree);
  return text == nullptr ? "" : reinterpret_cast<const char *>(text.get());
}

} // namespace

void ymgr_client_delete_t::operator()(ymgr_client_t *client) const
{
  if (client->sock >= 0) {
    close(client->sock);
  }
  delete client;
}

ymgr_client_ptr ymgr_connect(const std::string &run_dir, std::string *ret_error)
{
  ymgr_client_ptr client(new ymgr_client_t);
  std::string path = run_dir + "/agent.sock";
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  int result = -1;
  if (path.size() >= sizeof(address.sun_path)) {
    errno = ENAMETOOLONG;
  } else {
    path.copy(address.sun_path, path.size());
    client->sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    // Bounds the wait for a daemon that does not accept.
    timeval limit = {CONNECT_SECONDS, 0};
    result = client->sock < 0 ? -1 : setsockopt(client->sock, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
  }
  while (result == 0 && connect(client->sock, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
    result = errno == EINTR ? 0 : -1;
  }
  if (result != 0) {
    if (ret_error != nullptr) {
      *ret_error = "connect to " + path + ": " + strerror(errno);
    }
    return nullptr;
  }
  return client;
}

std::string ymgr_login_name()
{
  const uid_t uid = getuid();
  const char *claimed = std::getenv("LOGNAME");
  const passwd *user = claimed == nullptr ? nullptr : getpwnam(claimed);
  if (user == nullptr || user->pw_uid != uid) {
    user = getpwuid(uid);
  }
  return user == nullptr ? "" : user->pw_name;
}

std::optional<int> ymgr_create_session(ymgr_client_t *client, const std::string &username)
{
  std::string operation = std::string("<create-session xmlns=\"") + YMGR_DAEMON_NAMESPACE + "\"><username>" +
                          escaped(username) + "</username><agent-ppid>" + std::to_string(getpid()) +
                          "</agent-ppid></create-session>";
  std::optional<std::string> reply = ymgr_rpc(client, operation);
  if (!reply && (client->ended || client->broken)) {
    // How a daemon refuses a session too many: it says nothing.
    client->error += "; the daemon may have as many sessions as its profile allows";
  }
  if (!reply) {
    return std::nullopt;
  }
  const auto document = parse(*reply);
  const xmlNode *root = document == nullptr ? nullptr : xmlDocGetRootElement(document.get());
  const std::string number = text_of(find_child(root, "session-id"));
  int id = 0;
  auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), id);
  if (error != std::errc() || end != number.data() + number.size() || id <= 0) {
    const std::string message = text_of(find_child(find_child(root, "rpc-error"), "error-message"));
    client->error = "the session was refused: " + (message.empty() ? *reply : message);
    return std::nullopt;
  }
  return id;
}

std::optional<uint16_t> ymgr_send(ymgr_client_t *client, std::string_view payload)
{
  request_scope scope(client);
  return send_request(client, {payload}, steady_clock::now() + YMGR_DEFAULT_TIMEOUT);
}

std::optional<ymgr_frame_t> ymgr_receive(ymgr_client_t *client, ymgr_duration timeout)
{
  if (!await_frame(client, 0, steady_clock::now() + timeout)) {
    return std::nullopt;
  }
  ymgr_frame_t frame = std::move(client->inbox.front());
  client->inbox.pop_front();
  return frame;
}

std::optional<ymgr_frame_t> ymgr_receive_notification(ymgr_client_t *client, ymgr_duration timeout)
{
  return take_frame(client, 0, 0, steady_clock::now() + timeout);
}

std::optional<std::string> ymgr_request(ymgr_client_t *client, std::string_view payload, ymgr_duration timeout)
{
  return exchange(client, {payload}, timeout);
}

std::optional<std::string> ymgr_rpc(ymgr_client_t *client, std::string_view operation, ymgr_duration timeout)
{
  const std::string begin =
      "<rpc message-id=\"" + std::to_string(++client->last_message_id) + "\" xmlns=\"" + YMGR_BASE_NAMESPACE + "\">";
  return exchange(client, {begin, operation, "</rpc>"}, timeout);
}

void ymgr_set_progress(ymgr_client_t *client, ymgr_progress_hook hook)
{
  client->progress_hook = std::move(hook);
}

bool ymgr_send_raw(ymgr_client_t *client, std::string_view bytes)
{
  return send_all(client, bytes, steady_clock::now() + YMGR_DEFAULT_TIMEOUT);
}

int ymgr_descriptor(const ymgr_client_t *client)
{
  return client->sock;
}

std::string ymgr_frame(std::string_view payload, uint16_t seq)
{
  std::string frame = ymgr_frame_head({static_cast<uint32_t>(payload.size()), seq});
  return frame.append(payload);
}

std::string ymgr_frame_head(const ymgr_frame_head_t &head)
{
  frame_head_t raw;
  raw.length = head.length;
  raw.seq = head.seq;
  return std::string(reinterpret_cast<const char *>(&raw), sizeof(raw));
}

bool ymgr_read_frame_head(const char *bytes, ymgr_frame_head_t *ret_head)
{
  frame_head_t raw;
  std::memcpy(&raw, bytes, sizeof(raw));
  if (raw.magic != FRAME_MAGIC) {
    return false;
  }
  *ret_head = {raw.length, raw.seq};
  return true;
}

const std::string &ymgr_last_error(const ymgr_client_t *client)
{
  return client->error;
}
