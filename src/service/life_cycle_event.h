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

/// Whether the configuration wants life-cycle events ("GenerateResourceEvent", on unless exactly "false"); read on the
/// first call in the process, with one debug line. Any thread.
bool LifeCycleEventsEnabled();

/// Forgets the setting, as a new process knows none. Start-up calls it before the listeners run.
void ForgetLifeCycleSetting();

/// Raises one event as a step of a batch, with the script's digest at hand. Nothing is sent when the feature is off, or
/// kind or path is empty. A refusal of the script is logged as "Failed to generate life cycle event for <path>:
/// <text>", any other failure in a line of its own. The texts of `event` need not live until the batch is executed.
void RaiseLifeCycleEvent(RedisPipeline& pipeline, std::string_view digest, const LifeCycleEvent& event);

/// The same in two halves, with the script's digest at hand, so that events can travel with other commands. Append
/// gives false when nothing was appended: the feature is off, or kind or path is empty.
bool AppendLifeCycleEvent(RedisPipeline& pipeline, std::string_view digest, const LifeCycleEvent& event);
bool CheckLifeCycleReply(const redisReply* reply, std::string_view resourcePath);

}  // namespace event_service
