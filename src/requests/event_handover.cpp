#include "requests/event_handover.h"

#include <span>
#include <utility>

#include "foundation/logging.h"
#include "resource_store/json_text.h"
#include "resource_store/resource_editor.h"
#include "service/redis_keys.h"

namespace event_service {
namespace {

/// The text of one element of the script's reply; that of a JSON string is decoded.
std::string ArgumentText(const redisReply* element) {
  if (IsInteger(element)) return std::to_string(element->integer);
  const std::string_view text = TextOf(element);
  if (!text.starts_with('"')) return std::string(text);
  const Json value = ParseOutsideText(text);
  return value.is_string() ? value.get<std::string>() : std::string(text);
}

/// The refusal in an array reply: a status that nobody uses, a message id, its arguments.
void TakeMessages(const redisReply& reply, std::vector<std::string>& messages) {
  const std::span elements(reply.element, reply.elements);
  if (elements.size() < 2) return;
  messages.emplace_back(TextOf(elements[1]));
  for (const redisReply* argument : elements.subspan(2)) messages.push_back(ArgumentText(argument));
}

/// Takes the script's reply: false, with what `messages` tells, unless the event was queued or discarded.
bool TakeReply(redisContext* redis, const redisReply* reply, std::string_view eventHashId,
               std::vector<std::string>& messages) {
  if (reply == nullptr) {
    LogError("EVALSHA command failed");
    return false;
  }
  if (IsInteger(reply) && reply->integer == 1) return true;
  if (IsArray(reply)) TakeMessages(*reply, messages);
  // Nobody will read the object: the event was discarded or refused.
  if (!DeleteResource(redis, eventHashId)) LogError("Failed to delete event object from database.");
  return IsInteger(reply);
}

}  // namespace

bool EnqueueEvent(redisContext* redis, std::string_view eventHashId, std::vector<std::string>& messages) {
  if (eventHashId.empty()) {
    LogError("strEventHashId is empty.");
    return false;
  }
  const std::string digest = HashRead(redis, kScriptDigests, kEnqueueScript);
  const RedisReply reply = SendArguments(redis, {"EVALSHA", digest, "1", eventHashId});
  return TakeReply(redis, reply.get(), eventHashId, messages);
}

void EnqueueEvent(RedisPipeline& pipeline, redisContext* redis, std::string_view digest, std::string_view eventHashId,
                  std::function<void(HandOver)> take) {
  pipeline.Ask({"EVALSHA", digest, "1", eventHashId},
               [redis, key = std::string(eventHashId), take = std::move(take)](const RedisReply& reply) {
                 std::vector<std::string> messages;
                 const bool isTaken = TakeReply(redis, reply.get(), key, messages);
                 take(isTaken ? HandOver::kTaken : reply ? HandOver::kRefused : HandOver::kLost);
               });
}

}  // namespace event_service
