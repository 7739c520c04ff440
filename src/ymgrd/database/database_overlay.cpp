#include "ymgrd/database/database_overlay.h"

#include <algorithm>

bool db_stands_below(const db_key_set &keys, std::string_view key)
{
  if (keys.empty()) {
    return false;
  }
  // Every cut at "/" or "[" is tried; one inside a quoted value is no key and matches nothing.
  for (size_t i = 1; i < key.size(); i++) {
    if ((key[i] == '/' || key[i] == '[') && keys.find(key.substr(0, i)) != keys.end()) {
      return true;
    }
  }
  return keys.find(key) != keys.end();
}

// --- list_order

uint32_t list_order::id_of_new(std::string_view member)
{
  auto known = ids_.find(member);
  if (known != ids_.end()) {
    return known->second; // a member that stands twice
  }
  auto id = static_cast<uint32_t>(names_.size());
  names_.push_back(std::make_unique<std::string>(member));
  removed_.push_back(false);
  ids_.emplace(*names_.back(), id);
  return id;
}

void list_order::compact()
{
  if (has_removed_) {
    std::erase_if(order_, [this](uint32_t id) { return removed_[id]; });
    has_removed_ = false;
  }
}

void list_order::append(std::string_view member)
{
  order_.push_back(id_of_new(member));
}

void list_order::prepend(std::string_view member)
{
  order_.insert(order_.begin(), id_of_new(member));
}

bool list_order::remove(std::string_view member)
{
  auto known = ids_.find(member);
  if (known == ids_.end()) {
    return false;
  }
  removed_[known->second] = true;
  has_removed_ = true;
  ids_.erase(known); // added again, it is a new one
  return true;
}

void list_order::insert(size_t position, std::string_view member)
{
  compact();
  order_.insert(order_.begin() + static_cast<std::ptrdiff_t>(position), id_of_new(member));
}

std::optional<size_t> list_order::position_of(std::string_view member)
{
  compact();
  auto known = ids_.find(member);
  if (known == ids_.end()) {
    return std::nullopt;
  }
  return static_cast<size_t>(std::find(order_.begin(), order_.end(), known->second) - order_.begin());
}

std::string_view list_order::at(size_t position)
{
  compact();
  return *names_[order_[position]];
}

size_t list_order::size()
{
  compact();
  return order_.size();
}

std::vector<std::string_view> list_order::members()
{
  compact();
  std::vector<std::string_view> members;
  members.reserve(order_.size());
  for (uint32_t id : order_) {
    members.push_back(*names_[id]);
  }
  return members;
}

bool db_apply_list_op(pending_list_t *list, pending_op_t *op)
{
  list_order *order = list->order.get();
  switch (op->op) {
  case LIST_PUSH_HEAD:
    order->prepend(op->member);
    break;
  case LIST_PUSH_TAIL:
    order->append(op->member);
    break;
  case LIST_REMOVE:
    if (!order->remove(op->member)) {
      list->missing.push_back(op->member);
    }
    break;
  case LIST_INSERT_BEFORE:
    order->insert(order->position_of(op->pivot).value_or(order->size()), op->member);
    break;
  case LIST_ADD:
    if (order->contains(op->member)) {
      return false;
    }
    op->op = LIST_PUSH_TAIL;
    order->append(op->member);
    break;
  }
  return true;
}

// --- db_overlay

void db_overlay::clear()
{
  // New containers: a cleared one keeps its buckets, and every later clear would pay for the largest edit so far.
  recent_ = nullptr;
  sorted_.clear(); // borrows the keys' texts: goes first
  keys_ = decltype(keys_)();
  is_sorted_ = false;
  deleted_.clear();
  deleted_keys_ = db_key_set();
  replaced_ = false;
  replacement_ = 0;
}

pending_key_t *db_overlay::key_at(std::string_view key)
{
  if (recent_ != nullptr && recent_key_ == key) {
    return recent_;
  }
  auto found = keys_.find(key);
  if (found == keys_.end()) {
    found = keys_.emplace(std::string(key), pending_key_t()).first;
    if (is_sorted_) {
      sorted_.insert(found->first);
    }
  }
  recent_key_ = found->first;
  recent_ = &found->second;
  return recent_;
}

void db_overlay::set_field(std::string_view key, std::string_view field, int type, std::string_view text)
{
  std::vector<pending_field_t> &fields = key_at(key)->fields;
  auto known = std::find_if(fields.begin(), fields.end(), [field](const auto &other) { return other.name == field; });
  if (known == fields.end()) {
    fields.push_back({std::string(field), std::string(text), type});
    return;
  }
  known->type = type;
  known->text = text;
}

pending_list_t *db_overlay::list_at(std::string_view list_key)
{
  pending_key_t *key = key_at(list_key);
  if (key->list == nullptr) {
    key->list = std::make_unique<pending_list_t>();
    key->list->starts_empty = (replaced_ && replacement_ == 0) || is_deleted(list_key);
  }
  return key->list.get();
}

void db_overlay::add_list_op(std::string_view list_key, pending_op_t op)
{
  pending_list_t *list = list_at(list_key);
  if (list->order != nullptr && !db_apply_list_op(list, &op)) {
    return;
  }
  list->searches += op.op == LIST_PUSH_HEAD || op.op == LIST_PUSH_TAIL ? 0 : 1;
  list->ops.push_back(std::move(op));
}

void db_overlay::remove_node(const db_address_t &address)
{
  deleted_node_t node = {address, false};
  if (!address.is_entry()) {
    auto parent = keys_.find(address.key);
    if (parent != keys_.end()) {
      const std::vector<pending_field_t> &fields = parent->second.fields;
      node.was_there = std::any_of(fields.begin(), fields.end(),
                                   [&address](const auto &field) { return field.name == address.item; });
    }
  }
  drop_subtree(address.data_key);
  if (address.is_entry()) {
    add_list_op(address.key, {LIST_REMOVE, address.item, {}});
  } else {
    set_field(address.key, address.item, FIELD_REMOVED, {});
  }
  if (deleted_keys_.insert(address.data_key).second) {
    deleted_.push_back(std::move(node));
  }
}

void db_overlay::replace_all(int source)
{
  clear();
  replaced_ = true;
  replacement_ = source;
}

void db_overlay::drop_from(std::string_view first, std::string_view prefix)
{
  auto it = sorted_.lower_bound(first);
  while (it != sorted_.end() && it->compare(0, prefix.size(), prefix) == 0) {
    auto key = keys_.find(*it);
    it = sorted_.erase(it); // before the key whose text it borrows goes
    keys_.erase(key);
  }
}

void db_overlay::drop_subtree(std::string_view data_key)
{
  if (keys_.empty()) {
    return;
  }
  recent_ = nullptr;
  if (!is_sorted_) {
    for (const auto &[key, pending] : keys_) {
      sorted_.insert(key);
    }
    is_sorted_ = true;
  }
  auto own = keys_.find(data_key);
  if (own != keys_.end()) {
    sorted_.erase(own->first);
    keys_.erase(own);
  }
  // Two ranges: names that only begin alike stand between them.
  std::string below = std::string(data_key) + '/';
  drop_from(below, below);
  below.back() = '[';
  drop_from(below, below);
}

bool db_overlay::is_deleted(std::string_view key) const
{
  return db_stands_below(deleted_keys_, key);
}

bool db_overlay::is_gone(std::string_view data_key) const
{
  return db_stands_below(gone_, data_key);
}
