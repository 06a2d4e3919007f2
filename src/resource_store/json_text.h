/// JSON values and their texts: stored values, mostly short strings and numbers, and whole documents that others have
/// written.
#pragma once

#include <algorithm>
#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace event_service {

using Json = nlohmann::json;

/// Containers inside each other, the document itself counted: deeper ones are neither written nor read.
inline constexpr size_t kMaxNesting = 32;

/// False when containers lie deeper inside each other than `levels`.
bool NestsWithin(const Json& value, size_t levels = kMaxNesting);

/// True for a text that is a number by the grammar of JSON, of any size.
bool IsJsonNumber(std::string_view text);

/// Parses one whole JSON text. False when it is none. `exact` is cleared for a number that the result does not write
/// the same way again; one beyond the range of a double becomes the largest with its sign.
bool ParseJsonText(std::string_view text, Json& value, bool& exact);

/// The compact JSON text of a value; throws Json::type_error for a string that is not UTF-8, as Json::dump does.
std::string JsonText(const Json& value);

/// The size of that text.
size_t JsonTextSize(const Json& value);

/// The same without throwing, for what holds any bytes: those that are not UTF-8 become the replacement character.
std::string TolerantJsonText(const Json& value);

/// The text of a member that is a string; empty for a missing one, for any other type and for what is no object. Lives
/// as long as the object.
std::string_view TextMember(const Json& object, std::string_view name);

/// The member of this name, null when it has just been added: operator[] would set up a name and a node for each call.
Json& MemberOf(Json::object_t& object, std::string_view name);

/// True when the predicate holds for one of an object's members or an array's elements. (The library's iterators ask
/// at each step what they go through.)
template <typename Predicate>
bool AnyIn(const Json& value, const Predicate& predicate) {
  if (const auto* const object = value.get_ptr<const Json::object_t*>()) {
    return std::ranges::any_of(*object, predicate, &Json::object_t::value_type::second);
  }
  const auto* const array = value.get_ptr<const Json::array_t*>();
  return array != nullptr && std::ranges::any_of(*array, predicate);
}

/// Parses a JSON text that others have written. A discarded value for what is not one whole text: anything with a NUL,
/// which the parser takes for the end; and for one that nests deeper than kMaxNesting. The parser and the destructor of
/// values do not recurse, but copying, comparing and dumping them does.
Json ParseOutsideText(std::string_view text);

}  // namespace event_service
