// Where the replies of a batch are built. hiredis allocates every element of a reply by itself, which costs more than
// taking the bytes from the server; here memory is handed out in sequence and taken back as a whole, reply by reply.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include <hiredis/hiredis.h>

class redis_reply_arena {
public:
  void *allocate(size_t size); // aligned for every type, valid until reset(); null when there is no memory
  void reset();                // one block is kept: ordinary replies then need no allocation at all

private:
  std::vector<std::unique_ptr<std::byte[]>> blocks_; // the last one is in use
  size_t used_ = 0;
  size_t capacity_ = 0; // of the last block
};

// Makes the link build its replies in the arena. They are not for freeReplyObject, and no reply may be under way on the
// link: neither here nor when redis_replies_on_heap puts things back.
void redis_replies_in_arena(redisContext *link, redis_reply_arena *arena);
void redis_replies_on_heap(redisContext *link);
