/// Writes answers under their response keys and announces them.
#pragma once

#include <string>
#include <string_view>

#include "foundation/redis_pipeline.h"
#include "requests/answer.h"

namespace event_service {

// Below a response key, beside its status.
inline constexpr std::string_view kRawJson = "&&RawJSON";
inline constexpr std::string_view kMessageId = "&&MessageId";
inline constexpr std::string_view kMessageArgs = "MessageArgs";
inline constexpr std::string_view kRelatedProperties = "RelatedProperties";

/// The hash of an answer's body, and the list of its entries' keys.
std::string AnswerBodyKey(std::string_view responseKey);
std::string MessageListKey(std::string_view responseKey);
/// A list of one entry, by its name.
std::string EntryListKey(std::string_view entryKey, std::string_view name);

/// The one writer of a listener. It numbers the entries of an answer across calls: the same response key again goes on
/// counting, another begins at 1.
class ResponseWriter {
 public:
  /// Appends every write of the answer to the pipeline, of its messages the first 64. The writes are not checked.
  void Append(RedisPipeline& pipeline, std::string_view responseKey, const Answer& answer);

 private:
  std::string lastResponseKey_;
  unsigned counter_ = 0;
};

/// Sends what the pipeline holds together with the notification on the return channel. True when a subscriber got it.
/// Otherwise, also without a channel, the request's keys are removed: all that begin with the request key where a
/// record stands under it, and those below "<request key>/" in any case.
bool PublishAnswer(redisContext* redis, RedisPipeline& pipeline, std::string_view requestKey,
                   std::string_view responseKey, std::string_view returnChannel);

}  // namespace event_service
