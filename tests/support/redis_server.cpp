#include "support/redis_server.h"

#include <algorithm>
#include <csignal>
#include <set>
#include <stdexcept>

#include <hiredis/hiredis.h>

namespace support {

namespace {

constexpr size_t PIPELINE_WINDOW = 512;

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

// The command that reads a whole key of each type.
std::vector<std::string> read_command(const std::string &type, const std::string &key)
{
  if (type == "hash") {
    return {"HGETALL", key};
  }
  if (type == "list") {
    return {"LRANGE", key, "0", "-1"};
  }
  if (type == "set") {
    return {"SMEMBERS", key};
  }
  if (type == "zset") {
    return {"ZRANGE", key, "0", "-1", "WITHSCORES"};
  }
  return {"GET", key};
}

std::string describe(const std::string &type, const std::vector<std::string> &content)
{
  std::vector<std::string> lines;
  if (type == "hash" || type == "zset") {
    for (size_t i = 0; i + 1 < content.size(); i += 2) {
      lines.push_back("  " + escaped(content[i]) + " = " + escaped(content[i + 1]) + "\n");
    }
  } else {
    for (const std::string &value : content) {
      lines.push_back("  " + escaped(value) + "\n");
    }
  }
  if (type == "hash" || type == "set") {
    std::sort(lines.begin(), lines.end()); // the server keeps no order
  }
  std::string text;
  for (const std::string &line : lines) {
    text += line;
  }
  return text;
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

redisContext *redis_server::connection()
{
  if (context_ == nullptr) {
    context_.reset(redisConnectUnix(socket_path_.c_str()));
  }
  if (context_ == nullptr || context_->err != 0) {
    context_.reset();
    throw std::runtime_error("no connection to " + socket_path_);
  }
  return context_.get();
}

std::vector<std::vector<std::string>> redis_server::pipeline(const std::vector<std::vector<std::string>> &commands)
{
  std::vector<std::vector<std::string>> replies;
  for (size_t begin = 0; begin < commands.size(); begin += PIPELINE_WINDOW) {
    size_t end = std::min(commands.size(), begin + PIPELINE_WINDOW);
    for (size_t i = begin; i < end; i++) {
      std::vector<const char *> words;
      std::vector<size_t> lengths;
      for (const std::string &word : commands[i]) {
        words.push_back(word.data());
        lengths.push_back(word.size());
      }
      redisAppendCommandArgv(connection(), static_cast<int>(words.size()), words.data(), lengths.data());
    }
    while (replies.size() < end) {
      void *reply = nullptr;
      if (redisGetReply(connection(), &reply) != REDIS_OK) {
        context_.reset();
        throw std::runtime_error("lost the connection to " + socket_path_);
      }
      std::unique_ptr<redisReply, void (*)(void *)> owner(static_cast<redisReply *>(reply), freeReplyObject);
      collect(owner.get(), &replies.emplace_back());
    }
  }
  return replies;
}

void redis_server::select(int db)
{
  pipeline({{"SELECT", std::to_string(db)}});
}

std::vector<std::string> redis_server::command(int db, const std::vector<std::string> &words)
{
  select(db);
  return pipeline({words}).front();
}

std::string redis_server::dump(int db)
{
  select(db);
  std::set<std::string> keys; // SCAN may name a key twice
  std::string cursor = "0";
  do {
    std::vector<std::string> found = pipeline({{"SCAN", cursor, "COUNT", "1000"}}).front();
    cursor = found.front();
    keys.insert(found.begin() + 1, found.end());
  } while (cursor != "0");

  std::vector<std::vector<std::string>> commands;
  for (const std::string &key : keys) {
    commands.push_back({"TYPE", key});
  }
  std::vector<std::vector<std::string>> types = pipeline(commands);
  commands.clear();
  size_t index = 0;
  for (const std::string &key : keys) {
    commands.push_back(read_command(types[index++].front(), key));
  }
  std::vector<std::vector<std::string>> contents = pipeline(commands);

  std::string text;
  index = 0;
  for (const std::string &key : keys) {
    const std::string &type = types[index].front();
    text += type + " " + escaped(key) + "\n" + describe(type, contents[index]);
    index++;
  }
  return text;
}

} // namespace support
