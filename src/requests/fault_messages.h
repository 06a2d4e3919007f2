/// The Redfish messages that say what is at fault in a request body, and where. Pure functions.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "requests/answer.h"
#include "requests/value_checks.h"
#include "resource_store/resource_walk.h"

namespace event_service {

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

}  // namespace event_service
