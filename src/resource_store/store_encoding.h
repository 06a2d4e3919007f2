/// How one JSON value is held in Redis: markers, child keys and the patterns that recognise them.
///
/// Every JSON object is a hash and every array a list under a key of its own; the parent holds a marker that leads
/// there. Primitives are held as compact JSON text. docs/protocol.md shows an example. Nothing here talks to Redis.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "resource_store/json_text.h"

namespace event_service {

enum class ContainerKind { kObject, kArray };

/// What stands in a hash field or list element that is no JSON text. Views into the stored text.
struct Marker {
  enum class Kind { kObject, kArray, kReference };
  Kind kind;
  std::string_view target;  // the child key; for a reference the URI
};

/// True for every stored value that begins with "&&": it is read as a marker, never as JSON text. The same test tells
/// the control fields of a hash, by their names.
bool LooksLikeMarker(std::string_view stored);

/// The marker of a hash field: exactly three tokens at single blanks (kind, member name, target). Nothing for any other
/// text; readers skip it.
std::optional<Marker> ParseFieldMarker(std::string_view stored);

/// The marker of a list element: exactly two tokens (kind, target).
std::optional<Marker> ParseElementMarker(std::string_view stored);

/// The marker of a field in a request's body: three tokens, or two without the member's name.
std::optional<Marker> ParseBodyFieldMarker(std::string_view stored);

/// The marker of an element in a request's body, where the target is all that stands behind the kind: the front end
/// puts what a client sent there, blanks included.
std::optional<Marker> ParseBodyElementMarker(std::string_view stored);

/// True for the JSON text of a string that reads like a marker ("&&", a word, blanks, anything, in quotes): as an array
/// element it is stored without its quotes.
bool IsQuotedMarkerText(std::string_view jsonText);

/// The key of a nested value: the parent's key, "/" and the member name or sequence id, with "&&" in front unless it
/// begins with it already.
std::string ChildKey(std::string_view parentKey, std::string_view name);

/// True when `key` could be a nested value's of the document at `documentKey`, however deep: it begins with what every
/// ChildKey of it begins with.
bool IsUnderKey(std::string_view documentKey, std::string_view key);

/// True when `value` is an object with exactly one member, "@odata.id", that is a string: it is stored as a reference.
bool IsReference(const Json& value);

/// The sequence counter that object members pass: they consume no id.
inline constexpr int64_t kNoSequence = -1;

/// The compact JSON text of a primitive, as it is stored; empty for text that is not UTF-8, which is logged on standard
/// error as "[ERROR] Dump JSON object error. EXCEPTION=..." and which writers skip.
std::string DumpPrimitive(const Json& value);

/// What a writer needs of one member or element; all empty for an item that cannot be dumped (logged).
struct DumpedItem {
  std::string valueText;  // compact JSON of a primitive
  std::string name;       // the member name, or the array index in decimal
  std::string childKey;   // of an object or array
};

/// Takes apart one member (name: its name) or element (name: its index in decimal) of the container at `parentKey`. An
/// object or array, a reference included, forms its child key; as an element it consumes an id for it: `*sequence` then
/// moves on by one, from the largest value to 1. Object members pass a counter that holds kNoSequence.
DumpedItem DumpItem(std::string_view parentKey, int64_t* sequence, std::string name, const Json& value);

/// The marker for an object or array; puts "&&" in front of `childKey` when it lacks it. A reference gives the
/// reference marker, which needs no child key.
std::string BuildMarker(bool isArrayElement, const Json& value, std::string& childKey, std::string_view name);

}  // namespace event_service
