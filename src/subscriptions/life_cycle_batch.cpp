#include "subscriptions/life_cycle_batch.h"

#include "service/life_cycle_event.h"
#include "service/redis_keys.h"

namespace event_service {

void LifeCycleBatch::RaiseForMember(std::string_view change, std::string_view uri) {
  RaiseLifeCycleEvent(pipeline_, digest_, {change, uri, "EventDestination", {}, eventGroupId_});
}

void LifeCycleBatch::RaiseForCollection() {
  RaiseLifeCycleEvent(pipeline_, digest_,
                      {"change", kSubscriptionsUri, "EventDestinationCollection", {}, eventGroupId_});
}

}  // namespace event_service
