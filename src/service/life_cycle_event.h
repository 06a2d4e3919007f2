/// Resource life-cycle events: a resource of this service was created, changed or removed. They are raised by a Redis
/// script of the event-delivery side, whose digest stands in "redisSHAScripts", field "resourceChange".
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "foundation/file_paths.h"
#include "foundation/redis_commands.h"
#include "foundation/redis_pipeline.h"

namespace event_service {

/// One event. Views into the caller's texts.
struct LifeCycleEvent {
  std::string_view change;        // "add", "remove", "change", "status"
  std::string_view resourcePath;  // a URI
  std::string_view resourceType;  // "EventDestination", "EventDestinationCollection", "EventService"
  std::string_view extraText;     // empty: none
  uint32_t eventGroupId = 0;
};

/// Forgets whether events are wanted ("GenerateResourceEvent", on unless exactly "false"), which is read with the first
/// event of a process. Startup calls it before the listeners run.
void ForgetLifeCycleSetting();

/// Raises one event as a step of a batch, with the script's digest at hand. Nothing is sent when the configuration
/// wants none, or kind or path is empty. A refusal of the script is logged as "Failed to generate life cycle event for
/// <path>: <text>", any other failure in a line of its own. The texts of `event` need not live until the batch is
/// executed.
void RaiseLifeCycleEvent(RedisPipeline& pipeline, std::string_view digest, const LifeCycleEvent& event);

}  // namespace event_service
