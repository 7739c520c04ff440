#include "session_fixture.h"

#include <cstring>

#include <sys/epoll.h>
#include <sys/socket.h>

#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/rpc/session_operations.h"
#include "ymgrd/ymgrd.h"

std::function<int(int, const msg_head_t &, std::string_view)> session_fixture::on_request;
std::function<int(int)> session_fixture::on_publish;
bool session_fixture::is_broker_busy = false;
std::vector<int> session_fixture::closed;

std::string frame_bytes(uint16_t seq, const std::string &payload)
{
  msg_head_t head = {MSG_MAGIC, static_cast<uint32_t>(payload.size()), seq, 0};
  return std::string(reinterpret_cast<const char *>(&head), sizeof(head)) + payload;
}

void test_agent_t::write(const std::string &bytes) const
{
  ASSERT_EQ(static_cast<ssize_t>(bytes.size()), send(sock.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
}

std::string test_agent_t::read_all() const
{
  std::string bytes;
  char piece[4096];
  for (ssize_t length = 0; (length = recv(sock.get(), piece, sizeof(piece), MSG_DONTWAIT)) > 0;) {
    bytes.append(piece, static_cast<size_t>(length));
  }
  return bytes;
}

std::vector<frame_t> test_agent_t::frames() const
{
  std::vector<frame_t> frames;
  std::string bytes = read_all();
  while (bytes.size() >= sizeof(msg_head_t)) {
    msg_head_t head;
    std::memcpy(&head, bytes.data(), sizeof(head));
    EXPECT_EQ(MSG_MAGIC, head.magic);
    EXPECT_EQ(0, head.format);
    frames.push_back({head.seq, bytes.substr(sizeof(head), head.length)});
    bytes.erase(0, sizeof(head) + head.length);
  }
  EXPECT_EQ("", bytes);
  return frames;
}

bool test_agent_t::is_closed() const
{
  char byte = 0;
  return recv(sock.get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
}

void session_fixture::SetUp()
{
  log_open(LOG_TO_STDERR, LOG_LEVEL_ERROR);
  ASSERT_EQ(0, context_init(STAGE_RESOURCE));
  ASSERT_EQ(0, session_init(STAGE_RESOURCE));
  epfd_.reset(epoll_create1(EPOLL_CLOEXEC));
  ASSERT_EQ(0, context_save_int("OPT-ymgrd-epfd", epfd_.get()));
  on_request = [](int, const msg_head_t &, std::string_view) { return 0; };
  on_publish = [](int) { return 0; };
  is_broker_busy = false;
  closed.clear();
  session_hooks_t hooks = {};
  hooks.receive = [](int session_id, const msg_head_t *head, std::string_view payload) {
    return on_request(session_id, *head, payload);
  };
  hooks.is_busy = [](const char *) { return is_broker_busy; };
  hooks.publish = [](int session_id) { return on_publish(session_id); };
  hooks.closing = [](int session_id) { closed.push_back(session_id); };
  session_set_hooks(hooks);
}

void session_fixture::TearDown()
{
  for (int session_id = 1; session_id <= context_list_size("LIST-session"); session_id++) {
    if (session_find(session_id) != nullptr) {
      session_del_rpc_context(session_id);
      session_inst_exit(session_id);
    }
  }
  session_exit();
  context_exit();
}

test_agent_t session_fixture::connect()
{
  int socks[2];
  EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, socks));
  test_agent_t agent;
  agent.sock.reset(socks[0]);
  if (session_inst_init(socks[1]) != 0) {
    close(socks[1]);
    return agent;
  }
  for (int session_id = 1; session_id <= context_list_size("LIST-session"); session_id++) {
    session_t *session = session_find(session_id);
    if (session != nullptr && session->sock == socks[1]) {
      agent.session_id = session_id;
    }
  }
  return agent;
}

void session_fixture::send_message(int session_id, int type, const std::string &text)
{
  EXPECT_EQ(0, session_cache_send(session_id, type, text.data(), static_cast<int>(text.size())));
  EXPECT_EQ(0, session_schedule(session_id));
}

void session_fixture::run()
{
  constexpr int MAX_PASSES = 20000;
  epoll_event events[5];
  for (int pass = 0; pass < MAX_PASSES; pass++) {
    int count = epoll_wait(epfd_.get(), events, 5, 0);
    if (count <= 0) {
      return;
    }
    for (int i = 0; i < count; i++) {
      EXPECT_EQ(static_cast<uint32_t>(AGT_INST), events[i].data.u32 >> 16);
      (void)session_inst_wakeup(static_cast<int>(events[i].data.u32 & 0xffffU), events[i].events);
    }
  }
  FAIL() << "the event loop does not come to rest";
}
