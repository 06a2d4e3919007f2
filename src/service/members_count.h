/// The number of subscriptions: the published one is the length of the Members list, the one in memory moves by what
/// the caller did. Startup, then the Subscriptions listener only.
#pragma once

#include <cstdint>
#include <optional>

#include "foundation/redis_commands.h"
#include "foundation/redis_pipeline.h"
#include "service/settings.h"

namespace event_service {

/// Publishes the length of the Members list as "Members@odata.count" and moves `state.subscriptionCount` by `delta`; a
/// delta of 0 sets it to the length. False, with the count in memory as it was, when Redis does not give the length or
/// does not take the count. Logs nothing.
[[nodiscard]] bool UpdateMembersCount(redisContext* redis, SubscriptionsState& state, int32_t delta);

/// The same in two steps of batches: ask for the length, after the member's entry has been added or removed (nothing
/// when Redis does not give it),
void AskMembersLength(RedisPipeline& pipeline, std::optional<int64_t>& length);
/// and publish it in a later batch, which then moves the count in memory. `isPublished` is false, with that count as it
/// was, when there is no length, with nothing sent, or when Redis does not take the count.
void PublishMembersCount(RedisPipeline& pipeline, SubscriptionsState& state, std::optional<int64_t> length,
                         int32_t delta, bool& isPublished);

}  // namespace event_service
