#include "support/redis_server.h"

#include <algorithm>
#include <csignal>
#include <map>
#include <numeric>
#include <set>
#include <stdexcept>

#include <hiredis/hiredis.h>

namespace support {

namespace {

void collect(const redisReply *reply, std::vector<std::string> *texts)
{
  switch (reply->type) {
  case REDIS_REPLY_ERROR:
    throw std::runtime_error("redis: " + std::string(reply->str, reply->len));
  case REDIS_REPLY_ARRAY:
    for (size_t i = 0; i < reply->elements; i++) {
      collect(reply->element[i], texts);
    }
    return;
  case REDIS_REPLY_INTEGER:
    texts->push_back(std::to_string(reply->integer));
    return;
  case REDIS_REPLY_NIL:
    return;
  default:
    texts->emplace_back(reply->str, reply->len);
  }
}

std::string escaped(const std::string &bytes)
{
  const char digits[] = "0123456789abcdef";
  std::string text;
  for (unsigned char byte : bytes) {
    if (byte == '\\') {
      text += "\\\\";
    } else if (byte >= 0x20 && byte < 0x7f) {
      text += static_cast<char>(byte);
    } else {
      text.append("\\x").append(1, digits[byte >> 4]).append(1, digits[byte & 15]);
    }
  }
  return text;
}

// The content of one key as lines.
std::string describe(const std::string &type, const std::vector<std::string> &content)
{
  if (type != "hash") {
    std::string text;
    for (const std::string &value : content) {
      text += "  " + escaped(value) + "\n";
    }
    return text;
  }
  std::set<std::string> lines; // the server keeps no order
  for (size_t i = 0; i + 1 < content.size(); i += 2) {
    lines.insert("  " + escaped(content[i]) + " = " + escaped(content[i + 1]) + "\n");
  }
  return std::accumulate(lines.begin(), lines.end(), std::string());
}

} // namespace

void redis_server::context_delete::operator()(redisContext *context) const
{
  redisFree(context);
}

redis_server::redis_server(const std::string &dir, redis_data data)
    : dir_(dir), socket_path_(dir + "/redis.sock"), data_(data)
{
  signal(SIGPIPE, SIG_IGN); // hiredis writes to connections that may be gone
  start();
}

redis_server::~redis_server() = default;

void redis_server::start()
{
  std::vector<std::string> arguments = {"redis-server", "--port", "0", "--unixsocket", socket_path_, "--dir",
                                        dir_,           "--save", "",  "--databases",  "16"};
  if (data_ == redis_data::kept) {
    arguments.insert(arguments.end(), {"--appendonly", "yes", "--appendfsync", "always"});
  }
  context_.reset();
  auto answers = [this] {
    try {
      return command(0, {"PING"}) == std::vector<std::string>{"PONG"};
    } catch (const std::runtime_error &) {
      return false; // not there yet, or still loading
    }
  };
  std::string log = dir_ + "/redis.log";
  if (!process_.start(arguments, log) || !wait_until([&] { return !process_.running() || answers(); }) || !answers()) {
    throw std::runtime_error("redis-server does not answer:\n" + read_file(log));
  }
}

void redis_server::stop()
{
  context_.reset();
  process_.signal(SIGTERM);
  if (!process_.wait()) {
    throw std::runtime_error("redis-server does not end");
  }
}

void redis_server::kill_now()
{
  context_.reset();
  process_.kill_now();
}

std::vector<std::string> redis_server::run(const std::vector<std::string> &words)
{
  if (context_ == nullptr) {
    context_.reset(redisConnectUnix(socket_path_.c_str()));
  }
  std::vector<const char *> texts;
  std::vector<size_t> lengths;
  for (const std::string &word : words) {
    texts.push_back(word.data());
    lengths.push_back(word.size());
  }
  void *reply = context_ == nullptr || context_->err != 0
                    ? nullptr
                    : redisCommandArgv(context_.get(), static_cast<int>(words.size()), texts.data(), lengths.data());
  if (reply == nullptr) {
    context_.reset();
    throw std::runtime_error("no connection to " + socket_path_);
  }
  std::unique_ptr<redisReply, void (*)(void *)> owner(static_cast<redisReply *>(reply), freeReplyObject);
  std::vector<std::string> result;
  collect(owner.get(), &result);
  return result;
}

std::vector<std::string> redis_server::command(int db, const std::vector<std::string> &words)
{
  run({"SELECT", std::to_string(db)});
  return run(words);
}

std::string redis_server::dump(int db)
{
  const std::map<std::string, std::vector<std::string>> readers = {
      {"hash", {"HGETALL"}}, {"list", {"LRANGE", "0", "-1"}}, {"string", {"GET"}}};
  std::vector<std::string> keys = command(db, {"KEYS", "*"});
  std::sort(keys.begin(), keys.end());
  std::string text;
  for (const std::string &key : keys) {
    std::string type = run({"TYPE", key}).front();
    std::vector<std::string> words = readers.at(type); // other types are not written by anybody: throws
    words.insert(words.begin() + 1, key);
    text += type + " " + escaped(key) + "\n" + describe(type, run(words));
  }
  return text;
}

} // namespace support
