/// One thin helper for each form of Redis command.
///
/// Every helper takes the thread's connection first, sends one command, inspects the reply and releases it. None of
/// them logs: the caller knows what the failure means. Values travel with their lengths, so they may hold any byte.
#pragma once

#include <hiredis/hiredis.h>

#include <chrono>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/redis_connection.h"
#include "foundation/redis_handles.h"

namespace event_service {

/// Sends one command of our own texts and returns its reply, null when the connection failed. Values from outside go
/// through SendArguments.
[[gnu::format(printf, 2, 3)]] RedisReply SendCommand(redisContext* redis, const char* format, ...);

/// Sends one command given word by word and returns its reply, null when the connection failed.
RedisReply SendArguments(redisContext* redis, std::span<const std::string_view> arguments);
RedisReply SendArguments(redisContext* redis, std::initializer_list<std::string_view> arguments);

/// The most bytes that one command takes in the wire format.
size_t CommandRoom(std::span<const std::string_view> arguments);

/// Writes one command in the wire format to `out`, a buffer of at least CommandRoom bytes, and returns its end.
char* PutCommand(char* out, std::span<const std::string_view> arguments);

/// Sends commands in the wire format. The server buffers its replies meanwhile, so this cannot dead-lock. False when
/// the connection fails; it counts as failed from then on.
bool SendText(redisContext* redis, std::string_view commands);

/// The next reply, null when it cannot be read.
RedisReply ReadReply(redisContext* redis);

/// The next reply of what has been read from the socket; null when there is no whole one.
RedisReply BufferedReply(redisContext* redis);

/// Releases the buffer of a large reply, which the library keeps until the next one. Does nothing while a part of a
/// reply waits in it.
void ReleaseReplyRoom(redisContext* redis);

/// Makes reading from this connection fail after so long without data (0: never). False when that cannot be set.
[[nodiscard]] bool LimitWaiting(redisContext* redis, std::chrono::milliseconds patience);

/// What a reply is; false for a null one.
bool IsInteger(const redisReply* reply);
bool IsString(const redisReply* reply);
bool IsArray(const redisReply* reply);
inline bool IsInteger(const RedisReply& reply) { return IsInteger(reply.get()); }
inline bool IsString(const RedisReply& reply) { return IsString(reply.get()); }
inline bool IsArray(const RedisReply& reply) { return IsArray(reply.get()); }

/// True for a missing reply and for an error.
bool IsFailure(const RedisReply& reply);
/// True for the error that answers a command for another type than the key holds.
bool IsWrongType(const RedisReply& reply);

/// The text of a string or status reply, with its length; empty for any other and for a null one. Lives as long as the
/// reply.
std::string_view TextOf(const redisReply* reply);
inline std::string_view TextOf(const RedisReply& reply) { return TextOf(reply.get()); }

/// The texts of an array reply's elements, empty where one has none; no texts for any other reply and for a null one.
/// They live as long as the reply.
std::vector<std::string_view> TextsOf(const redisReply* reply);
inline std::vector<std::string_view> TextsOf(const RedisReply& reply) { return TextsOf(reply.get()); }

/// The text of a field; empty for a missing field, an error or no reply.
std::string HashRead(redisContext* redis, std::string_view key, std::string_view field);
/// Sets one field to the text as it stands. True exactly when Redis answered with an integer, as for every write below.
bool HashWrite(redisContext* redis, std::string_view key, std::string_view field, std::string_view value);
/// Sets one field to the value between two double quotes: a JSON string, for texts that need no escaping.
bool HashWriteQuoted(redisContext* redis, std::string_view key, std::string_view field, std::string_view value);
/// Removes one field; a missing one is removed already.
bool HashFieldDelete(redisContext* redis, std::string_view key, std::string_view field);
/// Appends one element at the tail (RPUSH).
bool ListAppend(redisContext* redis, std::string_view key, std::string_view value);
/// The number of elements, 0 for a missing list; -1 when Redis does not answer with an integer.
long long ListLength(redisContext* redis, std::string_view key);
/// Removes every element that equals `value`.
bool ListRemove(redisContext* redis, std::string_view key, std::string_view value);
/// True exactly when Redis answers with the integer 1.
bool KeyExists(redisContext* redis, std::string_view key);
/// Deletes one key, whatever its type; a missing one is deleted already.
bool KeyDelete(redisContext* redis, std::string_view key);
/// The names of the keys that match a glob pattern; empty also when there is no usable reply.
std::vector<std::string> KeyListing(redisContext* redis, std::string_view pattern);

/// `text` with every character escaped that means something in a glob pattern.
std::string EscapeGlob(std::string_view text);

}  // namespace event_service
