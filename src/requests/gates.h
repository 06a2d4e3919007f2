/// The checks that stand before the handlers. Each gives nothing when the request may go on, or the refusal.
#pragma once

#include <optional>
#include <string_view>

#include "requests/answer.h"
#include "requests/request.h"

namespace event_service {

/// "UNAVAILABLE" unless field "ServiceEnabled" of the EventService is "true".
std::optional<Answer> CheckServiceEnabled(const Request& request);

/// While only the Redfish protocol is served: "IGNORE" for a destination (or request body) stored under `key` whose
/// "Protocol" is another one; another service handles it. Otherwise no round trip.
std::optional<Answer> CheckRedfishProtocol(const Request& request, std::string_view key);

}  // namespace event_service
