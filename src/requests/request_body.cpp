#include "requests/request_body.h"

#include "requests/property_faults.h"

namespace event_service {

RequestBody::RequestBody(std::string_view key)
    : walk_(key, {.knownKind = ContainerKind::kObject, .followForeignMarkers = false, .numberTexts = &numbers_},
            &document_) {}

bool RequestBody::TakeRoot(const redisReply* hashReply) {
  if (!walk_.TakeRoot(hashReply)) return false;
  if (walk_.Done()) RemovePassedOver(document_);
  return true;
}

bool RequestBody::TakeLevel(std::span<const RedisReply> replies) {
  if (!walk_.TakeLevel(replies)) return false;
  if (walk_.Done()) RemovePassedOver(document_);
  return true;
}

}  // namespace event_service
