// Connections to the server, kept between uses: connecting costs more than most operations.
#include <array>

#include "libredisapi/redis_watch.h"
#include "ymgrd/core/log.h"
#include "ymgrd/core/paths.h"
#include "ymgrd/database/database_internal.h"

namespace {

constexpr std::string_view UNIX_SCHEME = "unix:/";
constexpr std::string_view TCP_SCHEME = "tcp:/";
constexpr size_t IDLE_PER_DATABASE = 4;

std::string g_db_sock;
std::array<std::vector<redis_connection_ptr>, REDIS_PROTOM_DB + 1> g_idle; // by Redis database
redis_watch_ptr g_watch; // over the keys of all trees, which begin with "/"
uint64_t g_foreign_writes = 0;
std::string g_server_id;
uint64_t g_server_generation = 0;
bool g_connected = false; // set by each (re)connection, read and cleared by db_connect

std::string read_server_id(rContext *connection)
{
  constexpr std::string_view FIELD = "run_id:";
  redis_reply_ptr reply = redis_command(connection, {"INFO", "server"});
  if (reply == nullptr || reply->str == nullptr) {
    return {};
  }
  std::string_view info(reply->str, reply->len);
  size_t begin = info.find(FIELD);
  if (begin == std::string_view::npos) {
    return {};
  }
  begin += FIELD.size();
  return std::string(info.substr(begin, info.find_first_of("\r\n", begin) - begin));
}

// A server that was restarted may have lost what it was told last.
void note_connection(rContext *connection)
{
  g_connected = true;
  std::string server_id = read_server_id(connection);
  if (server_id.empty() || server_id != g_server_id) {
    g_server_generation++;
    g_server_id = server_id;
    db_differences_forget_all();
    db_backups_forget();
  }
}

bool names_something(std::string_view address, std::string_view scheme)
{
  return address.find('/', scheme.size()) != std::string_view::npos;
}

redis_watch_t *watch()
{
  redis_set_connect_hook(note_connection);
  if (g_watch == nullptr) {
    g_watch.reset(redis_watch_create(g_db_sock.c_str(), "/"));
  }
  return g_watch.get();
}

} // namespace

int db_set_address(const std::string &driver_path)
{
  g_db_sock.clear();
  if (driver_path.empty()) {
    log_debug("Use default unix path to be access the database.");
    g_db_sock = DEFAULT_REDIS_SOCKET;
    return 0;
  }
  if (driver_path.starts_with(UNIX_SCHEME)) {
    if (!names_something(driver_path, UNIX_SCHEME)) {
      return -1;
    }
    log_debug("Use unix socket to access the database.");
    g_db_sock = ymgrd_socket_path(driver_path);
  } else if (driver_path.starts_with(TCP_SCHEME)) {
    if (!names_something(driver_path, TCP_SCHEME)) {
      return -1;
    }
    log_debug("Use tcp socket to be access the database.");
    // Without its scheme it would be taken for a file.
    g_db_sock = "tcp:" + ymgrd_socket_path(driver_path).substr(1);
  }
  return 0;
}

db_connection &db_connection::operator=(db_connection &&other) noexcept
{
  std::swap(connection_, other.connection_);
  std::swap(rdb_, other.rdb_);
  return *this;
}

db_connection::~db_connection()
{
  if (connection_ != nullptr && g_idle[static_cast<size_t>(rdb_)].size() < IDLE_PER_DATABASE) {
    g_idle[static_cast<size_t>(rdb_)].push_back(std::move(connection_));
  }
}

db_connection db_connect(int rdb)
{
  std::vector<redis_connection_ptr> &idle = g_idle[static_cast<size_t>(rdb)];
  redis_connection_ptr connection;
  redis_set_connect_hook(note_connection);
  g_connected = false;
  if (!idle.empty()) {
    connection = std::move(idle.back());
    idle.pop_back();
    if (redis_ensure_connected(connection.get()) != 0) {
      return {};
    }
  } else {
    connection.reset(redis_connect(g_db_sock.c_str()));
    if (connection == nullptr) {
      return {};
    }
    if (redis_select(connection.get(), rdb) != 0) {
      log_error("db open:redis db(%d) does not exist", rdb);
      return {};
    }
  }
  // A server that still loads its data accepts connections and SELECT.
  if (g_connected && redis_ping(connection.get()) != 0) {
    return {};
  }
  return db_connection(std::move(connection), rdb);
}

uint64_t db_server_generation()
{
  return g_server_generation;
}

rContext *db_writer(int rdb)
{
  return redis_watch_writer(watch(), rdb);
}

uint64_t db_foreign_writes()
{
  if (redis_watch_poll(watch()) != REDIS_SEEN_NOTHING) {
    db_differences_forget_all();
    g_foreign_writes++;
  }
  return g_foreign_writes;
}

void db_pool_close()
{
  g_watch.reset();
  for (std::vector<redis_connection_ptr> &idle : g_idle) {
    idle.clear();
  }
  redis_set_connect_hook(nullptr);
  g_server_id.clear();
}
