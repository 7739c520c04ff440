#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "client/client.h"
#include "support/environment.h"

namespace {

using namespace std::chrono_literals;

// A daemon of the test's own: `play` is its part of the conversation, run on a thread.
class ymgr_client : public testing::Test {
protected:
  void SetUp() override
  {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    (dir_ / "agent.sock").copy(address.sun_path, sizeof(address.sun_path) - 1);
    listener_ = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(listener_, 1), 0);
  }
  void TearDown() override
  {
    client_.reset();
    if (thread_.joinable()) {
      thread_.join();
    }
    close(listener_);
  }

  void start(const std::function<void(int)> &play)
  {
    thread_ = std::thread([this, play] {
      int sock = accept(listener_, nullptr, nullptr);
      play(sock);
      close(sock);
    });
    std::string error;
    client_ = ymgr_connect(dir_.path(), &error);
    ASSERT_NE(client_, nullptr) << error;
  }

  static std::string read_bytes(int sock, size_t size)
  {
    std::string bytes(size, '\0');
    return recv(sock, bytes.data(), size, MSG_WAITALL) == static_cast<ssize_t>(size) ? bytes : "";
  }
  // The payload of the next frame; its number goes to `ret_seq`.
  static std::string read_request(int sock, uint16_t *ret_seq)
  {
    std::string head = read_bytes(sock, 12);
    uint32_t length = 0;
    if (head.empty()) {
      return "";
    }
    std::memcpy(&length, head.data() + 4, sizeof(length));
    std::memcpy(ret_seq, head.data() + 8, sizeof(*ret_seq));
    return read_bytes(sock, length);
  }
  static void write_bytes(int sock, std::string_view bytes)
  {
    while (!bytes.empty()) {
      ssize_t count = send(sock, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (count <= 0) {
        return;
      }
      bytes.remove_prefix(static_cast<size_t>(count));
    }
  }

  support::temp_dir dir_;
  int listener_ = -1;
  std::thread thread_;
  ymgr_client_ptr client_;
};

TEST_F(ymgr_client, notifications_between_request_and_reply_are_kept_in_order)
{
  start([](int sock) {
    uint16_t seq = 0;
    read_request(sock, &seq);
    for (char byte : ymgr_frame("<n1/>", 0) + ymgr_frame("", 0) + ymgr_frame("<reply/>", seq)) {
      write_bytes(sock, std::string_view(&byte, 1));
    }
    write_bytes(sock, ymgr_frame("<n3/>", 0));
  });
  EXPECT_EQ(ymgr_request(client_.get(), "<rpc/>"), "<reply/>");
  for (const char *expected : {"<n1/>", "", "<n3/>"}) {
    auto frame = ymgr_receive(client_.get());
    ASSERT_TRUE(frame) << ymgr_last_error(client_.get());
    EXPECT_EQ(frame->payload, expected);
    EXPECT_EQ(frame->seq, 0);
  }
  EXPECT_FALSE(ymgr_receive(client_.get()));
  EXPECT_EQ(ymgr_last_error(client_.get()), "the daemon closed the connection");
}

TEST_F(ymgr_client, both_sides_may_send_much_at_the_same_time)
{
  const std::string large(24U << 20, 'x');
  start([&large](int sock) {
    write_bytes(sock, ymgr_frame(large, 0)); // nothing is read before all of this is taken
    uint16_t seq = 0;
    std::string request = read_request(sock, &seq);
    write_bytes(sock, ymgr_frame(request, seq));
  });
  auto reply = ymgr_request(client_.get(), large);
  ASSERT_TRUE(reply) << ymgr_last_error(client_.get());
  EXPECT_TRUE(*reply == large);
  auto frame = ymgr_receive(client_.get());
  ASSERT_TRUE(frame);
  EXPECT_TRUE(frame->payload == large);
}

TEST_F(ymgr_client, a_late_reply_is_not_taken_for_the_next_one)
{
  start([](int sock) {
    uint16_t first = 0;
    uint16_t second = 0;
    read_request(sock, &first);
    read_request(sock, &second);
    write_bytes(sock, ymgr_frame("<first/>", first) + ymgr_frame("<second/>", second));
  });
  auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(ymgr_rpc(client_.get(), "<op/>", 50ms));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 50ms);
  EXPECT_EQ(ymgr_last_error(client_.get()), "timed out");
  EXPECT_EQ(ymgr_rpc(client_.get(), "<op/>"), "<second/>");
  EXPECT_EQ(ymgr_receive(client_.get())->payload, "<first/>");
}

TEST_F(ymgr_client, broken_framing_and_cut_frames_end_the_connection)
{
  start([](int sock) {
    write_bytes(sock, ymgr_frame("<whole/>", 0));
    write_bytes(sock, std::string(12, '\0')); // an empty frame but for its magic
  });
  EXPECT_EQ(ymgr_receive(client_.get())->payload, "<whole/>");
  EXPECT_FALSE(ymgr_receive(client_.get()));
  EXPECT_EQ(ymgr_last_error(client_.get()), "the daemon sent something that is no frame");
  thread_.join();

  start([](int sock) { write_bytes(sock, ymgr_frame(std::string(100, 'x'), 0).substr(0, 60)); });
  EXPECT_FALSE(ymgr_receive(client_.get()));
  thread_.join();
  EXPECT_FALSE(ymgr_request(client_.get(), "<rpc/>")); // and no SIGPIPE
}

} // namespace
