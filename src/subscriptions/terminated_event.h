/// The last event that a destination gets: its subscription has ended (DSP0266, Eventing).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "foundation/redis_pipeline.h"
#include "resource_store/store_encoding.h"

namespace event_service {

/// Appends the writes of the event object under `key`: Base SubscriptionTerminated, for the destination stored at `uri`
/// alone, which the control field "&&EventDestination" names. Every reply is an integer.
[[nodiscard]] bool AppendTerminatedEvent(RedisPipeline& pipeline, std::string_view key, std::string_view uri,
                                         const Json& destination, uint32_t eventGroupId);

}  // namespace event_service
