#include "subscriptions/deletion.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/logging.h"
#include "foundation/redis_pipeline.h"
#include "requests/event_handover.h"
#include "requests/event_object.h"
#include "resource_store/resource_editor.h"
#include "resource_store/resource_walk.h"
#include "service/event_group_id.h"
#include "service/members_count.h"
#include "service/redis_keys.h"
#include "service/subscription_log.h"
#include "subscriptions/life_cycle_batch.h"
#include "subscriptions/resource/event_destination.h"
#include "subscriptions/resource/member_uri.h"
#include "subscriptions/resource/origin_index.h"
#include "subscriptions/stored_member.h"
#include "subscriptions/syslog_exchange.h"
#include "subscriptions/terminated_event.h"

namespace event_service {
namespace {

// What the steps of a deletion ask of the member.
constexpr std::string_view kMembersNeeded[] = {"Context",  "EventFormatType",      "OriginResources",
                                               "Protocol", "SubordinateResources", "SubscriptionType"};

/// The deletion of one member, all but the events about it, which the members of one request share.
class MemberDeletion {
 public:
  MemberDeletion(Request& request, std::string uri)
      : redis_(request.redis),
        state_(*request.subscriptions),
        uri_(std::move(uri)),
        walk_(uri_, {.knownKind = ContainerKind::kObject, .ownKeysOnly = true, .membersBuilt = kMembersNeeded},
              &destination_) {}

  /// Reads the member's first level. An answer when there is no such member or Redis does not tell.
  std::optional<Answer> Read();
  /// Finds all that goes with it and, unless there is one already (0: none), draws the EventGroupId. False when Redis
  /// is lost: nothing has been removed.
  bool FindParts(uint32_t& eventGroupId);
  /// Removes everything in Redis, and what is remembered of the member.
  void Remove(uint32_t eventGroupId);
  void RemoveFromFile();
  /// Removes what may be left of a member that is gone. False when nothing is known to be: the collection has no entry,
  /// and no deletion has failed half-way.
  bool RemoveTraces();

  const std::string& Uri() const { return uri_; }
  bool HasFailed() const { return hasFailed_; }
  /// True when the collection had an entry for the member and has none any more.
  bool HasLeftCollection() const { return hasLeftCollection_; }
  /// True when the collection has no entry for it, as far as that is known.
  bool IsOutside() const { return isOutside_; }
  /// The length of the Members list afterwards.
  std::optional<int64_t> MembersLength() const { return membersLength_; }

 private:
  void FindTraces();
  void TellDestination(RedisPipeline& pipeline, uint32_t eventGroupId);
  void TellSyslog(RedisPipeline& pipeline);
  void LeaveIndex(RedisPipeline& pipeline);
  void LeaveCollection(RedisPipeline& pipeline);
  void DeleteKeys(RedisPipeline& pipeline);
  void Forget();
  bool HaveSucceeded(std::span<const RedisReply> replies);

