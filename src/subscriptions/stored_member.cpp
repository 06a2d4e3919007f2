#include "subscriptions/stored_member.h"

#include <utility>

#include "foundation/logging.h"
#include "foundation/random.h"
#include "resource_store/json_text.h"
#include "service/redis_keys.h"
#include "subscriptions/resource/event_destination.h"

namespace event_service {
namespace {}  // namespace

Answer MemberMissing(std::string_view uri) {
  return Refuse(kNotFound, "Base.1.12.ResourceMissingAtURI", {std::string(uri)});
}

void MemberReads::AskWhetherThere() {
  pipeline_.Ask({"HLEN", uri_}, [this](const RedisReply& reply) {
    isMissing_ = IsInteger(reply) ? reply->integer == 0 : IsWrongType(reply);
    hasFailed_ |= !IsInteger(reply);
  });
}

void MemberReads::AskFirstLevel(ResourceWalk& walk) {
  pipeline_.Ask({"HGETALL", uri_}, [this, &walk](const RedisReply& reply) {
    isMissing_ = IsArray(reply) ? reply->elements == 0 : IsWrongType(reply);
    hasFailed_ |= !IsArray(reply);
    if (!isMissing_ && !hasFailed_) walk.TakeRoot(reply.get());
  });
}

void MemberReads::AskField(std::string_view key, std::string_view field, std::string& text) {
  Ask({"HGET", key, field}, [this, &text](const RedisReply& reply) {
    hasFailed_ |= !IsString(reply) && reply->type != REDIS_REPLY_NIL;
    text = TextOf(reply);
  });
}

void MemberReads::Ask(std::initializer_list<std::string_view> command, std::function<void(const RedisReply&)> take) {
  pipeline_.Ask(command, [this, take = std::move(take)](const RedisReply& reply) {
    if (IsFailure(reply)) {
      hasFailed_ = true;
    } else {
      take(reply);
    }
  });
}

std::optional<Answer> MemberReads::Refusal() const {
  if (isMissing_) return MemberMissing(uri_);
  if (hasFailed_) return DatabaseError("DatabaseOperationError: Failed to read the event destination.");
  return std::nullopt;
}

void LogEtagFailure(std::string_view uri) { LogError("Failed to set the etag of %s.", std::string(uri).c_str()); }

void SetEtag(RedisPipeline& pipeline, std::string_view uri, std::string_view etag, bool& isSet) {
  pipeline.Ask({"HSET", uri, kEtagField, JsonText(etag)}, [uri, &isSet](const RedisReply& reply) {
    isSet = IsInteger(reply);
    if (!isSet) LogEtagFailure(uri);
  });
}

void RenewCollectionEtag(RedisPipeline& pipeline, std::string& stored) {
  stored = JsonText(NewEtag());
  pipeline.Append({"HSET", kSubscriptionsUri, kEtagField, stored});
  pipeline.Append({"HGET", kSubscriptionsUri, kEtagField});
  pipeline.Then([&stored](Replies replies) {
    replies = replies.last(2);
    if (IsInteger(replies[0])) return;
    LogEtagFailure(kSubscriptionsUri);
    // Where Redis does not tell, the file gets the new one: whatever the collection has, this one is not out of date.
    if (!IsFailure(replies[1])) stored = TextOf(replies[1]);
  });
}

}  // namespace event_service
