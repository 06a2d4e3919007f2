/// How a value in a request body can be at fault: what the EventService, the subscriptions and the actions judge alike.
/// Pure functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string_view>

#include "resource_store/store_encoding.h"

namespace event_service {

inline constexpr size_t kMaxStringBytes = 1024;  // any string without a limit of its own; Context and Description too
inline constexpr size_t kMaxDestinationBytes = 2048;
inline constexpr size_t kMaxHeaderBytes = 8192;  // name and value of one header
inline constexpr size_t kMaxArrayElements = 256;

enum class FaultKind {
  kUnknown,      // the resource has no such property
  kNotWritable,  // a client may not write it here
  kType,         // wrong JSON type, or null where null is not allowed
  kNotInList,
  kOutOfRange,
  kFormat,
  kTooLong,
  kValue,  // an array with too many elements; any fault of a secret, whose value is never repeated
};

struct Fault {
  FaultKind kind;
  size_t limit = 0;  // in bytes, for kTooLong
};

/// What stands for a member of a body that holds more objects and lists than are read; no JSON text gives such a value.
inline Json OverfullValue() { return Json::binary({}); }
/// The fault of such a value, to be looked for before any other.
inline std::optional<Fault> CheckOverfull(const Json& value) {
  return value.is_binary() ? std::optional(Fault{FaultKind::kValue}) : std::nullopt;
}

/// The checks of single values, null excluded: each gives the first fault, or nothing. Text: type, length, no NUL.
std::optional<Fault> CheckText(const Json& value, size_t limit = kMaxStringBytes);
/// The same, without control characters: such a text becomes a line, or a part of one, somewhere else.
std::optional<Fault> CheckLine(const Json& value);
/// true or false.
std::optional<Fault> CheckBoolean(const Json& value);
/// Whole numbers, in any notation ("2.5e1" and "25.0" are 25), within the range.
std::optional<Fault> CheckInteger(const Json& value, int64_t smallest = std::numeric_limits<int64_t>::min(),
                                  int64_t largest = std::numeric_limits<int64_t>::max());
/// A string that is one of the words.
std::optional<Fault> CheckInWords(const Json& value, std::span<const std::string_view> words);
/// An array with no more elements than allowed. Its elements are the caller's.
std::optional<Fault> CheckArray(const Json& value, size_t limit = kMaxArrayElements);
/// An element of an array of strings: as CheckText; one that begins with "&&" would be read as a marker and counts as
/// of the wrong type.
std::optional<Fault> CheckStringElement(const Json& element, size_t limit = kMaxStringBytes);

/// Control characters of ASCII.
bool HasControlCharacter(std::string_view text);

/// The number, when the value is one without a fraction that fits, whatever its notation.
std::optional<int64_t> WholeNumber(const Json& value);

}  // namespace event_service
