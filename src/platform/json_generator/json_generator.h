/// Stored resources as JSON text (libJsonGenerator). This is our own version of it; a board may link its own.
///
/// Containers are rebuilt through their markers; control fields ("&&...") come as strings, whatever they look like.
/// Each function reads only. Nothing, after one "[ERROR]" line on standard error, when the key holds something else
/// than expected, a reply is missing or a stored value cannot be read.
#pragma once

#include <hiredis/hiredis.h>

#include <optional>
#include <string>
#include <string_view>

/// The whole document at `key` as compact JSON text: object or array, whichever the key holds.
std::optional<std::string> convertRedisDataToJsonString(redisContext* redis, std::string_view key);

/// The array at `key` as compact JSON text; a missing one gives "[]".
std::optional<std::string> convertArrayDataToJsonString(redisContext* redis, std::string_view key);

/// A reference marker, of a hash field or of a list element, as {"@odata.id": ...}; the "&&" that a collection's
/// entries put in front of the URI is left out. Nothing, without a log line, for any other text.
std::optional<std::string> convertObjectRefDataToJsonString(std::string_view marker);
