#include "subscriptions/life_cycle_batch.h"

#include "service/life_cycle_event.h"
#include "service/redis_keys.h"

namespace event_service {

void LifeCycleBatch::AppendForMember(std::string_view change, std::string_view uri) {
  Append(change, uri, "EventDestination");
}

void LifeCycleBatch::AppendForCollection() { Append("change", kSubscriptionsUri, "EventDestinationCollection"); }

void LifeCycleBatch::Append(std::string_view change, std::string_view path, std::string_view type) {
  const size_t position = pipeline_.Size();
  if (AppendLifeCycleEvent(pipeline_, digest_, {change, path, type, {}, eventGroupId_})) {
    sent_.emplace_back(position, path);
  }
}

void LifeCycleBatch::Check(std::span<const RedisReply> replies) const {
  for (const auto& [position, path] : sent_) CheckLifeCycleReply(replies[position].get(), path);
}

}  // namespace event_service
