#include "requests/request_body.h"

#include <algorithm>
#include <utility>

#include "requests/property_faults.h"
#include "resource_store/json_text.h"

namespace event_service {

RequestBody::Nested::Nested(std::string memberName, std::string_view key, ContainerKind kind, Json* value)
    : name(std::move(memberName)),
      walk(key, {.knownKind = kind, .followForeignMarkers = false, .numberTexts = &numbers}, value) {}

bool RequestBody::IsComplete() const {
  return started_ && std::ranges::all_of(nested_, [](const Nested& nested) { return nested.walk.Done(); });
}

void RequestBody::AppendLevel(RedisPipeline& pipeline) {
  if (!started_) firstReply_ = pipeline.Append({"HGETALL", key_});
  for (Nested& nested : nested_) nested.walk.AppendLevel(pipeline);
}

bool RequestBody::TakeLevel(std::span<const RedisReply> replies) {
  if (!started_) {
    const RedisReply& reply = replies[firstReply_];
    if (!IsArray(reply)) return false;
    started_ = true;
    if (!TakeFields(std::span(reply->element, reply->elements))) return false;
  } else {
    for (Nested& nested : nested_) {
      if (!nested.walk.Done() && !nested.walk.TakeLevel(replies)) return false;
    }
  }
  if (IsComplete()) Complete();
  return true;
}

bool RequestBody::TakeFields(std::span<redisReply* const> fields) {
  for (size_t i = 0; i + 1 < fields.size(); i += 2) {
    const std::string_view name = TextOf(fields[i]);
    if (!IsPassedOver(name) && !TakeField(name, TextOf(fields[i + 1]))) return false;
  }
  return true;
}

bool RequestBody::TakeField(std::string_view name, std::string_view stored) {
  if (LooksLikeMarker(stored)) return TakeMarker(name, stored);
  Json value;
  bool exact = true;
  if (!ParseJsonText(stored, value, exact) || !NestsWithin(value)) return false;
  if (!exact) numbers_.emplace(name, stored);
  document_[std::string(name)] = std::move(value);
  return true;
}

bool RequestBody::TakeMarker(std::string_view name, std::string_view stored) {
  const std::optional<Marker> marker = ParseFieldMarker(stored);
  // A name with a blank makes a marker that cannot be read; no property has such a name, so the value does not matter.
  if (!marker && name.find(' ') == std::string_view::npos) return false;
  Json& value = document_[std::string(name)];
  if (!marker) {
    value = nullptr;
  } else if (marker->kind == Marker::Kind::kReference) {
    value = {{"@odata.id", marker->target}};
  } else {
    const bool isArray = marker->kind == Marker::Kind::kArray;
    nested_.emplace_back(std::string(name), marker->target, isArray ? ContainerKind::kArray : ContainerKind::kObject,
                         &value);
  }
  return true;
}

void RequestBody::Complete() {
  for (const Nested& nested : nested_) {
    for (const auto& [path, text] : nested.numbers) numbers_.emplace(nested.name + '/' + path, text);
  }
  RemovePassedOver(document_);
}

}  // namespace event_service
