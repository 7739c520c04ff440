#include <cstring>
#include <functional>
#include <future>
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
    end();
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
  void end()
  {
    if (thread_.joinable()) {
      thread_.join();
    }
  }

  // The next request.
  static ymgr_frame_t read(int sock)
  {
    char head[12] = {};
    uint32_t length = 0;
    ymgr_frame_t frame;
    if (recv(sock, head, sizeof(head), MSG_WAITALL) == sizeof(head)) {
      std::memcpy(&length, head + 4, sizeof(length));
      std::memcpy(&frame.seq, head + 8, sizeof(frame.seq));
    }
    frame.payload.resize(length);
    EXPECT_EQ(recv(sock, frame.payload.data(), length, MSG_WAITALL), static_cast<ssize_t>(length));
    return frame;
  }
  static void write(int sock, const std::string &bytes)
  {
    EXPECT_EQ(send(sock, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  }

  support::temp_dir dir_;
  int listener_ = -1;
  std::thread thread_;
  ymgr_client_ptr client_;
};

TEST_F(ymgr_client, notifications_between_request_and_reply_are_kept_in_order)
{
  start([](int sock) {
    for (char byte : ymgr_frame("<n1/>", 0) + ymgr_frame("", 0) + ymgr_frame("<reply/>", read(sock).seq)) {
      write(sock, std::string(1, byte));
    }
    write(sock, ymgr_frame("<n3/>", 0));
  });
  EXPECT_EQ(ymgr_request(client_.get(), "<rpc/>"), "<reply/>");
  for (const char *expected : {"<n1/>", "", "<n3/>"}) {
    auto frame = *expected == '\0' ? ymgr_receive(client_.get()) : ymgr_receive_notification(client_.get());
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
    write(sock, ymgr_frame(large, 0)); // nothing is read before all of this is taken
    ymgr_frame_t request = read(sock);
    write(sock, ymgr_frame(request.payload, request.seq));
  });
  EXPECT_TRUE(ymgr_request(client_.get(), large) == large) << ymgr_last_error(client_.get());
  auto frame = ymgr_receive(client_.get());
  EXPECT_TRUE(frame && frame->payload == large);
}

TEST_F(ymgr_client, a_late_reply_is_not_taken_for_the_next_one)
{
  start([](int sock) {
    ymgr_frame_t first = read(sock);
    write(sock, ymgr_frame("<second/>", read(sock).seq).insert(0, ymgr_frame("<first/>", first.seq)));
  });
  auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(ymgr_rpc(client_.get(), "<op/>", 50ms));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 50ms);
  EXPECT_EQ(ymgr_last_error(client_.get()), "timed out");
  EXPECT_EQ(ymgr_rpc(client_.get(), "<op/>"), "<second/>");
  EXPECT_FALSE(ymgr_receive_notification(client_.get(), 1ms)) << "a reply is none";
  EXPECT_EQ(ymgr_receive(client_.get())->payload, "<first/>");
}

TEST_F(ymgr_client, broken_framing_and_cut_frames_end_the_connection)
{
  start([](int sock) { write(sock, ymgr_frame("<whole/>", 0) + std::string(12, '\0')); }); // a head without its magic
  EXPECT_EQ(ymgr_receive(client_.get())->payload, "<whole/>");
  EXPECT_FALSE(ymgr_receive(client_.get()));
  EXPECT_EQ(ymgr_last_error(client_.get()), "the daemon sent something that is no frame");
  end();

  start([](int sock) { write(sock, ymgr_frame(std::string(100, 'x'), 0).substr(0, 60)); });
  EXPECT_FALSE(ymgr_receive(client_.get()));
  end();
  EXPECT_FALSE(ymgr_request(client_.get(), "<rpc/>")); // and no SIGPIPE
}

TEST_F(ymgr_client, a_hook_follows_the_request_and_may_end_the_wait)
{
  const std::string large(8U << 20, 'x');
  std::promise<void> seen;
  start([&](int sock) {
    ymgr_frame_t first = read(sock);
    seen.get_future().wait(); // nothing is answered before the hook was heard
    write(sock, ymgr_frame("<first/>", first.seq));
    EXPECT_EQ(read(sock).payload, "<rpc/>");
    char byte = 0;
    EXPECT_GT(recv(sock, &byte, 1, MSG_PEEK), 0); // the third one begins, and is cut off
  });
  // A reply that takes its time is still reported about, and what was sent only grows.
  size_t most = 0;
  int calls_after_all = 0;
  ymgr_set_progress(client_.get(), [&](const ymgr_progress_t &progress) {
    EXPECT_GE(progress.sent, most);
    EXPECT_GT(progress.size, large.size());
    most = progress.sent;
    calls_after_all += progress.sent == progress.size ? 1 : 0;
    if (calls_after_all == 3) {
      seen.set_value();
    }
    return true;
  });
  EXPECT_EQ(ymgr_request(client_.get(), large), "<first/>") << ymgr_last_error(client_.get());

  // Ended behind the request: the connection lives on. Ended within: nothing more can be sent.
  ymgr_set_progress(client_.get(), [](const ymgr_progress_t &progress) { return progress.sent < progress.size; });
  EXPECT_FALSE(ymgr_request(client_.get(), "<rpc/>"));
  EXPECT_EQ(ymgr_last_error(client_.get()), "interrupted");
  ymgr_set_progress(client_.get(), [](const ymgr_progress_t &progress) { return progress.sent == 0; });
  EXPECT_FALSE(ymgr_request(client_.get(), large));
  EXPECT_EQ(ymgr_last_error(client_.get()), "interrupted");
  ymgr_set_progress(client_.get(), nullptr);
  EXPECT_FALSE(ymgr_send(client_.get(), "<rpc/>"));
}

} // namespace
