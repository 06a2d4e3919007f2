#include "foundation/reply_memory.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include "foundation/characters.h"

namespace event_service {
namespace {

// That a thread may hold at a time: with what belongs to each, two or three MiB.
constexpr size_t kMostElements = 32768;

// What the C library keeps at hand for each thread ends at 1,032 bytes.
constexpr size_t kBlockSize = 1000;

struct alignas(redisReply) Block {
  Block* former;
};

/// The head of a reply's first block.
struct WholeReply : redisReply {
  Block* blocks;  // those that were added to it, the last one first
  char* room;     // what is left in the last one
  char* end;
  size_t allElements;  // of its arrays
};

thread_local size_t heldElements = 0;  // of all replies: each is released by the thread that has read it

/// One reply for each: nobody writes to what was read.
constinit auto smallIntegers = [] {
  std::array<redisReply, 32> replies{};
  long long integer = 0;
  for (redisReply& reply : replies) {
    reply.type = REDIS_REPLY_INTEGER;
    reply.integer = integer++;
  }
  return replies;
}();

redisReply* SmallInteger(long long integer) {
  const bool isSmall = integer >= 0 && integer < static_cast<long long>(smallIntegers.size());
  return isSmall ? &smallIntegers[static_cast<size_t>(integer)] : nullptr;
}

size_t Aligned(size_t size) { return (size + alignof(redisReply) - 1) / alignof(redisReply) * alignof(redisReply); }

/// The library takes null for a lack of memory, here and below.
void* TakeRoom(WholeReply& whole, size_t size) {
  size = Aligned(size);
  if (static_cast<size_t>(whole.end - whole.room) < size) {
    const size_t blockSize = std::max(kBlockSize, sizeof(Block) + size);
    auto* const block = static_cast<Block*>(std::malloc(blockSize));
    if (block == nullptr) return nullptr;
    block->former = std::exchange(whole.blocks, block);
    whole.room = reinterpret_cast<char*>(block + 1);
    whole.end = reinterpret_cast<char*>(block) + blockSize;
  }
  return std::exchange(whole.room, whole.room + size);
}

redisReply* NewWholeReply(size_t roomSize) {
  const size_t size = sizeof(WholeReply) + Aligned(roomSize);
  auto* const whole = static_cast<WholeReply*>(std::malloc(size));
  if (whole == nullptr) return nullptr;
  *whole = {};
  whole->room = reinterpret_cast<char*>(whole + 1);
  whole->end = reinterpret_cast<char*>(whole) + size;
  return whole;
}

/// The reply that a task belongs to. What the task itself will give does not exist yet.
WholeReply& WholeReplyOf(const redisReadTask* task) {
  while (task->parent != nullptr) task = task->parent;
  return *static_cast<WholeReply*>(static_cast<redisReply*>(task->obj));
}

redisReply* NewElement(const redisReadTask* task) {
  auto* const reply = static_cast<redisReply*>(TakeRoom(WholeReplyOf(task), sizeof(redisReply)));
  if (reply == nullptr) return nullptr;
  *reply = {};
  static_cast<redisReply*>(task->parent->obj)->element[task->idx] = reply;
  return reply;
}

/// A reply of its own, which gets room for so much, or an element of another one.
redisReply* NewReply(const redisReadTask* task, size_t roomSize) {
  redisReply* const reply = task->parent == nullptr ? NewWholeReply(roomSize) : NewElement(task);
  if (reply != nullptr) reply->type = task->type;
  return reply;
}

/// Room that belongs to the reply which a task has given.
void* TakeRoomFor(const redisReadTask* task, redisReply* reply, size_t size) {
  return TakeRoom(task->parent == nullptr ? *static_cast<WholeReply*>(reply) : WholeReplyOf(task), size);
}

void* CreateText(const redisReadTask* task, char* text, size_t size) {
  redisReply* const reply = NewReply(task, size + 1);
  if (reply == nullptr) return nullptr;
  reply->str = static_cast<char*>(TakeRoomFor(task, reply, size + 1));
  if (reply->str == nullptr) return nullptr;
  std::memcpy(reply->str, text, size);
  reply->str[size] = '\0';
  reply->len = size;
  return reply;
}

void* CreateArray(const redisReadTask* task, size_t elements) {
  if (elements > SIZE_MAX / 2 / sizeof(redisReply*)) return nullptr;
  const size_t size = elements * sizeof(redisReply*);
  redisReply* const reply = NewReply(task, std::max(size, kBlockSize - sizeof(WholeReply)));
  if (reply == nullptr) return nullptr;
  reply->element = static_cast<redisReply**>(TakeRoomFor(task, reply, size));
  if (reply->element == nullptr) return nullptr;
  reply->elements = elements;
  WholeReply& whole = task->parent == nullptr ? *static_cast<WholeReply*>(reply) : WholeReplyOf(task);
  whole.allElements += elements;
  heldElements += elements;
  return reply;
}

void* CreateInteger(const redisReadTask* task, long long integer) {
  if (task->parent == nullptr && SmallInteger(integer) != nullptr) return SmallInteger(integer);
  redisReply* const reply = NewReply(task, 0);
  if (reply != nullptr) reply->integer = integer;
  return reply;
}

/// The task knows the type that was expected.
void* CreateNil(const redisReadTask* task) {
  redisReply* const reply = NewReply(task, 0);
  if (reply != nullptr) reply->type = REDIS_REPLY_NIL;
  return reply;
}

// The library's versions differ in the type of the number.
constinit auto functions = [] {
  redisReplyObjectFunctions ours{};
  ours.createString = CreateText;
  ours.createArray = [](const redisReadTask* task, auto elements) {
    return CreateArray(task, static_cast<size_t>(elements));
  };
  ours.createInteger = CreateInteger;
  ours.createNil = CreateNil;
  ours.freeObject = [](void* reply) { ReleaseReply(static_cast<redisReply*>(reply)); };
  return ours;
}();

/// What lies in an array that is not kept; it holds nothing itself.
constinit redisReply unkept{};

bool IsUnkept(const redisReadTask* task) {
  return task->parent != nullptr && static_cast<redisReply*>(task->parent->obj)->element == nullptr;
}

/// An error stands for the array, as for any key that does not hold what it should. Its elements are read and not kept.
void* RefuseArray(const redisReadTask* task) {
  char text[] = "WRONGTYPE";
  auto* const reply = static_cast<redisReply*>(CreateText(task, text, sizeof text - 1));
  if (reply != nullptr) reply->type = REDIS_REPLY_ERROR;
  return reply;
}

constinit auto limitedFunctions = [] {
  redisReplyObjectFunctions ours{};
  ours.createString = [](const redisReadTask* task, char* text, size_t size) {
    return IsUnkept(task) ? &unkept : CreateText(task, text, size);
  };
  ours.createArray = [](const redisReadTask* task, auto elements) -> void* {
    if (IsUnkept(task)) return &unkept;
    const auto size = static_cast<size_t>(elements);
    const bool hasRoom = size <= kMostElements && heldElements <= kMostElements - size;
    return hasRoom ? CreateArray(task, size) : RefuseArray(task);
  };
  ours.createInteger = [](const redisReadTask* task, long long integer) {
    return IsUnkept(task) ? &unkept : CreateInteger(task, integer);
  };
  ours.createNil = [](const redisReadTask* task) { return IsUnkept(task) ? &unkept : CreateNil(task); };
  ours.freeObject = [](void* reply) { ReleaseReply(static_cast<redisReply*>(reply)); };
  return ours;
}();

}  // namespace

void UseReplyMemory(redisContext* redis) {
  if (redis->reader->fn != &limitedFunctions) redis->reader->fn = &functions;
}

void LimitReplies(redisContext* redis) { redis->reader->fn = &limitedFunctions; }

redisReply* NextSmallInteger(redisContext* redis) {
  constexpr size_t kSize = std::string_view(":1\r\n").size();
  redisReader& reader = *redis->reader;
  const bool isWithinReply = reader.ridx >= 0;
  if (isWithinReply || reader.len - reader.pos < kSize) return nullptr;
  const std::string_view text(reader.buf + reader.pos, kSize);
  if (text[0] != ':' || !IsDigit(text[1]) || !text.ends_with("\r\n")) return nullptr;
  reader.pos += kSize;
  return SmallInteger(text[1] - '0');
}

void ReleaseReply(redisReply* reply) {
  if (reply == nullptr || reply == SmallInteger(reply->integer)) return;
  auto* const whole = static_cast<WholeReply*>(reply);
  heldElements -= whole->allElements;
  while (Block* const block = whole->blocks) {
    whole->blocks = block->former;
    std::free(block);
  }
  std::free(whole);
}

}  // namespace event_service
