/// What passes between this service and the syslog forwarder: a destination is set up before its subscription is
/// stored, and taken down when the subscription ends.
#pragma once

#include <string>
#include <string_view>

#include "foundation/redis_commands.h"
#include "foundation/redis_pipeline.h"
#include "resource_store/store_encoding.h"

namespace event_service {

inline constexpr std::string_view kSyslogQueue = "&&/redfish/v1/EventDestination/SYSLOG_CREATEQ";

/// The order to set up a syslog destination: its Id, transport, address and the first of its filters.
std::string SyslogCreateMessage(const Json& destination);
/// The order to take it down.
std::string SyslogDeleteMessage(std::string_view id);

/// Has the forwarder set up the destination and waits up to 5 seconds for its answer, unless the order could not be
/// pushed. Anything but "OK" withdraws the order, is logged and gives false.
[[nodiscard]] bool CreateAtSyslogForwarder(redisContext* redis, const Json& destination);

/// Has the forwarder set up the destination anew, as `wanted` says, and waits likewise. Anything but "OK" gives it the
/// order of `former` back, is logged and gives false.
[[nodiscard]] bool RenewAtSyslogForwarder(redisContext* redis, const Json& former, const Json& wanted);

}  // namespace event_service
