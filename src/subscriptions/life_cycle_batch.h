/// The life-cycle events of one request: they share an EventGroupId and travel in one batch, with other commands.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/redis_pipeline.h"
#include "requests/request.h"

namespace event_service {

class LifeCycleBatch {
 public:
  LifeCycleBatch(const Request& request, RedisPipeline& pipeline, uint32_t eventGroupId)
      : digest_(request.record.lifeCycleDigest), pipeline_(pipeline), eventGroupId_(eventGroupId) {}

  void AppendForMember(std::string_view change, std::string_view uri);
  /// The collection's members have changed.
  void AppendForCollection();

  /// Logs what failed, out of the replies of the whole batch. A failed event changes nothing else.
  void Check(std::span<const RedisReply> replies) const;

 private:
  void Append(std::string_view change, std::string_view path, std::string_view type);

  std::string_view digest_;
  RedisPipeline& pipeline_;
  uint32_t eventGroupId_;
  std::vector<std::pair<size_t, std::string>> sent_;  // position among the replies, resource path
};

}  // namespace event_service
