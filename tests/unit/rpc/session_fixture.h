// Sessions on real socket pairs, driven by a real epoll descriptor.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ymgrd/core/handles.h"
#include "ymgrd/rpc/rpc_context.h"
#include "ymgrd/rpc/session.h"

typedef struct _frame {
  uint16_t seq = 0;
  std::string payload;
} frame_t;

std::string frame_bytes(uint16_t seq, const std::string &payload);

// The agent's end of a connection.
typedef struct _test_agent {
  int session_id = 0;
  unique_fd sock;

  void write(const std::string &bytes) const;
  std::string read_all() const; // what has arrived
  std::vector<frame_t> frames() const;
  bool is_closed() const; // by the daemon
} test_agent_t;

class session_fixture : public testing::Test {
protected:
  void SetUp() override;
  void TearDown() override;

  test_agent_t connect(); // a session-id of 0 when the session was refused
  // Runs the event loop until it has nothing to do. A session that wakes the loop for ever fails the test.
  void run();

  // Queues a message to the agent and has the loop write it.
  static void send_message(int session_id, int type, const std::string &text);

  // What the layers above do; set by the tests.
  static std::function<int(int, const msg_head_t &, std::string_view)> on_request;
  static std::function<int(int)> on_publish;
  static bool is_broker_busy;
  static std::vector<int> closed;

private:
  unique_fd epfd_;
};
