/// The hand-over of events to the delivery side: a stored event object is passed to the Redis script whose digest
/// stands in "redisSHAScripts", field "enqueueEvent".
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/redis_commands.h"
#include "foundation/redis_pipeline.h"

namespace event_service {

/// The field of the script's digest.
inline constexpr std::string_view kEnqueueScript = "enqueueEvent";

/// Hands over the event object stored at `eventHashId`. True when the delivery side queued or discarded it. On a
/// refusal `messages` holds the Redfish message id and its arguments, as far as the script gave them; what they mean
/// for the request, and the line about it, are the caller's. An object that was not queued is deleted, except after a
/// lost connection. A lost connection and a failed deletion are logged.
bool EnqueueEvent(redisContext* redis, std::string_view eventHashId, std::vector<std::string>& messages);

/// What became of an event that travelled with other commands.
enum class HandOver {
  kTaken,    // queued or discarded
  kRefused,  // also when there is no such script
  kLost,     // no reply, which has its line
};

/// A step that hands the event object over to the script with this digest. `redis` is the pipeline's connection, on
/// which an object that was not queued is deleted afterwards.
void EnqueueEvent(RedisPipeline& pipeline, redisContext* redis, std::string_view digest, std::string_view eventHashId,
                  std::function<void(HandOver)> take);

}  // namespace event_service
