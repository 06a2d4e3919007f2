/// Reading stored documents back: the whole document, or the keys that belong to it.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/redis_commands.h"
#include "resource_store/store_encoding.h"

namespace event_service {

/// The kind of container under `key`; nothing, after logging "[ERROR] Gets resource type failed." on standard error,
/// for a missing key or any other type. One round trip.
std::optional<ContainerKind> GetResourceType(redisContext* redis, std::string_view key);

struct ReadOptions {
  /// What the key is known to hold; without it the reader asks first (one round trip more).
  std::optional<ContainerKind> knownKind;
  /// Control fields (names that begin with "&&") of the document: left out, or given as strings whatever they look
  /// like.
  bool withControlFields = false;
  /// Whether markers are followed that lead outside the document's own keys. A request body is read without: a client's
  /// string that looks like such a marker then comes back as the string it was.
  bool followForeignMarkers = true;
};

/// Rebuilds the document stored at `key`, breadth first: one round trip for each level (and one for the type). Each key
/// is read once; a marker that leads back to a key already read gives an empty container, and so does a child key
/// that holds nothing. False, after one "[ERROR]" line on standard error, when a reply is missing or of the wrong type,
/// or when a stored value is neither marker nor JSON text; `document` is then unspecified. Nesting deeper than 32
/// levels fails as well.
bool ReadResource(redisContext* redis, std::string_view key, Json& document, const ReadOptions& options = {});

/// The same for a hash whose HGETALL reply is at hand already, so that a caller can fetch it together with other
/// things.
bool ReadResource(redisContext* redis, std::string_view key, const redisReply* hashReply, Json& document,
                  const ReadOptions& options = {});

/// The keys that belong to the document, the resource key first, each once. False as for ReadResource. With
/// `ownKeysOnly`, keys that do not lie under the document's own key are neither listed nor walked.
bool CollectResourceKeys(redisContext* redis, std::string_view key, std::vector<std::string>& keys,
                         bool ownKeysOnly = false);

}  // namespace event_service
