/// How a value in a request body can be at fault, and the Redfish message that says so: what the EventService, the
/// subscriptions and the actions judge alike. Pure functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "requests/answer.h"
#include "resource_store/resource_walk.h"

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

/// The message for a fault of a property. `property` is its path ("SMTP/Port", "MessageIds/2", from MemberPath and
/// ElementPath): as it stands it is the related property, a JSON pointer, and as the client wrote the names it is the
/// property argument. The value is shown decoded when it is a string, otherwise as compact JSON, cut to
/// 256 characters; secrets inside objects and arrays (SMTP password, SNMP credentials, header values) show as null.
/// `numbers` holds the numbers that Json cannot give back as they were written.
Message PropertyMessage(const Fault& fault, const Json& value, std::string_view property,
                        const NumberTexts& numbers = {});

/// The same for faults that carry no value.
Message PropertyMessage(FaultKind kind, std::string_view property);

/// The message for a fault of an action's parameter; `action` is its full name ("EventService.SubmitTestEvent").
Message ParameterMessage(const Fault& fault, const Json& value, std::string_view parameter, std::string_view action,
                         const NumberTexts& numbers = {});

/// "SMTP/Port" for the member "Port" of "SMTP", "Port" without a parent. A "~" or "/" inside the name is escaped as in
/// a JSON pointer.
std::string MemberPath(std::string_view parent, std::string_view name);

/// "MessageIds/2" for the third element of "MessageIds".
std::string ElementPath(std::string_view property, size_t index);

/// True for the members of a body that are neither stored nor refused: control fields ("&&...") and annotations
/// ("...@odata.*", "...@Redfish.*", "...@Message.*").
bool IsPassedOver(std::string_view memberName);

/// Takes those members out of a body, at every level. The "@odata.id" of a link is no annotation: it stays in the
/// elements of OriginResources and MetricReportDefinitions, and, to be shown, in objects that hold nothing else where
/// no object is accepted. It stays so in an element of HttpHeaders, too: that may have been the string "&&ObjectRef
/// ...".
void RemovePassedOver(Json& body);

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
