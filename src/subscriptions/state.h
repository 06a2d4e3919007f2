/// Whether events are delivered to a subscription: its Status/State. After the creation it is changed by the delivery
/// side, which suspends, and by clients, who resume.
#pragma once

#include <string_view>

#include "requests/answer.h"
#include "requests/request.h"

namespace event_service {

/// Writes the State of a stored member and nothing else. False when Redis does not take it.
[[nodiscard]] bool SetState(redisContext* redis, std::string_view uri, std::string_view state);

/// The action ResumeSubscription: enables a subscription that is not; one that is gets the no-operation response.
Answer ResumeSubscription(Request& request, std::string_view uri);

/// A PATCH of the delivery side, whose body is {"Status": {"State": ...}}. An unknown State is logged and ignored, one
/// that stands already changes nothing.
Answer ApplyDeliveryState(Request& request);

}  // namespace event_service
