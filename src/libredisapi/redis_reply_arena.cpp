#include "libredisapi/redis_reply_arena.h"

#include <cstring>
#include <new>

namespace {

constexpr size_t BLOCK_SIZE = 16 * 1024; // what hiredis reads at once

redis_reply_arena *arena_of(const redisReadTask *task)
{
  return static_cast<redis_reply_arena *>(task->privdata);
}

// A zeroed reply, known to the array that it is an element of.
redisReply *new_reply(const redisReadTask *task, int type)
{
  void *memory = arena_of(task)->allocate(sizeof(redisReply));
  if (memory == nullptr) {
    return nullptr;
  }
  auto *reply = new (memory) redisReply{};
  reply->type = type;
  if (task->parent != nullptr) {
    static_cast<redisReply *>(task->parent->obj)->element[task->idx] = reply;
  }
  return reply;
}

void *create_string(const redisReadTask *task, char *text, size_t length)
{
  redisReply *reply = new_reply(task, task->type);
  auto *copy = static_cast<char *>(arena_of(task)->allocate(length + 1));
  if (reply == nullptr || copy == nullptr) {
    return nullptr;
  }
  memcpy(copy, text, length);
  copy[length] = '\0';
  reply->str = copy;
  reply->len = length;
  return reply;
}

void *create_array(const redisReadTask *task, int elements)
{
  redisReply *reply = new_reply(task, task->type);
  if (reply == nullptr || elements <= 0) {
    return reply;
  }
  auto count = static_cast<size_t>(elements);
  void *memory = arena_of(task)->allocate(count * sizeof(redisReply *));
  if (memory == nullptr) {
    return nullptr;
  }
  memset(memory, 0, count * sizeof(redisReply *));
  reply->element = static_cast<redisReply **>(memory);
  reply->elements = count;
  return reply;
}

void *create_integer(const redisReadTask *task, long long value)
{
  redisReply *reply = new_reply(task, task->type);
  if (reply != nullptr) {
    reply->integer = value;
  }
  return reply;
}

void *create_nil(const redisReadTask *task)
{
  return new_reply(task, REDIS_REPLY_NIL); // the task's type is that of the value that is not there
}

void leave_to_reset(void *) {}

redisReplyObjectFunctions arena_functions = {create_string, create_array, create_integer, create_nil, leave_to_reset};

// What a link builds its replies with by itself.
redisReplyObjectFunctions *heap_functions = nullptr;

} // namespace

void *redis_reply_arena::allocate(size_t size)
{
  constexpr size_t ALIGNMENT = alignof(std::max_align_t);
  size_t rounded = (size + ALIGNMENT - 1) / ALIGNMENT * ALIGNMENT;
  if (blocks_.empty() || rounded > capacity_ - used_) {
    size_t capacity = rounded > BLOCK_SIZE ? rounded : BLOCK_SIZE;
    std::unique_ptr<std::byte[]> block(new (std::nothrow) std::byte[capacity]);
    if (rounded < size || block == nullptr) {
      return nullptr;
    }
    blocks_.push_back(std::move(block));
    capacity_ = capacity;
    used_ = 0;
  }
  void *memory = blocks_.back().get() + used_;
  used_ += rounded;
  return memory;
}

void redis_reply_arena::reset()
{
  if (blocks_.size() > 1 || capacity_ > BLOCK_SIZE) {
    blocks_.clear();
    capacity_ = 0;
  }
  used_ = 0;
}

void redis_replies_in_arena(redisContext *link, redis_reply_arena *arena)
{
  redisReader *reader = link->reader;
  if (reader->fn != &arena_functions) {
    heap_functions = reader->fn;
  }
  reader->fn = &arena_functions;
  reader->privdata = arena;
}

void redis_replies_on_heap(redisContext *link)
{
  link->reader->fn = heap_functions;
  link->reader->privdata = nullptr;
}
