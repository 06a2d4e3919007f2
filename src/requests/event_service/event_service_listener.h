/// Requests for the EventService resource itself: PATCH and the action SubmitTestEvent.
#pragma once

#include "requests/listener.h"

namespace event_service {

/// The EventService's requests. Every one of them is answered.
extern const ServiceRoutes kEventServiceRoutes;

/// The thread that serves them (a pthread entry point; the argument is null). Opens its own two connections and ends
/// when they cannot be opened or the subscription's fails. What prevents its start is said on standard output.
void* EventServiceListenerThread(void* argument);

}  // namespace event_service
