/* Files that are replaced as a whole: a reader, or a machine that lost its power, sees the old one or the new one. */
#ifndef EXAMPLE_FILES_H
#define EXAMPLE_FILES_H

#include <stddef.h>
#include <sys/types.h>

/* Creates or replaces `path`, which is on the disk afterwards. 0, or -1 with errno: the old file stands, unless only
 * its directory could not be flushed. The directory must be there. */
int file_replace(const char *path, const char *content, size_t length, mode_t mode);
/* Removes `path`; none there is fine. 0, or -1 with errno. */
int file_remove(const char *path);
/* Whether `path` is a regular file of exactly this content and mode. */
int file_holds(const char *path, const char *content, size_t length, mode_t mode);

#endif
