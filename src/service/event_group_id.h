/// EventGroupIds: equal for the events of one cause, drawn from a counter in Redis.
#pragma once

#include <cstdint>

#include "foundation/redis_commands.h"
#include "foundation/redis_pipeline.h"

namespace event_service {

/// The largest EventGroupId. 2147483647 until a valid other value has been read from "webDefaultValue"; asked again at
/// every call until then. Any thread with its own connection. A value that is no number from 1 on is logged.
int32_t MaxEventGroupId(redisContext* redis);

/// Forgets the maximum, as a new process knows none. Startup calls it before the listeners run.
void ForgetMaxEventGroupId();

/// Draws the next EventGroupId: 1 to the maximum, then 1 again. Any thread with its own connection. Never fails: a
/// counter that cannot be incremented, or is below 1, is logged and restarts at 1.
uint32_t NextEventGroupId(redisContext* redis);

/// The same as a step of a batch: `id` is set when the batch has been executed. The maximum is read along while it is
/// not known; one more round trip is made at the maximum only.
void DrawEventGroupId(redisContext* redis, RedisPipeline& pipeline, uint32_t& id);

}  // namespace event_service
