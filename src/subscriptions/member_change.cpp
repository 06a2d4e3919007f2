#include "subscriptions/member_change.h"

#include <span>
#include <utility>

#include "foundation/logging.h"
#include "foundation/random.h"
#include "resource_store/json_text.h"
#include "resource_store/resource_reader.h"
#include "resource_store/resource_writer.h"
#include "service/event_group_id.h"
#include "service/redis_keys.h"
#include "service/subscription_log.h"
#include "subscriptions/life_cycle_batch.h"
#include "subscriptions/resource/event_destination.h"

namespace event_service {
namespace {

/// Brings a change into the file; with it all of the member, when an earlier change got into Redis only. A failure is
/// logged and the change stands.
void WriteIntoFile(Request& request, const MemberChange& change, std::string_view collectionEtag) {
  SubscriptionsState& state = *request.subscriptions;
  const auto halfChanged = state.halfChangedUris.find(change.uri);
  if (halfChanged != state.halfChangedUris.end()) {
    Json member;
    const ReadOptions wholeResource{
        .knownKind = ContainerKind::kObject, .withControlFields = true, .ownKeysOnly = true};
    if (ReadResource(request.redis, change.uri, member, wholeResource)) {
      state.halfChangedUris.erase(halfChanged);
      static_cast<void>(state.db.WriteBackDbSubscriptions(std::span(&member, 1), collectionEtag));
      return;
    }
  }
  static_cast<void>(state.db.UpdateDbSubscription(change.uri, change.changes, change.removed, collectionEtag));
}

}  // namespace

bool SaysMissing(const RedisReply& reply) {
  if (IsArray(reply)) return reply->elements == 0;
  return IsInteger(reply) ? reply->integer == 0 : IsWrongType(reply);
}

Answer MemberMissing(std::string_view uri) {
  return Refuse(kNotFound, "Base.1.12.ResourceMissingAtURI", {std::string(uri)});
}

void LogEtagFailure(std::string_view uri) { LogError("Failed to set the etag of %s.", std::string(uri).c_str()); }

bool IsHalfChanged(const Request& request, std::string_view uri) {
  return request.subscriptions->halfChangedUris.contains(uri);
}

bool ApplyMemberChange(Request& request, RedisPipeline& writes, MemberChange change) {
  const std::string uri(change.uri);
  const std::string etag = NewEtag();
  const size_t propertyWrites = writes.Size();
  const bool takesSequence = change.nextSequence != kNoSequence;
  if (takesSequence) AppendSequenceStore(writes, change.nextSequence);
  const size_t etagWrite = writes.Append({"HSET", uri, kEtagField, JsonText(etag)});
  const size_t collectionWrite = writes.Append({"HSET", kSubscriptionsUri, kEtagField, JsonText(NewEtag())});
  const size_t collectionEtag = writes.Append({"HGET", kSubscriptionsUri, kEtagField});
  const size_t draw = AppendEventGroupIdDraw(writes);
  const std::vector<RedisReply> replies = writes.Execute();
  if (!AllIntegers(std::span(replies).first(propertyWrites))) {
    request.subscriptions->halfChangedUris.insert(uri);
    return false;
  }
  if (takesSequence && !TextOf(replies[propertyWrites]).starts_with("OK")) {
    LogError("Failed to store the last sequence id that %s took.", uri.c_str());
  }
  if (IsInteger(replies[etagWrite])) {
    change.changes[std::string(kEtagField)] = etag;
  } else {
    LogEtagFailure(uri);
  }
  if (!IsInteger(replies[collectionWrite])) LogEtagFailure(kSubscriptionsUri);
  const uint32_t eventGroupId = SettleEventGroupId(request.redis, replies, draw);
  if (change.isSse) {
    request.subscriptions->halfChangedUris.erase(uri);
  } else {
    WriteIntoFile(request, change, TextOf(replies[collectionEtag]));
  }
  RedisPipeline announcement(request.redis);
  LifeCycleBatch events(request, announcement, eventGroupId);
  events.AppendForMember(change.eventKind, uri);
  events.Check(announcement.Execute());
  LogSubscriptionChange(uri, change.done, change.who);
  return true;
}

}  // namespace event_service
