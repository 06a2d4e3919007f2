#include "foundation/redis_commands.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstring>
#include <utility>

namespace event_service {
namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr size_t kLongestSizeLine = sizeof "$18446744073709551615\r\n";

char* Put(char* out, std::string_view text) {
  std::memcpy(out, text.data(), text.size());
  return out + text.size();
}

/// "$5\r\n"
char* PutSizeLine(char* out, char mark, size_t size) {
  *out++ = mark;
  if (size < 100) {  // as most are
    if (size >= 10) *out++ = static_cast<char>('0' + size / 10);
    *out++ = static_cast<char>('0' + size % 10);
  } else {
    out = std::to_chars(out, out + kLongestSizeLine, size).ptr;
  }
  return Put(out, kLineEnd);
}

}  // namespace

RedisReply SendCommand(redisContext* redis, const char* format, ...) {
  if (redis->err != 0) return nullptr;
  va_list arguments;
  va_start(arguments, format);
  const bool isAppended = redisvAppendCommand(redis, format, arguments) == REDIS_OK;
  va_end(arguments);
  return isAppended ? ReadReply(redis) : nullptr;
}

size_t CommandRoom(std::span<const std::string_view> arguments) {
  size_t room = kLongestSizeLine;
  for (const std::string_view argument : arguments) room += kLongestSizeLine + argument.size() + kLineEnd.size();
  return room;
}

char* PutCommand(char* out, std::span<const std::string_view> arguments) {
  out = PutSizeLine(out, '*', arguments.size());
  for (const std::string_view argument : arguments) {
    out = Put(Put(PutSizeLine(out, '$', argument.size()), argument), kLineEnd);
  }
  return out;
}

// Not through the library's output buffer, which would copy and grow once more.
bool SendText(redisContext* redis, std::string_view commands) {
  while (!commands.empty()) {
    const ssize_t sent = send(redis->fd, commands.data(), commands.size(), MSG_NOSIGNAL);
    if (sent >= 0) {
      commands.remove_prefix(static_cast<size_t>(sent));
    } else if (errno != EINTR) {
      redis->err = REDIS_ERR_IO;
      return false;
    }
  }
  return true;
}

RedisReply ReadReply(redisContext* redis) {
  UseReplyMemory(redis);
  if (redisReply* const integer = NextSmallInteger(redis)) return RedisReply(integer);
  void* reply = nullptr;
  if (redisGetReply(redis, &reply) != REDIS_OK) return nullptr;
  return RedisReply(static_cast<redisReply*>(reply));
}

RedisReply BufferedReply(redisContext* redis) {
  UseReplyMemory(redis);
  void* reply = nullptr;
  if (redisGetReplyFromReader(redis, &reply) != REDIS_OK) return nullptr;
  return RedisReply(static_cast<redisReply*>(reply));
}

void ReleaseReplyRoom(redisContext* redis) {
  const redisReader* const reader = redis->reader;
  if (redis->err != 0 || reader->len != reader->pos || reader->ridx >= 0) return;
  redisReader* const fresh = redisReaderCreate();
  if (fresh == nullptr) return;
  redisReaderFree(std::exchange(redis->reader, fresh));
}

bool LimitWaiting(redisContext* redis, std::chrono::milliseconds patience) {
  // Not redisSetTimeout: it takes the struct by value, and on a 32-bit board the library may have been built with
  // another size of it.
  timeval limit{};
  limit.tv_sec = static_cast<decltype(limit.tv_sec)>(patience.count() / 1000);
  limit.tv_usec = static_cast<decltype(limit.tv_usec)>(patience.count() % 1000 * 1000);
  return setsockopt(redis->fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0;
}

RedisReply SendArguments(redisContext* redis, std::span<const std::string_view> arguments) {
  if (redis->err != 0) return nullptr;
  std::string command(CommandRoom(arguments), '\0');
  command.resize(static_cast<size_t>(PutCommand(command.data(), arguments) - command.data()));
  return SendText(redis, command) ? ReadReply(redis) : nullptr;
}

RedisReply SendArguments(redisContext* redis, std::initializer_list<std::string_view> arguments) {
  return SendArguments(redis, std::span(arguments.begin(), arguments.size()));
}

bool IsInteger(const redisReply* reply) { return reply != nullptr && reply->type == REDIS_REPLY_INTEGER; }
bool IsString(const redisReply* reply) { return reply != nullptr && reply->type == REDIS_REPLY_STRING; }
bool IsArray(const redisReply* reply) { return reply != nullptr && reply->type == REDIS_REPLY_ARRAY; }

bool IsFailure(const RedisReply& reply) { return !reply || reply->type == REDIS_REPLY_ERROR; }

bool IsWrongType(const RedisReply& reply) {
  return reply && reply->type == REDIS_REPLY_ERROR && std::string_view(reply->str, reply->len).starts_with("WRONGTYPE");
}

std::string_view TextOf(const redisReply* reply) {
  const bool hasText = IsString(reply) || (reply != nullptr && reply->type == REDIS_REPLY_STATUS);
  return hasText ? std::string_view(reply->str, reply->len) : std::string_view();
}

std::vector<std::string_view> TextsOf(const redisReply* reply) {
  std::vector<std::string_view> texts;
  if (!IsArray(reply)) return texts;
  texts.reserve(reply->elements);
  for (const redisReply* element : std::span(reply->element, reply->elements)) texts.push_back(TextOf(element));
  return texts;
}

std::string HashRead(redisContext* redis, std::string_view key, std::string_view field) {
  const RedisReply reply = SendArguments(redis, {"HGET", key, field});
  return IsString(reply) ? std::string(TextOf(reply)) : std::string();
}

bool HashWrite(redisContext* redis, std::string_view key, std::string_view field, std::string_view value) {
  return IsInteger(SendArguments(redis, {"HSET", key, field, value}));
}

bool HashWriteQuoted(redisContext* redis, std::string_view key, std::string_view field, std::string_view value) {
  return HashWrite(redis, key, field, '"' + std::string(value) + '"');
}

bool HashFieldDelete(redisContext* redis, std::string_view key, std::string_view field) {
  return IsInteger(SendArguments(redis, {"HDEL", key, field}));
}

bool ListAppend(redisContext* redis, std::string_view key, std::string_view value) {
  return IsInteger(SendArguments(redis, {"RPUSH", key, value}));
}

long long ListLength(redisContext* redis, std::string_view key) {
  const RedisReply reply = SendArguments(redis, {"LLEN", key});
  return IsInteger(reply) ? reply->integer : -1;
}

bool ListRemove(redisContext* redis, std::string_view key, std::string_view value) {
  return IsInteger(SendArguments(redis, {"LREM", key, "0", value}));
}

bool KeyExists(redisContext* redis, std::string_view key) {
  const RedisReply reply = SendArguments(redis, {"EXISTS", key});
  return IsInteger(reply) && reply->integer == 1;
}

bool KeyDelete(redisContext* redis, std::string_view key) { return IsInteger(SendArguments(redis, {"DEL", key})); }

std::vector<std::string> KeyListing(redisContext* redis, std::string_view pattern) {
  const RedisReply reply = SendArguments(redis, {"keys", pattern});
  const std::vector<std::string_view> keys = TextsOf(reply);
  return {keys.begin(), keys.end()};
}

std::string EscapeGlob(std::string_view text) {
  constexpr std::string_view kSpecial = "*?[]\\^-";
  std::string escaped;
  for (const char c : text) {
    if (kSpecial.find(c) != std::string_view::npos) escaped += '\\';
    escaped += c;
  }
  return escaped;
}

}  // namespace event_service
