// What was stored before a leaf became sensitive, or ceased to be: at a start whose profile names other leaves than the
// last one did, stored values are encrypted, or decrypted, where they stand.
#include <algorithm>
#include <iterator>
#include <set>
#include <span>

#include "ymgrd/core/log.h"
#include "ymgrd/crypto/encrypt.h"
#include "ymgrd/crypto/encrypt_registry.h"
#include "ymgrd/database/database.h"
#include "ymgrd/database/database_internal.h"

namespace {

constexpr const char PATHS_KEY[] = "ymgrd-sensitive"; // in running's database: the paths, each with a NUL behind it
constexpr const char UNFINISHED[] = "";               // noted as a path while a conversion has not come to its end
constexpr size_t KEYS_AT_ONCE = 1000;

using path_set_t = std::set<std::string, std::less<>>;

path_set_t configured_paths()
{
  path_set_t paths;
  for (const sensitive_config_t *leaf : encrypt_sensitives()) {
    paths.insert(leaf->path);
  }
  return paths;
}

path_set_t split_paths(std::string_view text)
{
  path_set_t paths;
  for (size_t end = text.find('\0'); end != std::string_view::npos; end = text.find('\0')) {
    paths.emplace(text.substr(0, end));
    text.remove_prefix(end + 1);
  }
  return paths;
}

std::string join_paths(const path_set_t &paths)
{
  std::string text;
  for (const std::string &path : paths) {
    text.append(path).push_back('\0');
  }
  return text;
}

class value_converter {
public:
  value_converter(int rdb, const path_set_t &now, const path_set_t &before) : rdb_(rdb), now_(now), before_(before) {}

  // 0, also when single values could not be converted (logged), or -1.
  int convert()
  {
    db_connection reader = db_connect(rdb_);
    std::vector<std::string> keys;
    if (!reader || redis_scan(reader.get(), "/*", &keys) != 0) {
      return -1;
    }
    for (size_t from = 0; from < keys.size(); from += KEYS_AT_ONCE) {
      std::span<const std::string> part(keys.data() + from, std::min(KEYS_AT_ONCE, keys.size() - from));
      if (convert_keys(reader.get(), part) != 0) {
        return -1;
      }
    }
    return 0;
  }
  size_t converted() const { return converted_; }
  bool has_failed() const { return has_failed_; }

private:
  int convert_keys(rContext *reader, std::span<const std::string> keys)
  {
    redis_batch_ptr reads(redis_batch_create());
    redis_batch_ptr writes(redis_batch_create());
    for (const std::string &key : keys) {
      redis_batch_add(reads.get(), {"HGETALL", key});
    }
    int result = redis_batch_run(reader, reads.get(), [&](size_t index, const redisReply *reply) {
      for (size_t i = 0; reply->type == REDIS_REPLY_ARRAY && i + 1 < reply->elements; i += 2) { // a list gives an error
        convert_field(keys[index], redis_reply_text(reply->element[i]), redis_reply_text(reply->element[i + 1]),
                      writes.get());
      }
    });
    if (result != 0 || redis_batch_size(writes.get()) == 0) {
      return result;
    }
    rContext *writer = db_writer(rdb_);
    return writer == nullptr ? -1 : redis_batch_run_atomic(writer, writes.get());
  }

  void convert_field(std::string_view key, std::string_view field, std::string_view value, redis_batch_t *writes)
  {
    int32_t type = 0;
    std::string_view text;
    if (db_read_value(value, &type, &text) != 0 || text.empty()) {
      return;
    }
    std::string path = db_path_without_keys(key, field);
    bool is_to_encrypt = now_.contains(path);
    // A password may look like cipher text.
    bool is_due = is_to_encrypt ? !is_cipher_text(text) : before_.contains(path) && encrypt_is_marked(text);
    if (!is_due) {
      return;
    }
    std::string converted;
    if (convert_text(text, is_to_encrypt, &converted) != 0) {
      log_error("Stored value of %.512s could not be %s.", path.c_str(),
                is_to_encrypt ? "encrypted: it is in clear until it is set again" : "decrypted");
      has_failed_ = true;
      return;
    }
    redis_batch_add(writes, {"HSET", key, field, db_make_value(type, converted)});
    converted_++;
  }

  static int convert_text(std::string_view text, bool is_to_encrypt, std::string *ret_text)
  {
    if (is_to_encrypt) {
      return encrypt_sensitive(text, ret_text);
    }
    wiped_string plain;
    if (decrypt_sensitive(text, &plain) != 0) {
      return -1;
    }
    ret_text->assign(plain);
    return 0;
  }

  int rdb_;
  const path_set_t &now_;
  const path_set_t &before_;
  size_t converted_ = 0;
  bool has_failed_ = false;
};

int note_paths(rContext *connection, const path_set_t &paths)
{
  redis_reply_ptr noted = redis_command(connection, {"SET", PATHS_KEY, join_paths(paths)});
  return noted == nullptr || redis_reply_is_error(noted.get()) ? -1 : 0;
}

// The old values must not stay in the server's files either.
void renew_files(rContext *connection)
{
  (void)redis_savedb_improve(connection); // reported there; the next save does it
  redis_reply_ptr info = redis_command(connection, {"INFO", "persistence"});
  if (info != nullptr && info->type == REDIS_REPLY_STRING &&
      redis_reply_text(info.get()).find("aof_enabled:1") != std::string::npos) {
    (void)redis_command(connection, {"BGREWRITEAOF"});
  }
}

} // namespace

int db_protect_stored()
{
  db_connection running = db_connect(REDIS_RUNNING_DB_MASTER);
  redis_reply_ptr stored = running ? redis_command(running.get(), {"GET", PATHS_KEY}) : nullptr;
  if (stored == nullptr || redis_reply_is_error(stored.get())) {
    return -1;
  }
  path_set_t now = configured_paths();
  const path_set_t before = split_paths(stored->type == REDIS_REPLY_STRING ? redis_reply_text(stored.get()) : "");
  // What is set aside stays cipher text, also when the profile no longer names it.
  std::copy_if(before.begin(), before.end(), std::inserter(now, now.end()),
               [](const std::string &path) { return path != UNFINISHED && !db_is_in_schema(path); });
  if (now == before) {
    return 0;
  }
  // Should it be cut off, the next start converts too, even if its profile is again the one of before.
  path_set_t either = now;
  either.insert(before.begin(), before.end());
  either.insert(UNFINISHED);
  if (note_paths(running.get(), either) != 0) {
    return -1;
  }
  size_t converted = 0;
  bool has_failed = false;
  encrypt_use all_values;
  for (int rdb :
       {REDIS_STARTUP_DB_MASTER, REDIS_RUNNING_DB_MASTER, REDIS_CANDIDATE_DB_MASTER, REDIS_STATUS_DB_MASTER}) {
    value_converter converter(rdb, now, before);
    if (converter.convert() != 0) {
      return -1;
    }
    converted += converter.converted();
    has_failed = has_failed || converter.has_failed();
  }
  db_differences_forget_all(); // one value has another cipher text in each datastore
  log_info("The sensitive leaves have changed: %zu stored values were converted.", converted);
  if (converted > 0) {
    renew_files(running.get());
  }
  if (has_failed) {
    return 0; // tried again at the next start
  }
  return note_paths(running.get(), now);
}
