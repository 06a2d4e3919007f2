#include "resource_store/resource_editor.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "resource_store/resource_reader.h"
#include "resource_store/resource_walk.h"
#include "resource_store/resource_writer.h"
#include "resource_store/store_log.h"

namespace event_service {
namespace {

constexpr std::string_view kReferencePrefix = "&&ObjectRef ";
constexpr std::string_view kHiddenUriPrefix = "&&";

// What an element is for the moment between being chosen and being removed; readers skip it.
constexpr std::string_view kRemovedElement = "&&Removed";

/// Walks to the end whatever fails on the way. False when something did.
bool FinishAll(redisContext* redis, ResourceWalk& walk) {
  while (!walk.Done()) walk.ReadLevel(redis);
  return !walk.HasFailed();
}

/// The keys of what a marker of the container at `key` leads to, as far as they lie below `key`. False when they could
/// not all be read (logged).
bool CollectNested(redisContext* redis, std::string_view key, const std::optional<Marker>& marker,
                   std::vector<std::string>& keys) {
  if (!marker || marker->kind == Marker::Kind::kReference || !IsUnderKey(key, marker->target)) return true;
  const ContainerKind kind = marker->kind == Marker::Kind::kObject ? ContainerKind::kObject : ContainerKind::kArray;
  ResourceWalk walk(marker->target, {.knownKind = kind, .ownKeysOnly = true});
  const bool complete = FinishAll(redis, walk);
  keys = walk.Keys();
  return complete;
}

/// The keys that hold what is nested in a member; none for a control field, whose text is no marker.
bool CollectMember(redisContext* redis, std::string_view key, std::string_view name, std::vector<std::string>& keys) {
  if (LooksLikeMarker(name)) return true;
  const RedisReply reply = SendArguments(redis, {"HGET", key, name});
  if (!IsString(reply) && (!reply || reply->type != REDIS_REPLY_NIL)) {
    LogStoreError(reply ? "Gets redis resource failed." : "Redis get reply failed!",
                  {{kLogResource, key}, {kLogFields, name}});
    return false;
  }
  return CollectNested(redis, key, ParseFieldMarker(TextOf(reply)), keys);
}

/// True when a reply is the status OK; logs as CheckWriteReplies does.
bool CheckStatus(const redisContext* redis, const RedisReply& reply, std::string_view key) {
  return TextOf(reply) == "OK" || CheckWriteReplies(redis, std::span(&reply, 1), key);
}

}  // namespace

bool UpdateProperty(redisContext* redis, std::string_view key, std::string_view name, const Json& value) {
  std::vector<std::string> oldKeys;
  if (!CollectMember(redis, key, name, oldKeys)) return false;

  const bool countsIds = NeedsSequenceIds(value);
  int64_t next = countsIds ? NextSequenceId(redis) : 1;
  if (next == kNoSequence) {
    LogStoreError("Takes Array Sequence Id failed!", {{kLogResource, key}});
    return false;
  }
  bool isWritten = false;
  RedisPipeline pipeline(redis);
  if (!AppendPropertyWrites(pipeline, key, name, value, next, oldKeys)) return false;
  pipeline.Then([&](Replies writes) { isWritten = CheckWriteReplies(redis, writes, key); });
  if (countsIds) {
    AppendSequenceStore(pipeline, next);
    pipeline.Then([&](Replies store) { isWritten = isWritten && CheckStatus(redis, store.front(), key); });
  }
  pipeline.Execute();
  return isWritten;
}

bool RemoveProperty(redisContext* redis, std::string_view key, std::string_view name) {
  std::vector<std::string> oldKeys;
  if (!CollectMember(redis, key, name, oldKeys)) return false;
  RedisPipeline pipeline(redis);
  AppendPropertyRemoval(pipeline, key, name, oldKeys);
  return CheckWriteReplies(redis, pipeline.Execute(), key);
}

bool DeleteResource(redisContext* redis, std::string_view key) {
  const RedisReply type = SendArguments(redis, {"TYPE", key});
  if (TextOf(type) == "none") return true;
  const std::optional<ContainerKind> kind = TakeResourceType(type.get(), key);
  if (!kind) return false;

  ResourceWalk walk(key, {.knownKind = kind, .ownKeysOnly = true});
  const bool complete = FinishAll(redis, walk);
  RedisPipeline pipeline(redis);
  AppendUnlink(pipeline, walk.Keys());
  const std::vector<RedisReply> replies = pipeline.Execute();
  return complete && CheckWriteReplies(redis, replies, key);
}

bool ClearArray(redisContext* redis, std::string_view key) {
  ResourceWalk walk(key, {.knownKind = ContainerKind::kArray, .ownKeysOnly = true});
  if (!FinishAll(redis, walk)) return false;
  bool isCleared = false;
  RedisPipeline pipeline(redis);
  const std::vector<std::string> keys = walk.Keys();
  AppendUnlink(pipeline, std::span(keys).subspan(1));
  pipeline.Then([&](Replies unlink) { isCleared = CheckWriteReplies(redis, unlink, key); });
  pipeline.Ask({"LTRIM", key, "1", "0"},
               [&](const RedisReply& reply) { isCleared = isCleared && CheckStatus(redis, reply, key); });
  pipeline.Execute();
  return isCleared;
}

bool RemoveArrayElement(redisContext* redis, std::string_view key, size_t index) {
  const std::string position = std::to_string(index);
  const RedisReply element = SendArguments(redis, {"LINDEX", key, position});
  if (!IsString(element)) {
    LogStoreError(element ? "Gets redis resource failed." : "Redis get reply failed!",
                  {{kLogResource, key}, {kLogElement, position}});
    return false;
  }
  std::vector<std::string> nested;
  if (!CollectNested(redis, key, ParseElementMarker(TextOf(element)), nested)) return false;

  // Redis removes by value only: the element first becomes one that nothing else equals.
  bool isRemoved = false;
  RedisPipeline pipeline(redis);
  pipeline.Ask({"LSET", key, position, kRemovedElement},
               [&](const RedisReply& reply) { isRemoved = CheckStatus(redis, reply, key); });
  pipeline.Append({"LREM", key, "1", kRemovedElement});
  AppendUnlink(pipeline, nested);
  pipeline.Then([&](Replies removals) { isRemoved = isRemoved && CheckWriteReplies(redis, removals, key); });
  pipeline.Execute();
  return isRemoved;
}

std::string MembersKey(std::string_view collectionUri) { return ChildKey(collectionUri, "Members"); }

std::string MemberEntry(std::string_view memberUri) {
  return std::string(kReferencePrefix).append(kHiddenUriPrefix).append(memberUri);
}

std::string_view MemberUriOf(std::string_view entry) {
  if (entry.starts_with('/')) return entry;
  const std::optional<Marker> marker = ParseElementMarker(entry);
  if (!marker || marker->kind != Marker::Kind::kReference) return {};
  std::string_view uri = marker->target;
  if (uri.starts_with(kHiddenUriPrefix)) uri.remove_prefix(kHiddenUriPrefix.size());
  return uri;
}

void AppendMemberRemoval(RedisPipeline& pipeline, std::string_view collectionUri, std::string_view memberUri) {
  const std::string key = MembersKey(collectionUri);
  pipeline.Append({"LREM", key, "0", MemberEntry(memberUri)});
  pipeline.Append({"LREM", key, "0", std::string(kReferencePrefix).append(memberUri)});
  pipeline.Append({"LREM", key, "0", memberUri});
}

bool AddToCollection(redisContext* redis, std::string_view collectionUri, std::string_view memberUri) {
  const std::string key = MembersKey(collectionUri);
  const RedisReply entries = SendArguments(redis, {"LRANGE", key, "0", "-1"});
  if (!IsArray(entries)) {
    LogStoreError(entries ? "Gets redis resource failed." : "Redis get reply failed!", {{kLogResource, key}});
    return false;
  }
  const auto isOfMember = [memberUri](std::string_view entry) { return MemberUriOf(entry) == memberUri; };
  if (std::ranges::any_of(TextsOf(entries), isOfMember)) return true;
  RedisPipeline pipeline(redis);
  pipeline.Append({"RPUSH", key, MemberEntry(memberUri)});
  return CheckWriteReplies(redis, pipeline.Execute(), key);
}

bool RemoveFromCollection(redisContext* redis, std::string_view collectionUri, std::string_view memberUri) {
  RedisPipeline pipeline(redis);
  AppendMemberRemoval(pipeline, collectionUri, memberUri);
  return CheckWriteReplies(redis, pipeline.Execute(), MembersKey(collectionUri));
}

}  // namespace event_service
