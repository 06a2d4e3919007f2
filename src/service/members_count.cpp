#include "service/members_count.h"

#include <algorithm>
#include <string>
#include <vector>

#include "service/redis_keys.h"

namespace event_service {

void AppendMembersLength(RedisPipeline& pipeline) { pipeline.Append({"LLEN", kSubscriptionsMembersKey}); }

bool AppendMembersCount(RedisPipeline& pipeline, const redisReply* length) {
  if (!IsInteger(length)) return false;
  pipeline.Append({"HSET", kSubscriptionsUri, "Members@odata.count", std::to_string(length->integer)});
  return true;
}

bool SettleMembersCount(SubscriptionsState& state, const redisReply* length, const redisReply* published,
                        int32_t delta) {
  if (!IsInteger(length) || !IsInteger(published)) return false;
  const int64_t count = delta == 0 ? length->integer : int64_t{state.subscriptionCount} + delta;
  state.subscriptionCount = static_cast<uint32_t>(std::max<int64_t>(count, 0));
  return true;
}

bool UpdateMembersCount(redisContext* redis, SubscriptionsState& state, int32_t delta) {
  RedisPipeline pipeline(redis);
  AppendMembersLength(pipeline);
  const std::vector<RedisReply> length = pipeline.Execute();
  if (!AppendMembersCount(pipeline, length.front().get())) return false;
  const std::vector<RedisReply> published = pipeline.Execute();
  return SettleMembersCount(state, length.front().get(), published.front().get(), delta);
}

}  // namespace event_service
