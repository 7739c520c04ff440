// Growing byte buffers for sockets. What they held may be secret: bytes that are cut out, outgrown or freed are
// cleared.
#pragma once

#include <cstddef>
#include <memory>

typedef struct _conf_buffer {
  size_t total; // bytes allocated
  size_t used;  // bytes held; used <= total
  char *data;   // owned; moves when the buffer grows
} conf_buffer_t;

conf_buffer_t *conf_buffer_create(size_t size); // null when memory is short
void conf_buffer_destroy(conf_buffer_t *buffer);
// Appends a copy of the bytes; grows by doubling. 0, or -1 with the buffer unchanged.
int conf_buffer_append(conf_buffer_t *buffer, const void *bytes, size_t length);
// Makes room for `length` more bytes behind the used ones and returns its start; null when memory is short. Bytes
// written there become part of the buffer by conf_buffer_commit.
char *conf_buffer_reserve(conf_buffer_t *buffer, size_t length);
void conf_buffer_commit(conf_buffer_t *buffer, size_t length);
// Cuts `length` bytes out at `offset`; what lies behind moves up. 0, or -1 when the range is not inside the used bytes.
int conf_buffer_remove(conf_buffer_t *buffer, size_t offset, size_t length);
// Gives memory back when far less is used than allocated (never below 1024 bytes).
void conf_buffer_slim(conf_buffer_t *buffer);

struct conf_buffer_delete_t {
  void operator()(conf_buffer_t *buffer) const { conf_buffer_destroy(buffer); }
};
using conf_buffer_ptr = std::unique_ptr<conf_buffer_t, conf_buffer_delete_t>;
