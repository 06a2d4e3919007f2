#include "requests/event_submission.h"

#include <span>

#include "foundation/logging.h"
#include "resource_store/json_text.h"
#include "resource_store/resource_editor.h"
#include "resource_store/resource_writer.h"
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
  const std::span<redisReply* const> elements(reply.element, reply.elements);
  if (elements.size() < 2) return;
  messages.emplace_back(TextOf(elements[1]));
  for (const redisReply* argument : elements.subspan(2)) messages.push_back(ArgumentText(argument));
}

}  // namespace

bool AppendEventObject(RedisPipeline& pipeline, std::string_view key, const std::string& id, const std::string& name,
                       Json event) {
  const std::string listKey = ChildKey(key, "Events");
  const std::string eventKey = ChildKey(listKey, "0");
  const Json object = {{"@odata.type", "#Event.v1_7_0.Event"},
                       {"Id", id},
                       {"Name", name},
                       {"Events@odata.count", 1},
                       {"&&ResourceType", "\"EventService\""}};
  event["MemberId"] = "0";
  int64_t sequence = kNoSequence;  // the list's one element has a key of a fixed name
  if (!AppendDocument(pipeline, eventKey, event, sequence) || !AppendDocument(pipeline, key, object, sequence)) {
    return false;
  }
  pipeline.Append({"HSET", key, "Events", "&&Array Events " + listKey});
  pipeline.Append({"RPUSH", listKey, "&&Object " + eventKey});
  return true;
}

void AppendEnqueueEvent(RedisPipeline& pipeline, std::string_view digest, std::string_view eventHashId) {
  pipeline.Append({"EVALSHA", digest, "1", eventHashId});
}

bool SettleEnqueueEvent(redisContext* redis, const redisReply* reply, std::string_view eventHashId,
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

bool EnqueueEvent(redisContext* redis, std::string_view eventHashId, std::vector<std::string>& messages) {
  if (eventHashId.empty()) {
    LogError("strEventHashId is empty.");
    return false;
  }
  const std::string digest = HashRead(redis, kScriptDigests, kEnqueueScript);
  RedisPipeline pipeline(redis);
  AppendEnqueueEvent(pipeline, digest, eventHashId);
  const std::vector<RedisReply> replies = pipeline.Execute();
  return SettleEnqueueEvent(redis, replies.front().get(), eventHashId, messages);
}

std::optional<Answer> NotifyTestEvent(redisContext* redis, std::string_view eventHashId) {
  std::vector<std::string> messages;
  if (EnqueueEvent(redis, eventHashId, messages)) return std::nullopt;
  // A refusal without arguments counts as a failed operation, whatever message it names.
  if (messages.size() < 2) {
    return Refuse(kException, kOperationFailedMessage, {}, "OperationFailed: Failed to notify event occurs.");
  }
  const std::string messageId = std::move(messages.front());
  messages.erase(messages.begin());
  if (messageId == "Base.1.12.ActionParameterMissing") {
    messages.emplace(messages.begin(), kSubmitTestEventAction);
  } else if (messageId == "Base.1.12.ActionParameterValueTypeError" ||
             messageId == "Base.1.12.ActionParameterValueFormatError") {
    messages.emplace_back(kSubmitTestEventAction);
  }
  return Refuse(kFailure, messageId, std::move(messages));
}

}  // namespace event_service
