// Files that are replaced as a whole: a reader, or a start after a crash, finds the old content or the new one.
#pragma once

#include <string>
#include <string_view>

#include <sys/types.h>

// Owner of the new file; -1 leaves what the process makes, as chown() does.
typedef struct _file_owner {
  uid_t user = static_cast<uid_t>(-1);
  gid_t group = static_cast<gid_t>(-1);
} file_owner_t;

// Writes the content, mode 0600 from its beginning on, to a file beside `path`, brings it to the disk and moves it to
// `path`. 0, or -1 with the cause: `path` is untouched then, unless it was the directory that could not be brought to
// the disk.
int replace_file(const std::string &path, std::string_view content, const file_owner_t &owner, std::string *ret_error);
