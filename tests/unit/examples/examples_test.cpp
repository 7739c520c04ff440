#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <string>
#include <utility>

#include <sys/stat.h>

extern "C" {
#include "interfaces/addresses.h"
#include "system/files.h"
}

namespace {

TEST(example_files, a_replaced_file_is_the_new_one_or_the_old_one_and_nothing_is_left_beside_it)
{
  namespace fs = std::filesystem;
  fs::path folder = fs::path(testing::TempDir()) / ("example_files." + std::to_string(getpid()));
  fs::path file = folder / "hostname", taken = folder / "taken";
  fs::create_directories(taken / "in use"); // can not be replaced by a file
  const std::string first(1 << 20, 'x'), second(1 << 20, 'y');
  umask(077); // must not count
  EXPECT_EQ(file_replace(file.c_str(), first.data(), first.size(), 0644), 0);
  EXPECT_EQ(file_replace(file.c_str(), second.data(), second.size(), 0644), 0);
  EXPECT_TRUE(file_holds(file.c_str(), second.data(), second.size(), 0644));
  EXPECT_FALSE(file_holds(file.c_str(), first.data(), first.size(), 0644));
  EXPECT_EQ(file_replace(taken.c_str(), "new", 3, 0644), -1);
  EXPECT_EQ(std::distance(fs::directory_iterator(folder), {}), 2);
  fs::remove_all(folder);
}

struct addresses {
  address_set_t set = {};
  addresses(std::initializer_list<std::pair<const char *, unsigned long>> items)
  {
    for (const auto &[ip, length] : items) {
      address_t address;
      EXPECT_TRUE(address_parse(ip, length, &address) == 0 && address_set_add(&set, &address) == 0) << ip;
    }
  }
  ~addresses() { address_set_free(&set); }
};

TEST(example_addresses, what_differs_are_addresses_that_only_one_side_has_with_that_prefix)
{
  addresses old{{"192.0.2.1", 24}, {"2001:db8::1", 64}, {"10.0.0.1", 8}, {"0.0.0.10", 8}};
  addresses wanted{{"10.0.0.1", 16}, {"2001:DB8:0::1", 64}, {"192.0.2.1", 24}, {"192.0.2.1", 24}, {"a00:1::", 8}};
  addresses added{}, removed{};
  ASSERT_EQ(address_set_add_difference(&added.set, &wanted.set, &old.set), 0);
  ASSERT_EQ(address_set_add_difference(&removed.set, &old.set, &wanted.set), 0);
  std::string text[2];
  for (char buffer[ADDRESS_TEXT_MAX]; const auto &[to, set] : {std::pair{0, &added.set}, {1, &removed.set}})
    for (size_t i = 0; i < set->count; i++)
      text[to] += address_print(&set->items[i], buffer) + std::string(" ");
  EXPECT_EQ(text[0] + "- " + text[1], "10.0.0.1/16 a00:1::/8 - 0.0.0.10/8 10.0.0.1/8 ");
}

} // namespace
