/// After the database file has been loaded into Redis: makes Redis, file and memory agree about the subscriptions. Main
/// thread, during startup, before the member count.
#pragma once

#include "foundation/redis_commands.h"
#include "service/settings.h"

namespace event_service {

/// Gives every member that the collection names, that exists and is ours its "&&CRUDprefix" and rebuilds the Ids of the
/// SyslogTLS destinations.
/// Complete members that only Redis holds (their insertion into the file had failed, or the file was lost) are written
/// back into the file, except SSE ones; the keys of members whose creation was cut short are removed, and so are those
/// of requests with which an earlier start created destinations. While only the Redfish protocol is served, members of
/// other protocols are nobody's business here.
///
/// False when the collection cannot be read or a prefix cannot be written; a failed write-back or removal is logged and
/// startup goes on.
[[nodiscard]] bool ReconcileMembers(redisContext* redis, const ServiceSettings& settings, SubscriptionsState& state);

}  // namespace event_service
