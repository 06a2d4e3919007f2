/// The hand-over of events to the delivery side: a stored event object is passed to the Redis script whose digest
/// stands in "redisSHAScripts", field "enqueueEvent".
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/redis_commands.h"
#include "foundation/redis_pipeline.h"
#include "requests/answer.h"
#include "resource_store/store_encoding.h"

namespace event_service {

/// The field of the script's digest.
inline constexpr std::string_view kEnqueueScript = "enqueueEvent";

inline constexpr std::string_view kSubmitTestEventAction = "EventService.SubmitTestEvent";

/// Hands over the event object stored at `eventHashId`. True when the delivery side queued or discarded it. On a
/// refusal `messages` holds the Redfish message id and its arguments, as far as the script gave them. An object that
/// was not queued is deleted, except after a lost connection. Logs each failure.
bool EnqueueEvent(redisContext* redis, std::string_view eventHashId, std::vector<std::string>& messages);

/// The same in two halves, with the digest at hand, so that the hand-over can travel with other commands.
void AppendEnqueueEvent(RedisPipeline& pipeline, std::string_view digest, std::string_view eventHashId);
bool SettleEnqueueEvent(redisContext* redis, const redisReply* reply, std::string_view eventHashId,
                        std::vector<std::string>& messages);

/// Appends the writes of an event object with one event under `key`: the object, its list of events and the event.
/// Every reply is an integer. The event's "MemberId" is added here. False, with nothing appended, for an event that
/// nests too deep.
[[nodiscard]] bool AppendEventObject(RedisPipeline& pipeline, std::string_view key, const std::string& id,
                                     const std::string& name, Json event);

/// Hands over a test event. Nothing on success, otherwise the answer to the action: the script's message with the
/// action's name among its arguments, or "Base.1.12.OperationFailed".
std::optional<Answer> NotifyTestEvent(redisContext* redis, std::string_view eventHashId);

}  // namespace event_service
