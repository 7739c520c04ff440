#include "keytool/replace_file.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include "libconf/unique_fd.h"

namespace {

int write_whole(int fd, std::string_view content)
{
  while (!content.empty()) {
    ssize_t count = write(fd, content.data(), content.size());
    if (count < 0 && errno != EINTR) {
      return -1;
    }
    content.remove_prefix(count < 0 ? 0 : static_cast<size_t>(count));
  }
  return 0;
}

// The name of a file is on the disk once its directory is.
int sync_directory_of(const std::string &path)
{
  size_t slash = path.rfind('/');
  std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  unique_fd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return fd.get() < 0 ? -1 : fsync(fd.get());
}

bool is_owned(const file_owner_t &owner)
{
  return owner.user != static_cast<uid_t>(-1) || owner.group != static_cast<gid_t>(-1);
}

int fill_file(int fd, std::string_view content, const file_owner_t &owner)
{
  if (is_owned(owner) && fchown(fd, owner.user, owner.group) != 0) {
    return -1;
  }
  return write_whole(fd, content) != 0 || fsync(fd) != 0 ? -1 : 0;
}

} // namespace

int replace_file(const std::string &path, std::string_view content, const file_owner_t &owner, std::string *ret_error)
{
  std::string temporary = path + ".XXXXXX";
  unique_fd fd(mkostemp(temporary.data(), O_CLOEXEC)); // makes it with mode 0600
  if (fd.get() < 0) {
    *ret_error = "cannot make a file beside " + path + ": " + strerror(errno);
    return -1;
  }
  if (fill_file(fd.get(), content, owner) != 0 || rename(temporary.c_str(), path.c_str()) != 0) {
    *ret_error = "cannot write " + path + ": " + strerror(errno);
    (void)unlink(temporary.c_str()); // the first failure is the one to report
    return -1;
  }
  if (sync_directory_of(path) != 0) {
    *ret_error = "cannot bring " + path + " to the disk: " + strerror(errno);
    return -1;
  }
  return 0;
}
