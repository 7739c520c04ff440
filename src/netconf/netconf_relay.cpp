#include "netconf/netconf_relay.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

#include "libconf/safe_string.h"
#include "netconf/netconf_framing.h"
#include "netconf/netconf_hello.h"
#include "netconf/netconf_replies.h"
#include "netconf/netconf_request.h"

namespace {

using steady_clock = std::chrono::steady_clock;

constexpr size_t PIECE = 65536;
constexpr size_t LONGEST_HELLO = 1024 * 1024;
constexpr std::chrono::seconds HELLO_PATIENCE{60};
// Until the daemon has named its own, or when it names none.
constexpr size_t USUAL_MAX_MESSAGE_SIZE = 64 * 1024 * 1024;

wiped_string max_message_size_request()
{
  return wiped_string("<rpc message-id=\"max-message-size\" xmlns=\"")
      .append(YMGR_BASE_NAMESPACE)
      .append("\"><get><filter type=\"subtree\"><daemon xmlns=\"")
      .append(YMGR_DAEMON_NAMESPACE)
      .append("\"><max-message-size/></daemon></filter></get></rpc>");
}

// The descriptor does not block while this lives.
class non_blocking {
public:
  explicit non_blocking(int fd) : fd_(fd), flags_(fcntl(fd, F_GETFL))
  {
    is_set_ = flags_ >= 0 && fcntl(fd, F_SETFL, flags_ | O_NONBLOCK) == 0;
  }
  non_blocking(const non_blocking &) = delete;
  non_blocking &operator=(const non_blocking &) = delete;
  ~non_blocking()
  {
    if (is_set_) {
      (void)fcntl(fd_, F_SETFL, flags_); // others may share it
    }
  }
  bool is_set() const { return is_set_; }

private:
  int fd_;
  int flags_;
  bool is_set_;
};

bool is_to_be_tried_again(int cause)
{
  return cause == EAGAIN || cause == EWOULDBLOCK || cause == EINTR;
}

// Bytes that have been read and not been looked at; cleared as soon as they have.
class input_buffer {
public:
  ~input_buffer() { drop(left()); }
  size_t left() const { return end_ - begin_; }
  std::string_view bytes() const { return {bytes_.data() + begin_, left()}; }
  void drop(size_t count)
  {
    memset_s(bytes_.data() + begin_, left(), 0, count);
    begin_ += count;
  }
  char *room() { return bytes_.data(); } // PIECE bytes; only while none is left
  void fill(size_t count)
  {
    begin_ = 0;
    end_ = count;
  }

private:
  std::array<char, PIECE> bytes_;
  size_t begin_ = 0;
  size_t end_ = 0;
};

class relay {
public:
  relay(const netconf_relay_ends_t &ends, const std::string &hello);
  int run();

private:
  // Both directions.
  bool step();
  int hello_timeout() const;
  void end_at_last_reply();
  void end(int result, const std::string &reason);
  bool may_take_input() const;
  // From the client to the daemon.
  void read_client();
  void take_input();
  void take_hello();
  void take_request();
  void begin_request(wiped_string text, netconf_request_t request);
  void send_request();
  // From the daemon to the client.
  void read_daemon();
  void take_limit(const std::string &reply);
  void write_client();

  int in_;
  int out_;
  int daemon_;
  std::optional<int> result_; // set once the session is over but for what is still to be written

  netconf_reader reader_{LONGEST_HELLO};
  input_buffer input_;
  bool has_hello_ = false; // of the client
  bool is_chunked_ = false;
  bool is_at_end_ = false; // the client sends nothing more
  steady_clock::time_point hello_deadline_ = steady_clock::now() + HELLO_PATIENCE;
  size_t max_message_size_ = USUAL_MAX_MESSAGE_SIZE;

  uint16_t last_seq_ = 0;
  std::string request_head_;
  wiped_string request_text_;
  size_t request_sent_ = 0; // bytes of both

