#include "resource_store/resource_writer.h"

#include <algorithm>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "resource_store/store_log.h"

namespace event_service {
namespace {

constexpr std::string_view kSequenceKey = "Array-Member-Sequence-ID";

/// The text to store so that the next INCR gives `next`.
std::string LastIdText(int64_t next) {
  const bool isStorable = next >= 2 && next < std::numeric_limits<int64_t>::max();
  return isStorable ? std::to_string(next - 1) : "1";
}

bool CheckNesting(std::string_view key, const Json& value, size_t levels) {
  if (NestsWithin(value, levels)) return true;
  LogStoreError("Resource is nested too deep.", {{kLogResource, key}});
  return false;
}

bool IsWritable(std::string_view key, const Json& document) {
  if (document.is_structured()) return CheckNesting(key, document, kMaxNesting);
  LogStoreError("Resource is no object or array.", {{kLogResource, key}});
  return false;
}

void AppendContainer(RedisPipeline& pipeline, std::string_view key, const Json& container, int64_t& sequence);

void AppendMember(RedisPipeline& pipeline, std::string_view key, std::string_view name, const Json& value,
                  int64_t& sequence) {
  if (LooksLikeMarker(name)) {
    if (value.is_string()) pipeline.Append({"HSET", key, name, value.get_ref<const std::string&>()});
    return;
  }
  if (!value.is_structured()) {
    const std::string text = DumpPrimitive(value);
    if (!text.empty()) pipeline.Append({"HSET", key, name, text});
    return;
  }
  std::string childKey = ChildKey(key, name);
  pipeline.Append({"HSET", key, name, BuildMarker(false, value, childKey, name)});
  if (!IsReference(value)) AppendContainer(pipeline, childKey, value, sequence);
}

void AppendElement(RedisPipeline& pipeline, std::string_view key, size_t index, const Json& value, int64_t& sequence) {
  DumpedItem item = DumpItem(key, &sequence, std::to_string(index), value);
  if (!item.valueText.empty()) {
    std::string_view text = item.valueText;
    if (IsQuotedMarkerText(text)) text = text.substr(1, text.size() - 2);
    pipeline.Append({"RPUSH", key, text});
  } else if (!item.childKey.empty()) {
    pipeline.Append({"RPUSH", key, BuildMarker(true, value, item.childKey, item.name)});
    if (!IsReference(value)) AppendContainer(pipeline, item.childKey, value, sequence);
  }
}

// Recursion: the callers have made sure that the document nests within kMaxNesting.
void AppendContainer(RedisPipeline& pipeline, std::string_view key, const Json& container, int64_t& sequence) {
  if (container.is_object()) {
    for (const auto& [name, value] : container.get_ref<const Json::object_t&>()) {
      AppendMember(pipeline, key, name, value, sequence);
    }
    return;
  }
  size_t index = 0;
  for (const Json& value : container.get_ref<const Json::array_t&>()) {
    AppendElement(pipeline, key, index++, value, sequence);
  }
}

bool ShapeArray(Json::array_t& array, const ArrayConfiguration& arrays) {
  if (arrays.style == 2) std::erase_if(array, [](const Json& element) { return element.is_null(); });
  if (array.size() > arrays.maxSize) {
    LogStoreError("Array is longer than its maximum size.");
    return false;
  }
  if (arrays.style == 1 && arrays.fillNull) array.resize(arrays.maxSize);
  return true;
}

/// False, after a line, when one of the arrays is too long. Recursion bounded like AppendContainer's.
bool ShapeArrays(Json& value, const ArrayConfiguration& arrays) {
  if (value.is_array() && !ShapeArray(value.get_ref<Json::array_t&>(), arrays)) return false;
  return std::ranges::all_of(value, [&](Json& item) { return !item.is_structured() || ShapeArrays(item, arrays); });
}

/// Forms the keys in the writer's order, because the elements of arrays take sequence ids. Recursion bounded likewise.
void CollectKeys(std::string key, const Json& value, int64_t& sequence, std::vector<std::string>& keys) {
  int64_t noSequence = kNoSequence;
  for (auto item = value.begin(); item != value.end(); ++item) {
    if (!item->is_structured()) continue;
    std::string name = value.is_object() ? item.key() : std::string();
    std::string childKey = DumpItem(key, value.is_object() ? &noSequence : &sequence, std::move(name), *item).childKey;
    if (!IsReference(*item)) CollectKeys(std::move(childKey), *item, sequence, keys);
  }
  keys.push_back(std::move(key));
}

bool WriteShaped(redisContext* redis, std::string_view key, const Json& document) {
  const int64_t first = NextSequenceId(redis);
  if (first == kNoSequence) {
    LogStoreError(redis->err != 0 ? "Redis get reply failed!" : "Takes Array Sequence Id failed!",
                  {{kLogResource, key}});
    return false;
  }
  int64_t next = first;
  RedisPipeline pipeline(redis);
  AppendContainer(pipeline, key, document, next);
  const bool written = CheckWriteReplies(redis, pipeline.Execute(), key);
  // Also after a failed write: part of it may stand under the ids.
  if (next == first || StoreSequenceId(redis, next)) return written;
  LogStoreError("Updates Array Sequence Id from " + std::to_string(first) + " to " + std::to_string(next) + " failed!");
  return false;
}

}  // namespace

int64_t NextSequenceId(redisContext* redis) {
  const RedisReply reply = SendArguments(redis, {"INCR", kSequenceKey});
  if (IsInteger(reply) && reply->integer >= 1) return reply->integer;
  return StoreSequenceId(redis, 1) ? 1 : kNoSequence;
}

bool StoreSequenceId(redisContext* redis, int64_t next) {
  return TextOf(SendArguments(redis, {"SET", kSequenceKey, LastIdText(next)})).starts_with("OK");
}

void AppendSequenceStore(RedisPipeline& pipeline, int64_t next) {
  pipeline.Append({"SET", kSequenceKey, LastIdText(next)});
}

bool NeedsSequenceIds(const Json& document) {
  if (!document.is_structured() || IsReference(document)) return false;
  return AnyIn(document, [&](const Json& item) {
    return NeedsSequenceIds(item) || (document.is_array() && item.is_structured() && !IsReference(item));
  });
}

bool AppendDocument(RedisPipeline& pipeline, std::string_view key, const Json& document, int64_t& sequence) {
  if (!IsWritable(key, document)) return false;
  AppendContainer(pipeline, key, document, sequence);
  return true;
}

std::vector<std::string> DocumentKeys(std::string_view key, const Json& document, int64_t sequence) {
  std::vector<std::string> keys;
  CollectKeys(std::string(key), document, sequence, keys);
  return keys;
}

void AppendUnlink(RedisPipeline& pipeline, std::span<const std::string> keys) {
  if (keys.empty()) return;
  std::vector<std::string_view> command = {"UNLINK"};
  command.insert(command.end(), keys.begin(), keys.end());
  pipeline.Append(command);
}

bool AppendPropertyWrites(RedisPipeline& pipeline, std::string_view key, std::string_view name, const Json& value,
                          int64_t& sequence, std::span<const std::string> oldKeys) {
  if (!CheckNesting(key, value, kMaxNesting - 1)) return false;
  std::vector<std::string> stale(oldKeys.begin(), oldKeys.end());
  // What an interrupted write may have left under the value's own key must not join it.
  if (value.is_structured() && !LooksLikeMarker(name)) stale.push_back(ChildKey(key, name));
  AppendUnlink(pipeline, stale);
  AppendMember(pipeline, key, name, value, sequence);
  return true;
}

void AppendPropertyRemoval(RedisPipeline& pipeline, std::string_view key, std::string_view name,
                           std::span<const std::string> oldKeys) {
  AppendUnlink(pipeline, oldKeys);
  pipeline.Append({"HDEL", key, name});
}

bool CheckWriteReplies(const redisContext* redis, std::span<const RedisReply> replies, std::string_view key) {
  bool areGood = true;
  for (const RedisReply& reply : replies) {
    if (IsInteger(reply)) continue;
    areGood = false;
    if (reply) {
      LogStoreError("Updates property reply type is incorrect.",
                    {{kLogResource, key}, {kLogResultCode, std::to_string(reply->type)}});
    } else {
      LogStoreError(redis->err != 0 ? "Redis get reply failed!" : "Updates property failed with NULL result.",
                    {{kLogResource, key}});
    }
  }
  return areGood;
}

bool ReadArrayConfiguration(const Json& configuration, ArrayConfiguration& result) {
  const auto member = [&](const char* name) {
    const auto found = configuration.is_object() ? configuration.find(name) : configuration.end();
    return found != configuration.end() ? &*found : nullptr;
  };
  const Json* style = member("ArrayStyle");
  const Json* maxSize = member("ArrayMaxSize");
  const Json* fillNull = member("ArrayNullElement");
  const bool isReadable = style != nullptr && style->is_number_integer() && maxSize != nullptr &&
                          maxSize->is_number_unsigned() && fillNull != nullptr && fillNull->is_boolean();
  if (!isReadable) {
    LogStoreError("Reads array configuration failed!");
    return false;
  }
  LogStoreInfo("Input Array style =" + style->dump() + ", maxSize=" + maxSize->dump() +
               ", fill null element=" + fillNull->dump());
  if (*style < 0 || *style > 3) {
    LogStoreError("Array style is incorrect.");
    return false;
  }
  result = {
      .style = style->get<int>(),
      .maxSize = static_cast<size_t>(std::min<uint64_t>(maxSize->get<uint64_t>(), std::numeric_limits<size_t>::max())),
      .fillNull = fillNull->get<bool>()};
  return true;
}

bool WriteResource(redisContext* redis, std::string_view key, const Json& document, const ArrayConfiguration& arrays) {
  if (!IsWritable(key, document)) return false;
  if (arrays.style == 0) return WriteShaped(redis, key, document);
  Json shaped = document;
  return ShapeArrays(shaped, arrays) && WriteShaped(redis, key, shaped);
}

}  // namespace event_service
