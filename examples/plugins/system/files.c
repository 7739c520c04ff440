#include "files.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

/* Without this a rename may be lost with the power, however well the file itself was written. */
static int flush_directory_of(const char *path)
{
  char directory[PATH_MAX];
  const char *slash = strrchr(path, '/');
  int length = slash == NULL ? 1 : slash == path ? 1 : (int)(slash - path);
  if (snprintf(directory, sizeof(directory), "%.*s", length, slash == NULL ? "." : path) >= (int)sizeof(directory)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  int fd = open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    return -1;
  }
  int result = fsync(fd);
  int cause = errno;
  (void)close(fd); /* nothing was written through it */
  errno = cause;
  return result;
}

static int write_all(int fd, const char *content, size_t length)
{
  while (length > 0) {
    ssize_t written = write(fd, content, length);
    if (written < 0) {
      if (errno == EINTR) {
        continue;
      }
      return -1;
    }
    content += written;
    length -= (size_t)written;
  }
  return 0;
}

/* Closes `fd` on every path: some file systems report only there that the disk is full. */
static int fill_and_close(int fd, const char *content, size_t length, mode_t mode)
{
  if (write_all(fd, content, length) != 0 || fchmod(fd, mode) != 0 || fsync(fd) != 0) {
    int cause = errno;
    (void)close(fd); /* the first failure is the one to tell */
    errno = cause;
    return -1;
  }
  return close(fd);
}

int file_replace(const char *path, const char *content, size_t length, mode_t mode)
{
  char temporary[PATH_MAX];
  if (snprintf(temporary, sizeof(temporary), "%s.XXXXXX", path) >= (int)sizeof(temporary)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  int fd = mkostemp(temporary, O_CLOEXEC);
  if (fd < 0) {
    return -1;
  }
  if (fill_and_close(fd, content, length, mode) != 0 || rename(temporary, path) != 0) {
    int cause = errno;
    (void)unlink(temporary); /* the first failure is the one to tell */
    errno = cause;
    return -1;
  }
  return flush_directory_of(path);
}

int file_remove(const char *path)
{
  if (unlink(path) != 0) {
    return errno == ENOENT ? 0 : -1;
  }
  return flush_directory_of(path);
}

int file_holds(const char *path, const char *content, size_t length, mode_t mode)
{
  struct stat status;
  if (lstat(path, &status) != 0 || !S_ISREG(status.st_mode) || (status.st_mode & 07777) != mode ||
      status.st_size != (off_t)length) {
    return 0;
  }
  FILE *file = fopen(path, "re");
  if (file == NULL) {
    return 0;
  }
  char block[4096];
  size_t got;
  size_t compared = 0;
  int is_same = 1;
  while (is_same && (got = fread(block, 1, sizeof(block), file)) > 0) {
    is_same = got <= length - compared && memcmp(block, content + compared, got) == 0;
    compared += got;
  }
  is_same = is_same && !ferror(file) && compared == length;
  (void)fclose(file); /* only read from */
  return is_same;
}
