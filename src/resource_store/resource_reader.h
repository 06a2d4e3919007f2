/// Reading stored documents back: the whole document, or the keys that belong to it.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/redis_commands.h"
#include "resource_store/resource_walk.h"
#include "resource_store/store_encoding.h"

namespace event_service {

/// The kind of container under `key`; nothing, after logging "[ERROR] Gets resource type failed." on standard error,
/// for a missing key or any other type. One round trip.
std::optional<ContainerKind> GetResourceType(redisContext* redis, std::string_view key);

/// Rebuilds the document stored at `key`, breadth first: one round trip for each level (and one for the type). False,
/// after one "[ERROR]" line on standard error, when a reply is missing or of the wrong type, when a stored value is
/// neither marker nor JSON text, or when containers lie deeper than kMaxNesting; `document` is then unspecified.
bool ReadResource(redisContext* redis, std::string_view key, Json& document, const ReadOptions& options = {});

/// The same for a hash whose HGETALL reply the caller has fetched together with other things.
bool ReadResource(redisContext* redis, std::string_view key, const redisReply* hashReply, Json& document,
                  ReadOptions options = {});

/// For boards, as GetResourceType: the keys that belong to the document, the resource key first, each once. False as
/// for ReadResource, but values that are no markers are not looked at. With `ownKeysOnly`, keys that do not lie under
/// the document's own key are neither listed nor walked.
bool CollectResourceKeys(redisContext* redis, std::string_view key, std::vector<std::string>& keys,
                         bool ownKeysOnly = false);

}  // namespace event_service
