#include <cstdint>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "libconf/conf_buffer.h"
#include "libconf/conf_hash.h"
#include "libconf/conf_vector.h"

namespace {

TEST(conf_buffer, cut_bytes_are_cleared_and_ranges_outside_refused)
{
  conf_buffer_ptr buffer(conf_buffer_create(4));
  ASSERT_EQ(conf_buffer_append(buffer.get(), "keep-secret", 11), 0);
  EXPECT_EQ(conf_buffer_remove(buffer.get(), 12, 0), -1);
  EXPECT_EQ(conf_buffer_remove(buffer.get(), 2, SIZE_MAX), -1);
  EXPECT_EQ(conf_buffer_reserve(buffer.get(), SIZE_MAX - 2), nullptr);
  ASSERT_EQ(conf_buffer_remove(buffer.get(), 4, 7), 0);
  EXPECT_EQ(std::string_view(buffer->data, 11), std::string_view("keep\0\0\0\0\0\0\0", 11));
}

TEST(conf_hash, replacing_a_value_with_a_part_of_itself_keeps_the_bytes)
{
  conf_hash_tbl_t *table = conf_hash_create(4);
  ASSERT_EQ(conf_hash_add(table, "OPT-a", "0123456789", 11), 0);
  auto *old_value = static_cast<char *>(conf_hash_get(table, "OPT-a", nullptr));
  ASSERT_EQ(conf_hash_add(table, "OPT-a", old_value + 5, 6), 0);
  int length = 0;
  EXPECT_STREQ(static_cast<char *>(conf_hash_get(table, "OPT-a", &length)), "56789");
  EXPECT_EQ(length, 6);
  EXPECT_EQ(conf_hash_add(table, "OPT-a", nullptr, 4), -1);
  EXPECT_EQ(conf_hash_add(table, "OPT-a", "x", -1), -1);
  EXPECT_EQ(conf_hash_del(table, "OPT-a"), 0);
  EXPECT_EQ(conf_hash_del(table, "OPT-a"), -1);
  EXPECT_EQ(conf_hash_get(table, "OPT-a", &length), nullptr);
  conf_hash_destroy(table);
}

TEST(conf_vector, indices_stay_and_emptied_slots_are_used_again_lowest_first)
{
  int entries[12] = {};
  conf_vector_t *vector = conf_vector_create(4);
  for (int i = 0; i < 9; i++) {
    ASSERT_EQ(conf_vector_add(&vector, &entries[i]), i);
  }
  EXPECT_EQ(conf_vector_remove(vector, 6), 0);
  EXPECT_EQ(conf_vector_remove(vector, 2), 0);
  EXPECT_EQ(conf_vector_remove(vector, 2), -1);
  EXPECT_EQ(conf_vector_remove(vector, 9), -1);
  EXPECT_EQ(conf_vector_size(vector), 9);
  EXPECT_EQ(conf_vector_get(vector, 2), nullptr);
  EXPECT_EQ(conf_vector_get(vector, 8), &entries[8]);
  EXPECT_EQ(conf_vector_add(&vector, &entries[9]), 2);
  EXPECT_EQ(conf_vector_add(&vector, &entries[10]), 6);
  EXPECT_EQ(conf_vector_add(&vector, &entries[11]), 9);
  static int freed;
  freed = 0;
  ASSERT_EQ(conf_vector_remove(vector, 0), 0);
  conf_vector_destroy(vector, [](void *) { freed++; });
  EXPECT_EQ(freed, 9);
}

} // namespace
