/// The life-cycle events of one request about subscriptions: they share an EventGroupId and travel in one batch, with
/// other commands. A failed event is logged and changes nothing else.
#pragma once

#include <cstdint>
#include <string_view>

#include "foundation/redis_pipeline.h"
#include "requests/request.h"

namespace event_service {

class LifeCycleBatch {
 public:
  LifeCycleBatch(const Request& request, RedisPipeline& pipeline, uint32_t eventGroupId)
      : digest_(request.record.lifeCycleDigest), pipeline_(pipeline), eventGroupId_(eventGroupId) {}

  /// Raises the event about one member; `change` is "add", "remove", "change" or "status".
  void RaiseForMember(std::string_view change, std::string_view uri);
  /// Raises "change" for the collection, whose members have changed.
  void RaiseForCollection();

 private:
  std::string_view digest_;
  RedisPipeline& pipeline_;
  uint32_t eventGroupId_;
};

}  // namespace event_service
