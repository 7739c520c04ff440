#include <algorithm>
#include <cstdint>

#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/datastore/edit_internal.h"

namespace {

struct where_name_t {
  std::string_view text;
  edit_where_t where;
};

const where_name_t where_names[] = {
    {"first", EDIT_FIRST}, {"last", EDIT_LAST}, {"before", EDIT_BEFORE}, {"after", EDIT_AFTER}};

const char *insert_attribute(const lyd_node *config, const char *name)
{
  const lyd_meta *meta = lyd_find_meta(config->meta, nullptr, name);
  return meta == nullptr ? nullptr : lyd_get_meta_value(meta);
}

lyd_node *find_reference(const edit_job_t *job, const edit_place_t &place, const lyd_node *config)
{
  const char *text = insert_attribute(config, config->schema->nodetype == LYS_LIST ? "yang:key" : "yang:value");
  lyd_node *siblings = edit_siblings(job, place.parent);
  lyd_node *match = nullptr;
  if (text == nullptr || siblings == nullptr ||
      lyd_find_sibling_val(siblings, config->schema, text, 0, &match) != LY_SUCCESS) {
    return nullptr;
  }
  return match;
}

lyd_node *last_instance(lyd_node *entry)
{
  while (entry->next != nullptr && entry->next->schema == entry->schema) { // instances stand together
    entry = entry->next;
  }
  return entry;
}

bool is_first_instance(const lyd_node *entry)
{
  // The first sibling's prev is the last sibling.
  return entry->prev->next == nullptr || entry->prev->schema != entry->schema;
}

// The key of a sibling entry, given the key of the entry being placed.
std::string sibling_key(const edit_place_t &place, const lyd_node *entry, const lyd_node *sibling)
{
  size_t own = dbkey_segment(entry).size() + 1 + dbkey_predicate(entry).size() + 2;
  std::string key = place.key->substr(0, place.key->size() - own);
  dbkey_append(&key, sibling);
  return key;
}

constexpr int DIRECTLY_BEFORE = -1;
constexpr int DIRECTLY_AFTER = 1;

int move_next_to(edit_job_t *job, const edit_place_t &place, lyd_node *entry, lyd_node *reference, bool after)
{
  std::string coords = sibling_key(place, entry, reference);
  job->changes.moves(entry);
  LY_ERR result = after ? lyd_insert_after(reference, entry) : lyd_insert_before(reference, entry);
  if (result != LY_SUCCESS) {
    log_error("edit operation database lyd node fail(merge tree).");
    return -1;
  }
  if (place.parent == nullptr) { // the first top node may have changed
    lyd_node *first = job->data.release();
    job->data.reset(lyd_first_sibling(first));
  }
  if (job->request->done && database_move(job->request->hdb, place.key->c_str(), coords.c_str(),
                                          after ? DIRECTLY_AFTER : DIRECTLY_BEFORE) != 0) {
    log_error("write database %.512s fail.", place.key->c_str());
    return -1;
  }
  return 0;
}

bool stand_in_order(lyd_node *first, const std::vector<lyd_node *> &wanted)
{
  const lyd_node *entry = first;
  for (const lyd_node *next : wanted) {
    while (entry != next) {
      entry = entry->next;
      if (entry == nullptr || entry->schema != next->schema) {
        return false;
      }
    }
  }
  return true;
}

// Of an entry that is named twice the last time counts.
std::vector<lyd_node *> without_repetitions(const std::vector<lyd_node *> &wanted)
{
  std::unordered_map<const lyd_node *, size_t> last_mention;
  for (size_t i = 0; i < wanted.size(); i++) {
    last_mention[wanted[i]] = i;
  }
  std::vector<lyd_node *> once;
  for (size_t i = 0; i < wanted.size(); i++) {
    if (last_mention[wanted[i]] == i) {
      once.push_back(wanted[i]);
    }
  }
  return once;
}

std::vector<size_t> positions_of(const std::vector<lyd_node *> &wanted, const lyd_node *first)
{
  std::unordered_map<const lyd_node *, size_t> by_entry;
  for (const lyd_node *entry = first; entry != nullptr && entry->schema == first->schema; entry = entry->next) {
    by_entry.emplace(entry, by_entry.size());
  }
  std::vector<size_t> positions;
  for (const lyd_node *entry : wanted) {
    positions.push_back(by_entry[entry]);
  }
  return positions;
}

// Marks a longest rising subsequence: what may stay when everything else moves.
std::vector<bool> longest_rising(const std::vector<size_t> &numbers)
{
  constexpr size_t NONE = SIZE_MAX;
  std::vector<size_t> ends; // by length: index of the smallest number that ends a rising subsequence of that length
  std::vector<size_t> before(numbers.size(), NONE);
  for (size_t i = 0; i < numbers.size(); i++) {
    auto end = std::lower_bound(ends.begin(), ends.end(), numbers[i],
                                [&numbers](size_t index, size_t number) { return numbers[index] < number; });
    before[i] = end == ends.begin() ? NONE : *(end - 1);
    if (end == ends.end()) {
      ends.push_back(i);
    } else {
      *end = i;
    }
  }
  std::vector<bool> is_in(numbers.size(), false);
  for (size_t i = ends.empty() ? NONE : ends.back(); i != NONE; i = before[i]) {
    is_in[i] = true;
  }
  return is_in;
}

// The place is the parent's.
int move_behind(edit_job_t *job, const edit_place_t &place, lyd_node *entry, lyd_node *previous, differ_list *diff)
{
  size_t parent_length = place.key->size();
  dbkey_append(place.key, entry);
  edit_position_t position{previous == nullptr ? EDIT_FIRST : EDIT_AFTER, previous};
  bool moved = false;
  int result = edit_move(job, place, entry, position, &moved);
  if (result == 0 && moved) {
    differ_ptr made = edit_diff(place, DBDIFF_MOVE, entry->schema, entry, entry);
    result = made == nullptr ? -1 : 0;
    diff->append(made.release());
  }
  place.key->resize(parent_length);
  return result;
}

} // namespace

