/// The action "EventService.SubmitTestEvent": an event as a client words it is handed to the delivery side.
#pragma once

#include <optional>
#include <string_view>

#include "requests/answer.h"
#include "requests/request.h"

namespace event_service {

/// Performs the action and, on success, sets the status "OK_RES" itself.
Answer SubmitTestEvent(const Request& request);

/// Hands over a stored test event. Nothing on success, otherwise the answer to the action: the script's message with
/// the action's name among its arguments, or "Base.1.12.OperationFailed".
std::optional<Answer> NotifyTestEvent(redisContext* redis, std::string_view eventHashId);

}  // namespace event_service
