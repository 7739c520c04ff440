// Inside a daemon: counts its writes to Redis, and kills it before a chosen one. In the directory YMGR_CUT_DIR, the
// file "limit" says how many writes are let through; without it nothing is counted. Each write becomes a line of the
// file "writes": database, command, and the transaction state when it sets that.
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <hiredis/hiredis.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// What is not named here may change data.
const std::set<std::string> reading_commands = {
    "CLIENT", "DBSIZE", "DISCARD", "EXISTS", "HEXISTS", "HGET", "HGETALL", "HKEYS",    "INFO",      "KEYS", "LINDEX",
    "LLEN",   "LPOS",   "LRANGE",  "MULTI",  "PING",    "SCAN", "SELECT",  "SMEMBERS", "SUBSCRIBE", "TYPE"};

struct link_state_t {
  std::string db = "0";
  bool in_multi = false;
};
std::map<const redisContext *, link_state_t> links;

std::string file(const char *name)
{
  return std::getenv("YMGR_CUT_DIR") + std::string("/") + name;
}

// A MULTI is one write, its EXEC: what was queued without it has no effect.
bool is_write(link_state_t *link, const std::vector<std::string> &words)
{
  const std::string &name = words.front();
  if (name == "MULTI" || name == "EXEC" || name == "DISCARD") {
    link->in_multi = name == "MULTI";
  }
  if (name == "SELECT") {
    link->db = words.at(1);
  }
  return !link->in_multi && !reading_commands.contains(name);
}

// Notes the write. Whether it may be done.
bool may_write(const std::string &db, const std::vector<std::string> &words)
{
  std::ifstream limit_file(file("limit"));
  size_t limit = 0;
  if (!(limit_file >> limit)) {
    return true;
  }
  std::ifstream noted(file("writes"));
  size_t count = 0;
  for (std::string line; std::getline(noted, line);) {
    count++;
  }
  if (count >= limit) {
    return false;
  }
  bool sets_state = words.size() == 4 && words[2] == "transact-state";
  std::ofstream(file("writes"), std::ios::app)
      << db << ' ' << words.front() << ' ' << (sets_state ? words[3].front() : '-') << '\n';
  return true;
}

// The server executes what goes before, and has forgotten the connection when the daemon has gone.
[[noreturn]] void die_behind(const redisContext *link, size_t length)
{
  (void)send(link->fd, link->obuf, length, MSG_NOSIGNAL); // the server always reads: all of it goes
  shutdown(link->fd, SHUT_WR);
  char dropped[4096];
  while (recv(link->fd, dropped, sizeof(dropped), 0) > 0) {
  }
  kill(getpid(), SIGKILL);
  std::abort();
}

} // namespace

// Stands in front of hiredis' own function, through which all commands go. They have the form of replies.
extern "C" int redisBufferWrite(redisContext *link, int *done)
{
  static const auto write_out = reinterpret_cast<decltype(&redisBufferWrite)>(dlsym(RTLD_NEXT, "redisBufferWrite"));
  std::unique_ptr<redisReader, void (*)(redisReader *)> reader(redisReaderCreate(), redisReaderFree);
  const size_t length = sdslen(link->obuf);
  redisReaderFeed(reader.get(), link->obuf, length);
  void *command = nullptr;
  for (size_t begin = 0; redisReaderGetReply(reader.get(), &command) == REDIS_OK && command != nullptr;) {
    std::unique_ptr<redisReply, void (*)(void *)> owner(static_cast<redisReply *>(command), freeReplyObject);
    std::vector<std::string> words;
    for (size_t i = 0; i < owner->elements; i++) {
      words.emplace_back(owner->element[i]->str, owner->element[i]->len);
    }
    link_state_t &state = links[link];
    if (is_write(&state, words) && !may_write(state.db, words)) {
      die_behind(link, begin);
    }
    begin = length - (reader->len - reader->pos);
  }
  return write_out(link, done);
}