bool ds_has_attr_insert(const lyd_node *config)
{
  return config->schema != nullptr && lysc_is_userordered(config->schema) &&
         insert_attribute(config, "yang:insert") != nullptr;
}

int edit_read_position(edit_job_t *job, const edit_place_t &place, const lyd_node *config,
                       edit_position_t *ret_position)
{
  std::string_view text = insert_attribute(config, "yang:insert");
  edit_position_t position;
  for (const where_name_t &row : where_names) {
    if (text == row.text) {
      position.where = row.where;
    }
  }
  if (position.where == EDIT_KEEP) {
    return edit_fail(job, REPLY_ERR_BAD_ATTR, config);
  }
  if (position.where == EDIT_BEFORE || position.where == EDIT_AFTER) {
    position.reference = find_reference(job, place, config);
    if (position.reference == nullptr) { // RFC 7950, section 15.7
      (void)edit_fail(job, REPLY_ERR_BAD_ATTR, config);
      rpc_set_error_field(job->error.get(), REPLY_ERR_FIELD_APPTAG, "missing-instance");
      return -1;
    }
  }
  *ret_position = position;
  return 0;
}

int edit_move(edit_job_t *job, const edit_place_t &place, lyd_node *entry, const edit_position_t &position,
              bool *ret_moved)
{
  lyd_node *reference = position.reference;
  bool after = position.where == EDIT_AFTER || position.where == EDIT_LAST;
  if (position.where == EDIT_FIRST) {
    reference = is_first_instance(entry) ? entry : edit_find_schema(job, place.parent, entry->schema);
  } else if (position.where == EDIT_LAST) {
    reference = last_instance(entry);
  }
  bool stands_there = reference == entry || (after ? reference->next == entry : entry->next == reference);
  *ret_moved = !stands_there;
  return stands_there ? 0 : move_next_to(job, place, entry, reference, after);
}

int edit_arrange(edit_job_t *job, const edit_place_t &place, const std::vector<lyd_node *> &wanted, differ_list *diff)
{
  if (wanted.empty()) {
    return 0;
  }
  lyd_node *first = edit_find_schema(job, place.parent, wanted.front()->schema);
  if (stand_in_order(first, wanted)) {
    return 0;
  }
  std::vector<lyd_node *> entries = without_repetitions(wanted);
  std::vector<bool> stays = longest_rising(positions_of(entries, first));
  lyd_node *previous = nullptr;
  for (size_t i = 0; i < entries.size(); i++) {
    if (!stays[i] && move_behind(job, place, entries[i], previous, diff) != 0) {
      return -1;
    }
    previous = entries[i];
  }
  return 0;
}
