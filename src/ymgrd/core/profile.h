// The profile: one JSON object, read once at start into context options and into the records of the components. Members
// that are unknown, or of the wrong type, are ignored; invalid entries of its arrays are logged and skipped.
#pragma once

#include <cstddef>

// Reads the profile file. 0, or -1 (logged) when it is missing, empty or not JSON.
int ymgrd_load_config(const char *path);

// Takes the profile's text, which needs no terminating zero. 0 or -1.
int ymgrd_parse_config(const char *data, size_t length);
