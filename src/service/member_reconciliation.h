/// After the database file has been loaded into Redis: makes Redis, file and memory agree about the subscriptions. Main
/// thread, during startup, before the member count.
#pragma once

#include "foundation/redis_commands.h"
#include "service/settings.h"

namespace event_service {

/// Gives every member that the collection names, that exists and is ours its "&&CRUDprefix" and rebuilds the Ids of the
/// SyslogTLS destinations. With members that the file has not brought back (streams among them) the collection gets a
/// new etag.
/// Complete members that only Redis holds (their insertion into the file had failed, or the file was lost) are written
/// back into the file, except SSE ones; what a creation or a deletion that was cut short has left of a member that
/// neither the collection nor the file names is removed, and so are the requests with which an earlier start created
/// destinations. While only the Redfish protocol is served, members of other protocols are nobody's business here.
///
/// False when the collection cannot be read or a prefix cannot be written; a failed write-back or removal is logged and
/// startup goes on.
[[nodiscard]] bool ReconcileMembers(redisContext* redis, const ServiceSettings& settings, SubscriptionsState& state);

}  // namespace event_service
