/// Stored resources as JSON text: our own version of what the board may bring along.
///
/// Containers are rebuilt through their markers; control fields ("&&...") come as strings. Each function takes the
/// caller's connection and changes nothing in Redis. Nothing, after one "[ERROR]" line on standard error, when the key
/// holds something else than expected, when a reply is missing or when a stored value cannot be read.
#pragma once

#include <hiredis/hiredis.h>

#include <optional>
#include <string>
#include <string_view>

namespace event_service {

/// The whole document at `key` as compact JSON text, object or array, whichever the key holds.
std::optional<std::string> convertRedisDataToJsonString(redisContext* redis, std::string_view key);

/// The array at `key` as compact JSON text; a missing one is "[]".
std::optional<std::string> convertArrayDataToJsonString(redisContext* redis, std::string_view key);

/// A reference marker, of a hash field or of a list element, as {"@odata.id": ...}, without the "&&" that a
/// collection's entries put in front of the URI. Nothing, without a log line, for any other text.
std::optional<std::string> convertObjectRefDataToJsonString(std::string_view marker);

}  // namespace event_service
