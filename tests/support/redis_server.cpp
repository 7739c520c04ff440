#include "support/redis_server.h"

#include <algorithm>
#include <csignal>
#include <numeric>
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

// All keys in one answer: key, type, number of texts, texts.
constexpr char CONTENT_SCRIPT[] = R"(
  local all = {}
  for _, key in ipairs(redis.call('KEYS', '*')) do
    local type = redis.call('TYPE', key).ok
    local texts = type == 'hash' and redis.call('HGETALL', key)
                  or type == 'list' and redis.call('LRANGE', key, 0, -1) or {redis.call('GET', key)}
    for _, text in ipairs({key, type, tostring(#texts)}) do table.insert(all, text) end
    for _, text in ipairs(texts) do table.insert(all, text) end
  end
  return all)";

} // namespace

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

std::map<std::string, redis_value_t> redis_server::content(int db)
{
  std::map<std::string, redis_value_t> values;
  std::vector<std::string> all = command(db, {"EVAL", CONTENT_SCRIPT, "0"});
  for (auto at = all.begin(); at != all.end();) {
    auto begin = at + 3;
    auto end = begin + std::stol(at[2]);
    values[at[0]] = {at[1], {begin, end}};
    at = end;
  }
  return values;
}

std::string redis_server::dump(int db)
{
  std::string text;
  for (const auto &[key, value] : content(db)) {
    std::vector<std::string> lines;
    size_t step = value.type == "hash" ? 2 : 1;
    for (size_t i = 0; i < value.texts.size(); i += step) {
      lines.push_back("  " + escaped(value.texts[i]) + (step == 2 ? " = " + escaped(value.texts[i + 1]) : "") + "\n");
    }
    if (step == 2) {
      std::sort(lines.begin(), lines.end()); // the server keeps no order
    }
    text += std::accumulate(lines.begin(), lines.end(), value.type + " " + escaped(key) + "\n");
  }
  return text;
}

} // namespace support
