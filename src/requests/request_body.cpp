#include "requests/request_body.h"

#include "requests/body_cleaning.h"
#include "requests/value_checks.h"

namespace event_service {

RequestBody::RequestBody(std::string_view key)
    : walk_(key, {.knownKind = ContainerKind::kObject, .overfullMembers = &overfullMembers_, .numberTexts = &numbers_},
            &document_) {}

bool RequestBody::TakeRoot(const redisReply* hashReply) {
  walk_.TakeRoot(hashReply);
  Finish();
  return !HasFailed();
}

void RequestBody::AskLevel(RedisPipeline& pipeline) {
  if (IsComplete()) return;
  walk_.AskLevel(pipeline);
  pipeline.Then([this](Replies) { Finish(); });
}

bool RequestBody::ReadRest(RedisPipeline& pipeline) {
  while (!HasFailed() && !IsComplete()) {
    AskLevel(pipeline);
    pipeline.Execute();
  }
  return !HasFailed();
}

void RequestBody::Finish() {
  if (HasFailed() || !IsComplete()) return;
  RemovePassedOver(document_);
  for (const std::string& name : overfullMembers_) {
    if (const auto member = document_.find(name); member != document_.end()) *member = OverfullValue();
  }
}

}  // namespace event_service
