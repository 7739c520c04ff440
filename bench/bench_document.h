// The data that is measured with: entries of the module ex-bench, and a module of many containers for plugins.
#pragma once

#include <string>

// <bench> with entries 0 to `entries` - 1, about 230 bytes each.
std::string bench_document(int entries);
// <bench> with the key of one entry only: a filter, or a place.
std::string bench_entry_filter(int entry);
// edit-config of candidate.
std::string bench_edit(const std::string &config);
// edit-config of candidate that gives one leaf of one entry a value.
std::string bench_one_leaf_edit(int entry, unsigned value);

// A module that the measured device gets: containers that plugins subscribe to one by one, state, and an operation.
constexpr int BENCH_PARTS = 200;
constexpr char BENCH_PARTS_STATE[] = "/ex-bench-parts:parts/state";
constexpr char BENCH_PARTS_WORDS[] = "a word of thirty-two characters."; // in the state, and echoed
constexpr char BENCH_PARTS_OPERATION[] = "/ex-bench-parts:echo";
std::string bench_parts_module();
std::string bench_part_path(int part);
// edit-config of candidate that gives the leaf of each part from `first` to `last` a value.
std::string bench_parts_edit(int first, int last, unsigned value);
std::string bench_parts_state(); // the markup of the state
std::string bench_parts_echo();  // the operation; its output is bench_parts_echoed()
std::string bench_parts_echoed();

// Entries of the list "user" or "keeper", which differ in nothing but the profile's sensitive leaf.
constexpr char BENCH_SENSITIVE_LEAF[] = "/ex-bench:accounts/keeper/word";
// edit-config of candidate that gives the entries from `first` to `last` their words, which depend on `value`.
std::string bench_words_edit(const std::string &list, int first, int last, unsigned value);
std::string bench_word(int entry, unsigned value);
std::string bench_words_filter(const std::string &list); // the whole list
std::string bench_words_filter(const std::string &list, int entry);

// An event that a plugin may send; `number` stands in its element <number>.
std::string bench_event(long number);
// The content of a filter that selects it by its text.
std::string bench_event_filter();
