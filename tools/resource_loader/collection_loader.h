/// Writes a collection and its members into Redis, as one transaction.
#pragma once

#include <string>
#include <string_view>

#include "foundation/redis_commands.h"
#include "tools/resource_loader/collection_file.h"

namespace event_service {

/// Why nothing was loaded.
struct LoadFault {
  std::string text;  // empty: it was loaded
  bool isOfFile = false;
};

/// Replaces every member that the file holds (its old keys go, whoever wrote them), sets the collection's own
/// properties, adds the members that are not listed yet and sets the count. What only Redis holds stays as it is. All
/// or nothing: a reader, or a start after a crash, never finds half of it.
LoadFault LoadCollection(redisContext* redis, const CollectionFile& file, std::string_view collectionUri);

}  // namespace event_service
