/// PATCH of the EventService.
#pragma once

#include "requests/answer.h"
#include "requests/request.h"

namespace event_service {

/// Judges the body, changes the resource, keeps the change in the persistent-properties file and raises the life-cycle
/// event. Turning the service off ends the streams of its SSE subscriptions.
Answer PatchEventService(const Request& request);

}  // namespace event_service