  redisContext* redis_;
  SubscriptionsState& state_;
  std::string uri_;
  Json destination_;
  ResourceWalk walk_;
  std::vector<std::string> keys_;
  std::vector<std::string> indexKeys_;
  EventObjectKey eventKey_;
  bool isEventStored_ = false;
  std::string enqueueDigest_;
  std::string collectionEtag_;  // as stored after the removal
  std::optional<int64_t> membersLength_;
  bool hasLeftCollection_ = false;
  bool isOutside_ = false;
  bool hasFailed_ = false;
};

std::optional<Answer> MemberDeletion::Read() {
  RedisPipeline pipeline(redis_);
  MemberReads reads(pipeline, uri_);
  reads.AskFirstLevel(walk_);
  pipeline.Ask({"HGET", kScriptDigests, kEnqueueScript},
               [this](const RedisReply& reply) { enqueueDigest_ = TextOf(reply); });
  eventKey_.AskWhetherFree(pipeline);
  pipeline.Execute();
  return reads.Refusal();
}

bool MemberDeletion::FindParts(uint32_t& eventGroupId) {
  static_cast<void>(eventKey_.Claim(redis_));  // another object in its place changes nothing else
  RedisPipeline pipeline(redis_);
  while (!walk_.Done() || eventGroupId == 0) {
    walk_.AskLevel(pipeline);
    bool isConnected = true;
    pipeline.Then([&](Replies) { isConnected = redis_->err == 0; });
    pipeline.OnlyIf(isConnected);
    if (eventGroupId == 0) DrawEventGroupId(redis_, pipeline, eventGroupId);
    pipeline.Execute();
    if (!isConnected) return false;
  }
  keys_ = walk_.Keys();
  // The entries for subordinate resources go whether or not the service matches them now.
  indexKeys_ = OriginIndexKeys(destination_, true);
  if (walk_.HasFailed()) {
    hasFailed_ = true;
    LogError("DatabaseOperationError: Failed to read the event destination %s.", uri_.c_str());
  }
  if (walk_.HasFailed() || state_.scatteredUris.contains(uri_)) FindTraces();
  return true;
}

/// What may belong to a member whose own markers and properties do not tell it, or not any more: the keys below its
/// URI, and every key of the index, since some may have a field for it.
void MemberDeletion::FindTraces() {
  bool areListed = true;
  RedisPipeline pipeline(redis_);
  const auto list = [&](const std::string& beginning, std::vector<std::string>& keys) {
    pipeline.Ask({"KEYS", beginning + '*'}, [&](const RedisReply& reply) {
      areListed &= IsArray(reply);
      for (const std::string_view key : TextsOf(reply)) keys.emplace_back(key);
    });
  };
  std::vector<std::string> keys;
  std::vector<std::string> indexKeys;
  list(EscapeGlob(ChildKey(uri_, {})), keys);
  list(std::string(kIndexPrefix), indexKeys);
  pipeline.Execute();
  if (!areListed) {
    LogError("Failed to list the keys of %s.", uri_.c_str());
    return;
  }
  std::ranges::move(keys, std::back_inserter(keys_));
  std::ranges::move(indexKeys, std::back_inserter(indexKeys_));
}

bool MemberDeletion::HaveSucceeded(std::span<const RedisReply> replies) {
  const bool succeeded = AllIntegers(replies);
  if (!succeeded) hasFailed_ = true;
  return succeeded;
}

/// One batch, since no step waits for another's success.
void MemberDeletion::Remove(uint32_t eventGroupId) {
  RedisPipeline pipeline(redis_);
  TellDestination(pipeline, eventGroupId);
  TellSyslog(pipeline);
  LeaveIndex(pipeline);
  LeaveCollection(pipeline);
  DeleteKeys(pipeline);
  RenewCollectionEtag(pipeline, collectionEtag_);
  AskMembersLength(pipeline, membersLength_);
  pipeline.Execute();
  Forget();
}

/// Whether the destination learns of its end changes nothing else.
void MemberDeletion::TellDestination(RedisPipeline& pipeline, uint32_t eventGroupId) {
  const bool isBuilt = AppendTerminatedEvent(pipeline, eventKey_.Text(), uri_, destination_, eventGroupId);
  pipeline.Then([this, isBuilt](Replies replies) {
    isEventStored_ = isBuilt && AllIntegers(replies);
    if (!isEventStored_) LogError("Failed to store the terminated event of %s.", uri_.c_str());
  });
  EnqueueEvent(pipeline, redis_, enqueueDigest_, eventKey_.Text(), [this](HandOver outcome) {
    // Half an event is refused, which has its line.
    if (outcome != HandOver::kRefused || !isEventStored_) return;
    LogError("Failed to notify the termination of %s.", uri_.c_str());
  });
}

void MemberDeletion::TellSyslog(RedisPipeline& pipeline) {
  if (SyslogTransport(destination_).empty()) return;
  pipeline.Append({"RPUSH", kSyslogQueue, SyslogDeleteMessage(MemberIdOf(uri_))});
  pipeline.Then([this](Replies replies) {
    if (!HaveSucceeded(replies)) LogError("Failed to tell syslog about the end of %s.", uri_.c_str());
  });
}

void MemberDeletion::LeaveIndex(RedisPipeline& pipeline) {
  for (const std::string& key : indexKeys_) pipeline.Append({"HDEL", key, MemberIdOf(uri_)});
  if (IsMetricReportDestination(destination_)) {
    pipeline.Append({"HINCRBY", kMetricReportKey, kMetricReportField, "-1"});
  }
  pipeline.Then([this](Replies replies) {
    if (!HaveSucceeded(replies)) LogError("Failed to remove the origin index of %s.", uri_.c_str());
  });
}

void MemberDeletion::LeaveCollection(RedisPipeline& pipeline) {
  AppendMemberRemoval(pipeline, kSubscriptionsUri, uri_);
  pipeline.Then([this](Replies replies) {
    const bool areRemoved = HaveSucceeded(replies);
    if (!areRemoved) LogError("Failed to remove %s from the collection.", uri_.c_str());
    hasLeftCollection_ =
        std::ranges::any_of(replies, [](const RedisReply& reply) { return IsInteger(reply) && reply->integer > 0; });
    isOutside_ = areRemoved || hasLeftCollection_;
  });
}

void MemberDeletion::DeleteKeys(RedisPipeline& pipeline) {
  AppendUnlink(pipeline, keys_);
  pipeline.Then([this](Replies replies) {
    if (!HaveSucceeded(replies)) LogError("Failed to delete the keys of %s.", uri_.c_str());
  });
}

void MemberDeletion::Forget() {
  if (isOutside_) {
    std::erase(state_.syslogTlsDestinationIds, MemberIdOf(uri_));
    state_.halfChangedUris.erase(uri_);
  } else {
    state_.halfChangedUris.insert(uri_);  // Redis has kept what the file loses
  }
  if (hasFailed_) {
    state_.scatteredUris.insert(uri_);  // the repetition of the request finds the rest
  } else {
    state_.scatteredUris.erase(uri_);
  }
}

void MemberDeletion::RemoveFromFile() {
  if (IsStream(destination_)) return;  // streams are never in the file
  if (!state_.db.DeleteDbSubscription(uri_, collectionEtag_)) hasFailed_ = true;
}

bool MemberDeletion::RemoveTraces() {
  RedisPipeline pipeline(redis_);
  LeaveCollection(pipeline);
  pipeline.Execute();
  if (!hasLeftCollection_ && !state_.scatteredUris.contains(uri_)) return false;
  FindTraces();
  LeaveIndex(pipeline);
  DeleteKeys(pipeline);
  RenewCollectionEtag(pipeline, collectionEtag_);
  pipeline.Execute();
  Forget();
  RemoveFromFile();
  return true;
}

/// The members are gone, whatever Redis says about their number.
void LowerCountInMemory(SubscriptionsState& state, int32_t removed) {
  state.subscriptionCount -= std::min(state.subscriptionCount, static_cast<uint32_t>(removed));
  LogError("DatabaseOperationError: Failed to update Members count.");
}

/// The status of a deletion is set before the answer is announced, because its failure makes another answer.
void SetStatus(RedisPipeline& pipeline, const Request& request, bool& isSet) {
  pipeline.Ask({"HSET", request.announcement.responseKey, kReturnStatus, kOkEmpty}, [&isSet](const RedisReply& reply) {
    isSet = IsInteger(reply);
    if (!isSet) LogError("DatabaseOperationError: Failed to set OK_Empty.");
  });
}

/// The URIs of the members that belong to streams.
std::vector<std::string> StreamMembers(redisContext* redis) {
  std::vector<std::string> streams;
  const RedisReply entries = SendArguments(redis, {"LRANGE", kSubscriptionsMembersKey, "0", "-1"});
  if (!IsArray(entries)) {
    LogError("Failed to read the members of the collection.");
    return streams;
  }
  bool areRead = true;
  RedisPipeline pipeline(redis);
  for (const std::string_view entry : TextsOf(entries)) {
    const std::string_view uri = MemberUriOf(entry);
    if (MemberIdOf(uri).empty()) continue;
    pipeline.Ask({"HGET", uri, "SubscriptionType"}, [&, uri](const RedisReply& type) {
      areRead &= !IsFailure(type) || IsWrongType(type);
      if (IsStreamType(TextOf(type))) streams.emplace_back(uri);
    });
  }
  pipeline.Execute();
  if (!areRead) LogError("Failed to read which members are streams.");
  return streams;
}

}  // namespace

Answer DeleteEventDestination(Request& request) {
  SubscriptionsState& state = *request.subscriptions;
  const std::string& uri = request.record.targetUri;
  if (MemberIdOf(uri).empty()) return MemberMissing(uri);
  MemberDeletion deletion(request, uri);
  if (auto refusal = deletion.Read()) {
    if (refusal->status == kNotFound && deletion.RemoveTraces()) {
      const int32_t removed = deletion.HasLeftCollection() ? 1 : 0;
      if (!UpdateMembersCount(request.redis, state, -removed)) LowerCountInMemory(state, removed);
      LogSubscriptionChange(uri, "deleted", request.AskedBy());
    }
    return *std::move(refusal);
  }
  uint32_t eventGroupId = 0;
  if (!deletion.FindParts(eventGroupId)) {
    return DatabaseError("DatabaseOperationError: Failed to read the event destination.");
  }
  deletion.Remove(eventGroupId);
  deletion.RemoveFromFile();

  RedisPipeline last(request.redis);
  LifeCycleBatch events(request, last, eventGroupId);
  events.RaiseForMember("remove", uri);
  events.RaiseForCollection();
  const int32_t removed = deletion.HasLeftCollection() ? 1 : 0;
  bool isCounted = true;
  if (deletion.IsOutside()) PublishMembersCount(last, state, deletion.MembersLength(), -removed, isCounted);
  bool isStatusSet = true;
  if (!deletion.HasFailed() && !request.IsFromEventing()) SetStatus(last, request, isStatusSet);
  last.Execute();
  LogSubscriptionChange(uri, "deleted", request.AskedBy());
  if (!isCounted) {
    LowerCountInMemory(state, removed);
    state.scatteredUris.insert(uri);
  }
  return deletion.HasFailed() || !isCounted || !isStatusSet ? DatabaseError({}) : StatusIsWritten();
}

Answer DeleteAllSseSubscriptions(Request& request) {
  SubscriptionsState& state = *request.subscriptions;
  uint32_t eventGroupId = 0;
  std::vector<std::string> deleted;
  int32_t removed = 0;
  for (std::string& uri : StreamMembers(request.redis)) {
    MemberDeletion deletion(request, std::move(uri));
    if (const auto refusal = deletion.Read()) {
      if (!refusal->logText.empty()) LogError("%s", refusal->logText.c_str());
      continue;
    }
    if (!deletion.FindParts(eventGroupId)) {
      LogError("DatabaseOperationError: Failed to read the event destination.");
      break;
    }
    deletion.Remove(eventGroupId);
    deleted.push_back(deletion.Uri());
    if (deletion.HasLeftCollection()) ++removed;
    LogSubscriptionChange(deletion.Uri(), "deleted", request.AskedBy());
  }
  RedisPipeline last(request.redis);
  if (!deleted.empty()) {
    LifeCycleBatch events(request, last, eventGroupId);
    for (const std::string& uri : deleted) events.RaiseForMember("remove", uri);
    events.RaiseForCollection();
    last.Execute();
    if (!UpdateMembersCount(request.redis, state, -removed)) LowerCountInMemory(state, removed);
  }
  if (request.IsFromEventing()) return NoAnswer();
  bool isStatusSet = false;
  SetStatus(last, request, isStatusSet);
  last.Execute();
  return isStatusSet ? StatusIsWritten() : DatabaseError({});
}

}  // namespace event_service
