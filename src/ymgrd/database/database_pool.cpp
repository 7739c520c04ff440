// Connections to the server, kept between uses: connecting costs more than most operations.
#include <array>

#include "ymgrd/core/log.h"
#include "ymgrd/core/paths.h"
#include "ymgrd/database/database_internal.h"

namespace {

constexpr std::string_view UNIX_SCHEME = "unix:/";
constexpr std::string_view TCP_SCHEME = "tcp:/";
constexpr size_t IDLE_PER_DATABASE = 4;

std::string g_db_sock;
std::array<std::vector<redis_connection_ptr>, REDIS_PROTOM_DB + 1> g_idle; // by Redis database
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

// What stands behind the first "/" after the scheme. A path directly behind the scheme is taken as the absolute path it
// is.
int text_behind_scheme(std::string_view address, std::string_view scheme, std::string *ret_text)
{
  std::string_view rest = address.substr(scheme.size());
  if (rest.find('/') == std::string_view::npos) {
    return -1;
  }
  *ret_text = rest.front() == '/' ? rest.substr(1) : address.substr(scheme.size() - 1);
  return 0;
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
  std::string text;
  if (driver_path.compare(0, UNIX_SCHEME.size(), UNIX_SCHEME) == 0) {
    if (text_behind_scheme(driver_path, UNIX_SCHEME, &text) != 0) {
      return -1;
    }
    log_debug("Use unix socket to access the database.");
    g_db_sock = text;
  } else if (driver_path.compare(0, TCP_SCHEME.size(), TCP_SCHEME) == 0) {
    if (text_behind_scheme(driver_path, TCP_SCHEME, &text) != 0) {
      return -1;
    }
    log_debug("Use tcp socket to be access the database.");
    g_db_sock = "tcp:" + text; // without its scheme it would be taken for a file
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

void db_pool_close()
{
  for (std::vector<redis_connection_ptr> &idle : g_idle) {
    idle.clear();
  }
  redis_set_connect_hook(nullptr);
  g_server_id.clear();
}
