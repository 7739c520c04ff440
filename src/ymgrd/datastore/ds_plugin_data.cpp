// Reading for plugins: configuration before and after a change, neighbours of entries.
#include "ymgrd/datastore/ds_plugin_data.h"

#include <optional>

#include "libconf/plugin_path.h"
#include "ymgrd/core/log.h"
#include "ymgrd/crypto/encrypt.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/datastore/ds_kept.h"
#include "ymgrd/datastore/ds_plugin_path.h"

namespace {

int fail(std::string *ret_error, std::string message)
{
  *ret_error = std::move(message);
  return -1;
}

// The configuration of one moment, open for reading.
class moment_source {
public:
  // 0 or -1 (logged).
  int open(ds_moment_t moment)
  {
    ds_publication_t publication;
    if (!ds_get_publication(&publication)) {
      return open_datastore(ENUM_DATASTORE_RUNNING);
    }
    if (moment == DS_OLD) { // through its own handle, which sees running without what it has written
      source_.emplace(publication.running_hdb, ENUM_DATASTORE_RUNNING, DB_SECRETS_CLEAR);
      return 0;
    }
    if (publication.target_ds == ENUM_DATASTORE_CANDIDATE) {
      return open_datastore(ENUM_DATASTORE_CANDIDATE);
    }
    source_.emplace(publication.data, DB_SECRETS_CLEAR);
    return 0;
  }
  const ds_source &source() const { return *source_; }

private:
  int open_datastore(int datastore)
  {
    if (db_.open(datastore) != 0) {
      log_error("Failed to open db(id = %d)", ds_to_db(datastore));
      return -1;
    }
    source_.emplace(db_.hdb(), datastore, DB_SECRETS_CLEAR); // plugins work with clear values
    return 0;
  }

  ds_session_db db_; // declared before the source, which reads through it
  std::optional<ds_source> source_;
};

// On the way to its end a path names entries, not lists.
int check_way(const ds_steps_t &steps, std::string *ret_error)
{
  for (size_t i = 0; i + 1 < steps.size(); i++) {
    if (steps[i].schema->nodetype == LYS_LIST && !steps[i].is_entry()) {
      return fail(ret_error, "\"" + std::string(steps[i].schema->name) + "\" on the way must be named with its keys.");
    }
  }
  return 0;
}

// An entry brings its keys with it.
int append_entry_keys(const ds_source &source, const ds_path_t &entry, wiped_string *text)
{
  bool has = false;
  if (source.has_entry(entry, &has) != 0) {
    return -1;
  }
  return has ? ds_wrap_text(entry, {}, text) : 0;
}

int append_with_way(const ds_source &source, ds_path_t path, wiped_string *text)
{
  bool is_key = !path.empty() && lysc_is_key(path.back()->schema);
  ds_path_t way = path.empty() ? path : ds_path_t(path.begin(), path.end() - 1);
  if (is_key) {
    return append_entry_keys(source, way, text);
  }
  wiped_string content;
  if (source.read_text(path, &content) != 0) {
    return -1;
  }
  return content.empty() ? 0 : ds_wrap_text(way, content, text);
}

// Positions are looked up in a tree: running is read once, and kept, where it can be.
int keep_running()
{
  ds_publication_t publication;
  if (ds_get_publication(&publication) || differ_nodes != nullptr) {
    return 0;
  }
  ds_session_db db;
  lyd_tree_ptr tree;
  if (db.open(ENUM_DATASTORE_RUNNING) != 0 || ds_take_data(db.hdb(), 0, "/", &tree) != 0) {
    return -1;
  }
  ds_kept_store(std::move(tree));
  return 0;
}

} // namespace

int ds_plugin_pull(std::string_view path, ds_moment_t moment, wiped_string *ret_text, std::string *ret_error)
{
  ds_steps_t steps;
  moment_source data;
  if (ds_parse_plugin_path(path, &steps, ret_error) != 0 || check_way(steps, ret_error) != 0) {
    return -1;
  }
  encrypt_use all_values;
  wiped_string text;
  if (data.open(moment) != 0 || append_with_way(data.source(), ds_path_of(steps), &text) != 0) {
    return fail(ret_error, "The configuration can not be read.");
  }
  *ret_text = std::move(text);
  return 0;
}

int ds_plugin_locate(std::string_view path, ds_moment_t moment, std::string *ret_prev, std::string *ret_next,
                     std::string *ret_error)
{
  ds_steps_t steps;
  moment_source data;
  if (ds_parse_plugin_path(path, &steps, ret_error) != 0 || check_way(steps, ret_error) != 0) {
    return -1;
  }
  if (steps.empty() || !steps.back().is_entry()) {
    return fail(ret_error, "Path \"" + std::string(path) + "\" names no entry of a list or leaf-list.");
  }
  bool has = false;
  std::string prev;
  std::string next;
  if (keep_running() != 0 || data.open(moment) != 0 ||
      data.source().neighbours_of(ds_path_of(steps), &has, &prev, &next) != 0) {
    return fail(ret_error, "The configuration can not be read.");
  }
  if (!has) {
    return fail(ret_error, "There is no entry \"" + std::string(path) + "\".");
  }
  *ret_prev = plugin_path_data2std(prev).value_or("");
  *ret_next = plugin_path_data2std(next).value_or("");
  return 0;
}
