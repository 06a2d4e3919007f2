#include "service/members_count.h"

#include <algorithm>
#include <string>

#include "service/redis_keys.h"

namespace event_service {

void AskMembersLength(RedisPipeline& pipeline, std::optional<int64_t>& length) {
  pipeline.Ask({"LLEN", kSubscriptionsMembersKey}, [&length](const RedisReply& reply) {
    length = IsInteger(reply) ? std::optional(int64_t{reply->integer}) : std::nullopt;
  });
}

void PublishMembersCount(RedisPipeline& pipeline, SubscriptionsState& state, std::optional<int64_t> length,
                         int32_t delta, bool& isPublished) {
  isPublished = false;
  if (!length) return;
  pipeline.Ask({"HSET", kSubscriptionsUri, "Members@odata.count", std::to_string(*length)},
               [=, &state, &isPublished](const RedisReply& reply) {
                 isPublished = IsInteger(reply);
                 if (!isPublished) return;
                 const int64_t count = delta == 0 ? *length : int64_t{state.subscriptionCount} + delta;
                 state.subscriptionCount = static_cast<uint32_t>(std::max<int64_t>(count, 0));
               });
}

bool UpdateMembersCount(redisContext* redis, SubscriptionsState& state, int32_t delta) {
  std::optional<int64_t> length;
  bool isPublished = false;
  RedisPipeline pipeline(redis);
  AskMembersLength(pipeline, length);
  pipeline.Execute();
  PublishMembersCount(pipeline, state, length, delta, isPublished);
  pipeline.Execute();
  return isPublished;
}

}  // namespace event_service
