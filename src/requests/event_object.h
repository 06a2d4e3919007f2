/// Events as the delivery side takes them over: an object in the store with the list of its events, which holds one.
/// Who builds one hands it over with EnqueueEvent.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "foundation/redis_pipeline.h"
#include "resource_store/store_encoding.h"

namespace event_service {

/// The key of a new event object: a random number below a fixed path, drawn again while another object has it.
class EventObjectKey {
 public:
  EventObjectKey() { Draw(); }

  const std::string& Text() const { return text_; }

  /// A step that asks whether the key is free.
  void AskWhetherFree(RedisPipeline& pipeline);

  /// Draws until a key is free, ten keys at most: one round trip for each after the first. False when none was.
  [[nodiscard]] bool Claim(redisContext* redis);

 private:
  void Draw();

  std::string text_;
  bool isFree_ = false;
};

/// Appends the writes of an event object with one event under `key`: the object, its list of events and the event.
/// Every reply is an integer. The event's "MemberId" is added here. False, with nothing appended, for an event that
/// nests too deep.
[[nodiscard]] bool AppendEventObject(RedisPipeline& pipeline, std::string_view key, const std::string& id,
                                     const std::string& name, Json event);

/// Every key that such an object takes, where the event has no lists but "MessageArgs".
std::vector<std::string> EventObjectKeys(const std::string& key);

}  // namespace event_service
