#include "tools/redfish_gateway/prepared_resources.h"

namespace event_service {
namespace {

constexpr size_t kMostResources = 256;

}  // namespace

bool PreparedResources::Holds(const std::string& uri, const Json& stored) {
  const std::lock_guard lock(mutex_);
  const auto found = byUri_.find(uri);
  return found != byUri_.end() && found->second == stored;
}

void PreparedResources::Keep(const std::string& uri, const Json& stored) {
  const std::lock_guard lock(mutex_);
  if (byUri_.size() >= kMostResources) byUri_.clear();
  byUri_.insert_or_assign(uri, stored);
}

}  // namespace event_service
