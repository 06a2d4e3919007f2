/// Writing documents in the store's encoding.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/redis_commands.h"
#include "foundation/redis_pipeline.h"
#include "resource_store/store_encoding.h"

namespace event_service {

/// Takes the next array sequence id from Redis; restarts the counter at 1 when it cannot be incremented or is below 1.
/// -1 when that fails as well.
int64_t NextSequenceId(redisContext* redis);

/// Stores `next` - 1 as the last id handed out, or 1 when `next` lies outside 2 ... 2^63 - 2. True when Redis said
/// "OK".
bool StoreSequenceId(redisContext* redis, int64_t next);

/// The same as part of a batch; its reply is a status, not an integer.
void AppendSequenceStore(RedisPipeline& pipeline, int64_t next);

/// True when some key of the stored document holds a sequence id: an element of an array is an object or array other
/// than a reference. A caller of AppendDocument needs no counter otherwise.
bool NeedsSequenceIds(const Json& document);

/// Appends the writes of a whole document under `key` to a pipeline: one HSET for each member, one RPUSH for each
/// element, each answered by an integer. `sequence` is the next free id and moves on with every object or array that is
/// an element (references included, though their ids stand nowhere). Existing keys are added to, not replaced. False,
/// after one "[ERROR]" line and with nothing appended, for a document that is no container or lies deeper than
/// kMaxNesting.
[[nodiscard]] bool AppendDocument(RedisPipeline& pipeline, std::string_view key, const Json& document,
                                  int64_t& sequence);

/// Every key that AppendDocument writes to; `sequence` is the first id that it gets.
std::vector<std::string> DocumentKeys(std::string_view key, const Json& document, int64_t sequence);

/// Appends one UNLINK of all these keys, answered by an integer; nothing when there are none.
void AppendUnlink(RedisPipeline& pipeline, std::span<const std::string> keys);

/// Appends the replacement of one member of the object at `key` by `value`, of whatever type, so that several can go
/// in one batch: UNLINK of `oldKeys` (ResourceWalk::KeysOfMember) and of the value's own child key, HSET of the member,
/// the writes of what is nested in it, as AppendDocument does. Every reply is an integer. A control field whose value
/// is no string is not written.
[[nodiscard]] bool AppendPropertyWrites(RedisPipeline& pipeline, std::string_view key, std::string_view name,
                                        const Json& value, int64_t& sequence,
                                        std::span<const std::string> oldKeys = {});

/// Appends the removal of one member: UNLINK of `oldKeys`, HDEL.
void AppendPropertyRemoval(RedisPipeline& pipeline, std::string_view key, std::string_view name,
                           std::span<const std::string> oldKeys = {});

/// True when every write was answered by an integer; logs each that was not ("[ERROR] Redis get reply failed!" where
/// the connection broke, "[ERROR] Updates property reply type is incorrect.", "[ERROR] Updates property failed with
/// NULL result.").
bool CheckWriteReplies(const redisContext* redis, std::span<const RedisReply> replies, std::string_view key);

/// How stored arrays are shaped. For boards: the daemon stores arrays as they are.
struct ArrayConfiguration {
  /// 0 as given; 1 fixed length: never longer than maxSize, filled up with null when fillNull; 2 variable length: null
  /// elements are dropped; 3 rigid: every element keeps its position, null stays.
  int style = 0;
  size_t maxSize = 0;
  bool fillNull = false;
};

/// Reads "ArrayStyle", "ArrayMaxSize" and "ArrayNullElement" from a configuration object and logs what it read
/// ("[INFO] Input Array style =..."). False, after one "[ERROR]" line, when they cannot be read or the style is none of
/// 0 to 3.
bool ReadArrayConfiguration(const Json& configuration, ArrayConfiguration& result);

/// Writes a whole document under `key`; every array in it is shaped by `arrays` first. An array that is too long
/// refuses the whole before anything is written. Takes the counter, sends one pipeline, stores the counter back if it
/// moved: at most three round trips. False, after "[ERROR]" lines on standard error, when any write failed; every reply
/// has been read then.
bool WriteResource(redisContext* redis, std::string_view key, const Json& document,
                   const ArrayConfiguration& arrays = {});

}  // namespace event_service
