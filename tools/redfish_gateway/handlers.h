/// The handlers of the route table. Each answers one method of one kind of resource.
#pragma once

#include "tools/redfish_gateway/gateway.h"

namespace event_service {

// The resources of the gateway itself (own_resources.cpp).
HttpAnswer ReadOwnResource(Call& call);
HttpAnswer ReadMetadata(Call& call);
HttpAnswer ReadSessionService(Call& call);
HttpAnswer PatchSessionService(Call& call);
HttpAnswer ReadSessions(Call& call);
HttpAnswer CreateSession(Call& call);
HttpAnswer ReadSession(Call& call);
HttpAnswer DeleteSession(Call& call);

// The resources of the EventService, which the daemon changes (service_resources.cpp).
HttpAnswer ReadStoredResource(Call& call);
HttpAnswer PatchStoredResource(Call& call);
HttpAnswer DeleteStoredResource(Call& call);
HttpAnswer CreateSubscription(Call& call);
HttpAnswer PostAction(Call& call);
HttpAnswer OpenStream(Call& call);

/// Deletes the subscription of a stream that has ended. True when the daemon has answered.
bool DeleteStreamSubscription(FrontEndLink& link, const std::string& uri);

}  // namespace event_service
