#include "resource_store/resource_reader.h"

namespace event_service {
namespace {

/// Walks to the end or to the first failure.
bool Finish(redisContext* redis, ResourceWalk& walk) {
  while (!walk.Done()) {
    if (!walk.ReadLevel(redis)) return false;
  }
  return true;
}

}  // namespace

std::optional<ContainerKind> GetResourceType(redisContext* redis, std::string_view key) {
  return TakeResourceType(SendArguments(redis, {"TYPE", key}).get(), key);
}

bool ReadResource(redisContext* redis, std::string_view key, Json& document, const ReadOptions& options) {
  ResourceWalk walk(key, options, &document);
  return Finish(redis, walk);
}

bool ReadResource(redisContext* redis, std::string_view key, const redisReply* hashReply, Json& document,
                  ReadOptions options) {
  options.knownKind = ContainerKind::kObject;
  ResourceWalk walk(key, options, &document);
  return walk.TakeRoot(hashReply) && Finish(redis, walk);
}

bool CollectResourceKeys(redisContext* redis, std::string_view key, std::vector<std::string>& keys, bool ownKeysOnly) {
  ResourceWalk walk(key, {.ownKeysOnly = ownKeysOnly});
  const bool complete = Finish(redis, walk);
  keys = walk.Keys();
  return complete;
}

}  // namespace event_service