  wiped_string output_;
  size_t output_written_ = 0;
  netconf_replies replies_{&output_};
  std::array<char, PIECE> piece_;
};

relay::relay(const netconf_relay_ends_t &ends, const std::string &hello)
    : in_(ends.client_in), out_(ends.client_out), daemon_(ymgr_descriptor(ends.daemon))
{
  replies_.say(hello);
  // Not asked before the hello: while a change is being handed out, the answer waits.
  begin_request(max_message_size_request(), netconf_request_t());
  replies_.await_own(last_seq_);
}

int relay::run()
{
  write_client();
  while ((!result_ || !output_.empty()) && step()) {
    take_input(); // what could not be taken before
    if (is_at_end_ && input_.left() == 0) {
      end_at_last_reply();
    }
  }
  return result_.value_or(1);
}

// Waits until something can be done, and does it. False when nothing more can be said to the client.
bool relay::step()
{
  const bool wants_input = !result_ && !is_at_end_ && may_take_input();
  const bool wants_reply = !result_ && output_.empty();
  const bool has_request = !result_ && !request_head_.empty();
  const short daemon_events = static_cast<short>((wants_reply ? POLLIN : 0) | (has_request ? POLLOUT : 0));
  // A descriptor from which nothing is wanted is left out: its end would be reported again and again. That the client
  // reads no more is always of interest.
  pollfd states[] = {{wants_input ? in_ : -1, POLLIN, 0},
                     {daemon_events == 0 ? -1 : daemon_, daemon_events, 0},
                     {out_, static_cast<short>(output_.empty() ? 0 : POLLOUT), 0}};
  const int count = poll(states, std::size(states), hello_timeout());
  if (count < 0 && errno != EINTR) {
    end(1, std::string("poll: ") + strerror(errno));
    return false;
  }
  if (count == 0 && hello_timeout() == 0) {
    end(1, "the client sent no hello");
    return false;
  }
  if (count <= 0) {
    return true;
  }
  if ((states[2].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
    end(0, ""); // the client has left
    return false;
  }
  if (states[2].revents != 0) {
    write_client();
  }
  if (states[0].revents != 0) {
    read_client();
  }
  if ((states[1].revents & POLLOUT) != 0) {
    send_request();
  }
  if (wants_reply && (states[1].revents & ~POLLOUT) != 0) {
    read_daemon();
  }
  return true;
}

// Milliseconds for which the client's hello is still awaited; -1 when it is not.
int relay::hello_timeout() const
{
  if (has_hello_ || result_) {
    return -1;
  }
  auto left = std::chrono::ceil<std::chrono::milliseconds>(hello_deadline_ - steady_clock::now()).count();
  return static_cast<int>(std::max<int64_t>(left, 0));
}

// Nothing more will come from the client. What it asked for before it still gets.
void relay::end_at_last_reply()
{
  if (replies_.is_awaiting() || replies_.is_in_message() || !output_.empty()) {
    return;
  }
  if (!has_hello_) {
    end(1, "the client left without a hello");
  } else if (!reader_.is_between_messages()) {
    end(1, "the client's last message is not complete");
  } else {
    end(0, "");
  }
}

void relay::end(int result, const std::string &reason)
{
  if (result_) {
    return;
  }
  result_ = result;
  if (!reason.empty()) {
    netconf_tell(reason);
  }
}

// A request is only read when the one before it has been answered, so that one is held at most. That the client does
// not read is no reason not to read it: it may only do so when its request is out.
bool relay::may_take_input() const
{
  return !has_hello_ || (!replies_.is_awaiting() && !replies_.has_unsaid() && output_.size() <= PIECE);
}

// --- From the client to the daemon.

void relay::read_client()
{
  ssize_t count = read(in_, input_.room(), PIECE); // none is left: it would have been taken
  if (count > 0) {
    input_.fill(static_cast<size_t>(count));
  } else if (count == 0 || errno == ECONNRESET) {
    is_at_end_ = true;
  } else if (!is_to_be_tried_again(errno)) {
    end(1, std::string("read: ") + strerror(errno));
  }
}

void relay::take_input()
{
  while (!result_ && input_.left() > 0 && may_take_input()) {
    size_t used = 0;
    netconf_read result = reader_.take(input_.bytes(), &used);
    input_.drop(used);
    if (result == netconf_read::malformed) {
      end(1, "the client's framing is malformed");
    } else if (result == netconf_read::message) {
      if (has_hello_) {
        take_request();
      } else {
        take_hello();
      }
    }
  }
}

void relay::take_hello()
{
  std::string reason;
  if (reader_.is_too_long() || netconf_hello_accept(reader_.message(), &is_chunked_, &reason) != 0) {
    end(1, reason.empty() ? "the client's hello is too long" : reason);
    return;
  }
  has_hello_ = true;
  reader_.next();
  reader_.set_limit(max_message_size_);
  if (is_chunked_) {
    reader_.set_framing(netconf_framing::chunked);
    replies_.set_framing(netconf_framing::chunked);
  }
}

void relay::take_request()
{
  netconf_request_t request = netconf_request_read(reader_.message());
  netconf_fault fault = reader_.is_too_long() ? netconf_fault::too_big : netconf_request_check(request);
  wiped_string text = std::move(reader_.message());
  reader_.next();
  if (fault == netconf_fault::none) {
    begin_request(std::move(text), std::move(request));
  } else {
    replies_.say(netconf_fault_reply(request, fault, is_chunked_));
    write_client();
  }
}

// The number of the frame is never the message-id: the daemon's answer to what is no XML can be told from all others.
void relay::begin_request(wiped_string text, netconf_request_t request)
{
  do {
    last_seq_ = static_cast<uint16_t>(last_seq_ == UINT16_MAX ? 1 : last_seq_ + 1);
  } while (request.message_id == std::to_string(last_seq_));
  request_text_ = std::move(text);
  request_head_ = ymgr_frame_head({static_cast<uint32_t>(request_text_.size()), last_seq_});
  request_sent_ = 0;
  replies_.await(last_seq_, std::move(request));
  send_request();
}

void relay::send_request()
{
  while (!request_head_.empty()) {
    const size_t head_sent = std::min(request_sent_, request_head_.size());
    const size_t text_sent = request_sent_ - head_sent;
    iovec parts[] = {{request_head_.data() + head_sent, request_head_.size() - head_sent},
                     {request_text_.data() + text_sent, request_text_.size() - text_sent}};
    msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = std::size(parts);
    ssize_t count = sendmsg(daemon_, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0) {
      if (!is_to_be_tried_again(errno)) {
        end(1, std::string("send to the daemon: ") + strerror(errno));
      }
      return;
    }
    request_sent_ += static_cast<size_t>(count);
    if (request_sent_ == request_head_.size() + request_text_.size()) {
      request_head_.clear();
      request_text_ = wiped_string(); // the last that is held of it
    }
  }
}

// --- From the daemon to the client.

void relay::read_daemon()
{
  ssize_t count = recv(daemon_, piece_.data(), piece_.size(), MSG_DONTWAIT);
  if (count < 0 && is_to_be_tried_again(errno)) {
    return;
  }
  if (count <= 0) {
    end(1, count == 0 ? "the daemon ended the session" : std::string("receive from the daemon: ") + strerror(errno));
    return;
  }
  bool is_sound = replies_.take({piece_.data(), static_cast<size_t>(count)});
  memset_s(piece_.data(), piece_.size(), 0, static_cast<size_t>(count));
  if (!is_sound) {
    end(1, "the daemon sent something that is no frame");
  } else if (std::optional<std::string> reply = replies_.take_own_reply()) {
    take_limit(*reply);
  }
  write_client();
  if (replies_.has_closed()) {
    end(0, "");
  }
}

void relay::take_limit(const std::string &reply)
{
  netconf_doc_ptr doc = netconf_parse(reply);
  std::string text = doc == nullptr ? "" : netconf_find_text(xmlDocGetRootElement(doc.get()), "max-message-size");
  uint32_t limit = 0;
  auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), limit);
  if (error == std::errc() && rest == text.data() + text.size() && limit > 0) {
    max_message_size_ = limit;
    if (has_hello_) {
      reader_.set_limit(limit);
    }
  }
}

void relay::write_client()
{
  while (output_written_ < output_.size()) {
    ssize_t count = write(out_, output_.data() + output_written_, output_.size() - output_written_);
    if (count < 0 && is_to_be_tried_again(errno)) {
      return;
    }
    if (count < 0) { // the client has left
      output_.clear();
      output_written_ = 0;
      end(0, "");
      return;
    }
    output_written_ += static_cast<size_t>(count);
  }
  output_.clear();
  output_written_ = 0;
}

} // namespace

int netconf_relay(const netconf_relay_ends_t &ends, const std::string &hello)
{
  non_blocking in(ends.client_in);
  non_blocking out(ends.client_out);
  if (!in.is_set() || !out.is_set()) {
    netconf_tell(std::string("standard input and output cannot be used: ") + strerror(errno));
    return 1;
  }
  return relay(ends, hello).run();
}

void netconf_tell(const std::string &message)
{
  std::fprintf(stderr, "ymgr-netconf: %s\n", message.c_str());
  syslog(LOG_DAEMON | LOG_NOTICE, "%s", message.c_str());
}
