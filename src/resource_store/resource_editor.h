/// Changing stored documents: single properties, nested values, array elements, collections, whole deletion.
///
/// The daemon's handlers send their changes in batches. UpdateProperty, RemoveProperty, ClearArray, RemoveArrayElement,
/// AddToCollection and RemoveFromCollection stand here for boards, whose other services keep their resources with them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "foundation/redis_commands.h"
#include "foundation/redis_pipeline.h"
#include "resource_store/resource_writer.h"  // the forms for batches
#include "resource_store/store_encoding.h"

namespace event_service {

/// Replaces one member of the object at `key` by `value`, of whatever type: what the old value had stored under keys
/// below `key` is removed, the new value written. One "[ERROR]" line on standard error and false when a command fails.
bool UpdateProperty(redisContext* redis, std::string_view key, std::string_view name, const Json& value);

/// Removes one member of the object at `key` with what is nested in it; a missing one is removed already.
bool RemoveProperty(redisContext* redis, std::string_view key, std::string_view name);

/// Deletes the document at `key` with one UNLINK: every key that its markers lead to and that lies under its own key.
/// A missing document is deleted already. False, after one "[ERROR]" line, when a part of it could not be read (what
/// was found is deleted all the same) or when the UNLINK fails.
bool DeleteResource(redisContext* redis, std::string_view key);

/// Empties the array at `key` (LTRIM), nested values included.
bool ClearArray(redisContext* redis, std::string_view key);

/// Removes the element at `index` (from 0) of the array at `key`, with what was nested in it. False, after one
/// "[ERROR]" line, also when there is no such element.
bool RemoveArrayElement(redisContext* redis, std::string_view key, size_t index);

/// The list of a collection's members: "&&" + collection + "/Members".
std::string MembersKey(std::string_view collectionUri);

/// A collection's entry for a member, as this service writes it: "&&ObjectRef &&" + uri.
std::string MemberEntry(std::string_view memberUri);

/// The member's URI that an entry stands for; empty for a text that is no entry. Three forms are known: our own,
/// "&&ObjectRef " + uri as the encoding has it for any reference, and the URI alone, both written by other loaders.
std::string_view MemberUriOf(std::string_view entry);

/// Appends the removal of a member's entry, in every form, to a pipeline: one LREM for each, answered by integers.
void AppendMemberRemoval(RedisPipeline& pipeline, std::string_view collectionUri, std::string_view memberUri);

/// Adds the member's entry to the collection unless one stands there in any form. False, after one "[ERROR]" line, when
/// a command fails.
bool AddToCollection(redisContext* redis, std::string_view collectionUri, std::string_view memberUri);

/// Removes every entry of the member. False, after one "[ERROR]" line, when a command fails.
bool RemoveFromCollection(redisContext* redis, std::string_view collectionUri, std::string_view memberUri);

}  // namespace event_service
