/// The second half of the EventService's initialisation: the stored subscriptions, the queues of the Subscriptions
/// side, and what Redis and the machine tell about the service. Main thread, before the listeners run.
#pragma once

#include "foundation/redis_commands.h"
#include "service/settings.h"

namespace event_service {

/// Loads the database file, rebuilds from the restored members what exists in memory only, registers the Subscriptions
/// channel in its queues, and fills settings and state. The lists must have been initialised before (InitQueues).
/// False, after a logged line, when the subscriptions cannot be loaded or the channel cannot be registered; what cannot
/// be discovered keeps its default.
[[nodiscard]] bool EventServiceInit(redisContext* redis, ServiceSettings& settings, SubscriptionsState& state);

}  // namespace event_service
