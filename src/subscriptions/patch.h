/// PATCH of a subscription by a client.
#pragma once

#include "requests/answer.h"
#include "requests/request.h"

namespace event_service {

/// Applies what the body changes, or refuses it with nothing changed. The gates have been passed.
Answer PatchEventDestination(Request& request);

}  // namespace event_service
