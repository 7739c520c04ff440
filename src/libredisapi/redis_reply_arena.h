// Where the replies of a batch are built. hiredis allocates every element of a reply by itself, which costs more than
// taking the bytes from the server; here memory is handed out in sequence and taken back as a whole, reply by reply.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include <hiredis/hiredis.h>

class redis_reply_arena {
public:
  // Null when there is no memory. Aligned for every type; valid until reset().
  void *allocate(size_t size);
  // Invalidates the replies made so far. Keeps one block, so that ordinary replies need no allocation at all.
  void reset();

private:
  std::vector<std::unique_ptr<std::byte[]>> blocks_; // the last one is in use
  size_t used_ = 0;
  size_t capacity_ = 0; // of the last block
};

// While it lives, `link` builds its replies in the arena: they must not be given to freeReplyObject, and the arena must
// be reset between them only. `link` borrows the place of the owner: when that drops the link, nothing is put back.
class redis_arena_replies {
public:
  redis_arena_replies(redisContext *const *link, redis_reply_arena *arena);
  ~redis_arena_replies();
  redis_arena_replies(const redis_arena_replies &) = delete;
  redis_arena_replies &operator=(const redis_arena_replies &) = delete;
};
