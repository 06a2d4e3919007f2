/// Changing stored documents: single properties, nested values, array elements, collections, whole deletion.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "foundation/redis_commands.h"
#include "foundation/redis_pipeline.h"
#include "resource_store/store_encoding.h"

namespace event_service {

/// Replaces one member of the object at `key` by `value`, of whatever type: what the old value had stored under child
/// keys of the document is removed, the new value written. One "[ERROR]" line on standard error and false when a
/// command fails.
bool UpdateProperty(redisContext* redis, std::string_view key, std::string_view name, const Json& value);

/// Deletes the document at `key` with one UNLINK: every key that its markers lead to and that lies under its own key.
/// A missing document is deleted already. False, after one "[ERROR]" line, when reading its keys or the UNLINK fails.
bool DeleteResource(redisContext* redis, std::string_view key);

/// Empties the array at `key` (LTRIM), nested values included.
bool ClearArray(redisContext* redis, std::string_view key);

/// Removes the element at `index` (from 0) of the array at `key`, with what was nested in it. False also when there is
/// no such element.
bool RemoveArrayElement(redisContext* redis, std::string_view key, size_t index);

/// The list of a collection's members: "&&" + collection + "/Members".
std::string MembersKey(std::string_view collectionUri);

/// A collection's entry for a member, as this service writes it: "&&ObjectRef &&" + uri.
std::string MemberEntry(std::string_view memberUri);

/// True when `entry` stands for this member: our own form, or the bare URI of other loaders.
bool IsMemberEntry(std::string_view entry, std::string_view memberUri);

/// The member's URI that an entry stands for; empty for a text that is no entry.
std::string_view MemberUriOf(std::string_view entry);

/// Appends the removal of a member's entry, in every form, to a pipeline: two LREM commands.
void AppendMemberRemoval(RedisPipeline& pipeline, std::string_view collectionUri, std::string_view memberUri);

/// Adds the member's entry to the collection unless one stands there in any form. False when a command fails.
bool AddToCollection(redisContext* redis, std::string_view collectionUri, std::string_view memberUri);

/// Removes every entry of the member. False when a command fails.
bool RemoveFromCollection(redisContext* redis, std::string_view collectionUri, std::string_view memberUri);

}  // namespace event_service
