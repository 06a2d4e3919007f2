/// The first half of the EventService's initialisation: its request queues, the SMTP default, and the lists of resource
/// types and registry prefixes. Main thread, before the listeners run.
#pragma once

#include "foundation/redis_commands.h"
#include "service/settings.h"

namespace event_service {

/// Puts the EventService's channel into its request queues where they are empty, sets the SMTP password to null (unless
/// only the Redfish protocol is served), and fills the two lists. Stops at the first failure: false after its logged
/// line.
[[nodiscard]] bool InitQueues(redisContext* redis, const ServiceSettings& settings);

}  // namespace event_service
