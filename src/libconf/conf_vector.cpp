#include "libconf/conf_vector.h"

#include <algorithm>
#include <climits>
#include <exception>
#include <memory>
#include <vector>

struct _conf_vector {
  std::vector<void *> slots; // up to the last one ever used
  size_t first_empty = 0;    // no slot below is empty
};

namespace {

bool in_range(const conf_vector_t *vector, int index)
{
  return vector != nullptr && index >= 0 && static_cast<size_t>(index) < vector->slots.size();
}

} // namespace

conf_vector_t *conf_vector_create(int init_size)
{
  if (init_size < 0) {
    return nullptr;
  }
  try {
    auto vector = std::make_unique<conf_vector_t>();
    vector->slots.reserve(static_cast<size_t>(init_size));
    return vector.release(); // conf_vector_destroy takes it back
  } catch (const std::exception &) {
    return nullptr;
  }
}

void conf_vector_destroy(conf_vector_t *vector, void (*free_func)(void *entry))
{
  if (vector == nullptr) {
    return;
  }
  if (free_func != nullptr) {
    for (void *entry : vector->slots) {
      if (entry != nullptr) {
        free_func(entry);
      }
    }
  }
  delete vector;
}

int conf_vector_add(conf_vector_t **vector, void *entry)
{
  if (vector == nullptr || *vector == nullptr || entry == nullptr) {
    return -1;
  }
  std::vector<void *> &slots = (*vector)->slots;
  auto empty = std::find(slots.begin() + static_cast<std::ptrdiff_t>((*vector)->first_empty), slots.end(), nullptr);
  size_t index = static_cast<size_t>(empty - slots.begin());
  if (index >= INT_MAX) {
    return -1;
  }
  if (empty != slots.end()) {
    *empty = entry;
  } else {
    try {
      slots.push_back(entry);
    } catch (const std::exception &) {
      return -1;
    }
  }
  (*vector)->first_empty = index + 1;
  return static_cast<int>(index);
}

void *conf_vector_get(const conf_vector_t *vector, int index)
{
  return in_range(vector, index) ? vector->slots[static_cast<size_t>(index)] : nullptr;
}

int conf_vector_remove(conf_vector_t *vector, int index)
{
  if (conf_vector_get(vector, index) == nullptr) {
    return -1;
  }
  vector->slots[static_cast<size_t>(index)] = nullptr;
  vector->first_empty = std::min(vector->first_empty, static_cast<size_t>(index));
  return 0;
}

int conf_vector_size(const conf_vector_t *vector)
{
  return vector == nullptr ? 0 : static_cast<int>(vector->slots.size());
}
