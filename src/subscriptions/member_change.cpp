#include "subscriptions/member_change.h"

#include <span>
#include <utility>

#include "foundation/logging.h"
#include "foundation/random.h"
#include "resource_store/resource_reader.h"
#include "resource_store/resource_writer.h"
#include "service/event_group_id.h"
#include "service/redis_keys.h"
#include "service/subscription_log.h"
#include "subscriptions/life_cycle_batch.h"
#include "subscriptions/resource/event_destination.h"
#include "subscriptions/stored_member.h"

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

bool IsHalfChanged(const Request& request, std::string_view uri) {
  return request.subscriptions->halfChangedUris.contains(uri);
}

bool ApplyMemberChange(Request& request, RedisPipeline& writes, MemberChange change) {
  const std::string uri(change.uri);
  bool isWritten = false;
  writes.Then([&isWritten](Replies replies) { isWritten = AllIntegers(replies); });
  writes.OnlyIf(isWritten);
  bool isSequenceStored = true;
  if (change.nextSequence != kNoSequence) {
    AppendSequenceStore(writes, change.nextSequence);
    writes.Then([&](Replies replies) { isSequenceStored = TextOf(replies.back()).starts_with("OK"); });
  }
  const std::string etag = NewEtag();
  bool isEtagSet = false;
  SetEtag(writes, uri, etag, isEtagSet);
  std::string collectionEtag;
  RenewCollectionEtag(writes, collectionEtag);
  uint32_t eventGroupId = 0;
  DrawEventGroupId(request.redis, writes, eventGroupId);
  writes.Execute();
  if (!isWritten) {
    request.subscriptions->halfChangedUris.insert(uri);
    request.subscriptions->scatteredUris.insert(uri);
    return false;
  }
  if (!isSequenceStored) LogError("Failed to store the last sequence id that %s took.", uri.c_str());
  if (isEtagSet) change.changes[std::string(kEtagField)] = etag;
  if (change.isSse) {
    request.subscriptions->halfChangedUris.erase(uri);
  } else {
    WriteIntoFile(request, change, collectionEtag);
  }
  RedisPipeline announcement(request.redis);
  LifeCycleBatch(request, announcement, eventGroupId).RaiseForMember(change.eventKind, uri);
  announcement.Execute();
  LogSubscriptionChange(uri, change.done, change.who);
  return true;
}

}  // namespace event_service
