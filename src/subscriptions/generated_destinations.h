/// The subscriptions that a product ships with: a file of creation bodies, handed to the Subscriptions listener at
/// every startup.
#pragma once

#include <chrono>

#include "foundation/redis_commands.h"
#include "service/settings.h"

namespace event_service {

/// How long startup waits for the listener.
struct GenerationLimits {
  std::chrono::milliseconds untilHeard{5000};  // for the listener to have subscribed
  std::chrono::milliseconds perAnswer{30000};  // syslog destinations take up to 5 seconds, the file some more
};

/// Hands each body of the file to the listener over its channel, as the front end would for an administrator, and waits
/// for the answer. A body whose Id exists is skipped; one without an Id also when a member has its Destination,
/// Protocol and Context. A refusal is logged with the body's position, and the next one is tried. A missing file is no
/// error.
void CreateGeneratedDestinations(redisContext* redis, const ServiceSettings& settings);
void CreateGeneratedDestinations(redisContext* redis, const ServiceSettings& settings, const GenerationLimits& limits);

}  // namespace event_service
