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
#include "foundation/random.h"
#include "foundation/redis_pipeline.h"
#include "requests/event_handover.h"
#include "requests/event_object.h"
#include "resource_store/json_text.h"
#include "resource_store/resource_editor.h"
#include "resource_store/resource_walk.h"
#include "service/event_group_id.h"
#include "service/members_count.h"
#include "service/redis_keys.h"
#include "service/subscription_log.h"
#include "subscriptions/life_cycle_batch.h"
#include "subscriptions/member_change.h"
#include "subscriptions/resource/event_destination.h"
#include "subscriptions/resource/member_uri.h"
#include "subscriptions/resource/origin_index.h"
#include "subscriptions/syslog_exchange.h"
#include "subscriptions/terminated_event.h"

namespace event_service {
namespace {

// What the steps of a deletion ask of the member.
constexpr std::string_view kMembersNeeded[] = {"Context",  "EventFormatType",      "OriginResources",
                                               "Protocol", "SubordinateResources", "SubscriptionType"};

/// True when one of the removals from a list found something.
bool HaveRemoved(std::span<const RedisReply> removals) {
  return std::ranges::any_of(removals, [](const RedisReply& reply) { return IsInteger(reply) && reply->integer > 0; });
}

/// What may belong to a member whose own markers and properties do not tell it, or not any more.
struct MemberTraces {
  std::vector<std::string> keys;       // below its URI
  std::vector<std::string> indexKeys;  // every key of the index: some may have a field for it
};

/// Nothing, after a line, when Redis does not list them.
std::optional<MemberTraces> FindTraces(redisContext* redis, const std::string& uri) {
  RedisPipeline pipeline(redis);
  pipeline.Append({"KEYS", EscapeGlob(ChildKey(uri, {})) + '*'});
  pipeline.Append({"KEYS", std::string(kIndexPrefix) + '*'});
  const std::vector<RedisReply> replies = pipeline.Execute();
  if (!std::ranges::all_of(replies, [](const RedisReply& reply) { return IsArray(reply); })) {
    LogError("Failed to list the keys of %s.", uri.c_str());
    return std::nullopt;
  }
  const auto textsOf = [](const RedisReply& reply) {
    std::vector<std::string> texts;
    for (const redisReply* text : std::span(reply->element, reply->elements)) texts.emplace_back(TextOf(text));
    return texts;
  };
  return MemberTraces{textsOf(replies[0]), textsOf(replies[1])};
}

/// The deletion of one member, all but the events about it, which the members of one request share.
class MemberDeletion {
 public:
  MemberDeletion(Request& request, std::string uri)
      : redis_(request.redis), state_(*request.subscriptions), uri_(std::move(uri)) {}

  /// Reads the member and, unless there is one already, draws the EventGroupId. An answer when there is no such member
  /// or Redis does not tell.
  std::optional<Answer> Read(std::optional<uint32_t>& eventGroupId);

  /// Removes everything in Redis.
  void Remove(uint32_t eventGroupId);
  void RemoveFromFile();

  const std::string& Uri() const { return uri_; }
  bool HasFailed() const { return hasFailed_; }
  /// True when the collection had an entry for the member and has none any more.
  bool HasLeftCollection() const { return hasLeftCollection_; }
  /// The length of the Members list afterwards; null when it is not known that no entry is left.
  const redisReply* MembersLength() const { return membersLength_.get(); }

 private:
  void TakeLevel(ResourceWalk& walk, std::span<const RedisReply> replies);
  void AddTraces();
  void AppendIndexRemoval(RedisPipeline& pipeline) const;
  bool HaveSucceeded(std::span<const RedisReply> replies);

  redisContext* redis_;
  SubscriptionsState& state_;
  std::string uri_;
  Json destination_;
  std::vector<std::string> keys_;
  std::vector<std::string> indexKeys_;
  EventObjectKey eventKey_;
  std::string enqueueDigest_;
  std::string collectionEtag_;  // as stored after the removal
  RedisReply membersLength_;
  bool hasLeftCollection_ = false;
  bool hasFailed_ = false;
};

std::optional<Answer> MemberDeletion::Read(std::optional<uint32_t>& eventGroupId) {
  ResourceWalk walk(uri_, {.knownKind = ContainerKind::kObject, .ownKeysOnly = true, .membersBuilt = kMembersNeeded},
                    &destination_);
  RedisPipeline first(redis_);
  walk.AppendLevel(first);
  const size_t digest = first.Append({"HGET", kScriptDigests, kEnqueueScript});
  eventKey_.AskWhetherFree(first);
  const std::vector<RedisReply> firstReplies = first.Execute();
  if (SaysMissing(firstReplies.front())) return MemberMissing(uri_);
  if (IsFailure(firstReplies.front())) {
    return DatabaseError("DatabaseOperationError: Failed to read the event destination.");
  }
  TakeLevel(walk, firstReplies);
  enqueueDigest_ = TextOf(firstReplies[digest]);
  static_cast<void>(eventKey_.Claim(redis_));  // another object in its place changes nothing else
  while (!walk.Done() || !eventGroupId) {
    RedisPipeline next(redis_);
    const bool isLevelOpen = !walk.Done();
    walk.AppendLevel(next);
    const size_t draw = eventGroupId ? 0 : AppendEventGroupIdDraw(next);
    const std::vector<RedisReply> replies = next.Execute();
    if (isLevelOpen) TakeLevel(walk, replies);
    if (!eventGroupId) eventGroupId = SettleEventGroupId(redis_, replies, draw);
  }
  keys_ = walk.Keys();
  // The entries for subordinate resources go whether or not the service matches them now.
  indexKeys_ = OriginIndexKeys(destination_, true);
  if (hasFailed_) AddTraces();
  return std::nullopt;
}

void MemberDeletion::TakeLevel(ResourceWalk& walk, std::span<const RedisReply> replies) {
  if (walk.TakeLevel(replies) || hasFailed_) return;
  hasFailed_ = true;
  LogError("DatabaseOperationError: Failed to read the event destination %s.", uri_.c_str());
}

/// What could not be read is found in another way, so that it goes as well.
void MemberDeletion::AddTraces() {
  std::optional<MemberTraces> traces = FindTraces(redis_, uri_);
  if (!traces) return;
  std::ranges::move(traces->keys, std::back_inserter(keys_));
  std::ranges::move(traces->indexKeys, std::back_inserter(indexKeys_));
}

void MemberDeletion::AppendIndexRemoval(RedisPipeline& pipeline) const {
  for (const std::string& key : indexKeys_) pipeline.Append({"HDEL", key, MemberIdOf(uri_)});
  if (IsMetricReportDestination(destination_)) {
    pipeline.Append({"HINCRBY", kMetricReportKey, kMetricReportField, "-1"});
  }
}

bool MemberDeletion::HaveSucceeded(std::span<const RedisReply> replies) {
  const bool succeeded = AllIntegers(replies);
  if (!succeeded) hasFailed_ = true;
  return succeeded;
}

/// One batch, since no step waits for another's success.
void MemberDeletion::Remove(uint32_t eventGroupId) {
  const std::string_view id = MemberIdOf(uri_);
  const std::string_view transport = SyslogTransport(destination_);
  RedisPipeline pipeline(redis_);
  const bool isEventBuilt = AppendTerminatedEvent(pipeline, eventKey_.Text(), uri_, destination_, eventGroupId);
  const size_t enqueue = pipeline.Size();
  AppendEnqueueEvent(pipeline, enqueueDigest_, eventKey_.Text());
  const size_t syslog = pipeline.Size();
  if (!transport.empty()) pipeline.Append({"RPUSH", kSyslogQueue, SyslogDeleteMessage(id)});
  const size_t index = pipeline.Size();
  AppendIndexRemoval(pipeline);
  const size_t entry = AppendMemberRemoval(pipeline, kSubscriptionsUri, uri_);
  const size_t keys = pipeline.Size();
  AppendUnlink(pipeline, keys_);
  const size_t etag = pipeline.Append({"HSET", kSubscriptionsUri, kEtagField, JsonText(NewEtag())});
  const size_t storedEtag = pipeline.Append({"HGET", kSubscriptionsUri, kEtagField});
  AppendMembersLength(pipeline);
  std::vector<RedisReply> replies = pipeline.Execute();
  const auto range = [&replies](size_t first, size_t end) { return std::span(replies).subspan(first, end - first); };

  // Whether the destination learns of its end changes nothing else.
  if (!isEventBuilt || !AllIntegers(range(0, enqueue))) {
    LogError("Failed to store the terminated event of %s.", uri_.c_str());
  }
  std::vector<std::string> messages;
  // A missing reply has its line.
  if (!SettleEnqueueEvent(redis_, replies[enqueue].get(), eventKey_.Text(), messages) && replies[enqueue]) {
    LogError("Failed to notify the termination of %s.", uri_.c_str());
  }
  if (!HaveSucceeded(range(syslog, index))) LogError("Failed to tell syslog about the end of %s.", uri_.c_str());
  if (transport == "TLS") std::erase(state_.syslogTlsDestinationIds, id);
  state_.halfChangedUris.erase(uri_);
  if (!HaveSucceeded(range(index, entry))) LogError("Failed to remove the origin index of %s.", uri_.c_str());
  const std::span<const RedisReply> removals = range(entry, keys);
  const bool areRemoved = HaveSucceeded(removals);
  if (!areRemoved) LogError("Failed to remove %s from the collection.", uri_.c_str());
  hasLeftCollection_ = HaveRemoved(removals);
  if (areRemoved || hasLeftCollection_) membersLength_ = std::move(replies.back());
  if (!HaveSucceeded(range(keys, etag))) LogError("Failed to delete the keys of %s.", uri_.c_str());
  if (!IsInteger(replies[etag])) LogEtagFailure(kSubscriptionsUri);
  collectionEtag_ = TextOf(replies[storedEtag]);
}

void MemberDeletion::RemoveFromFile() {
  if (TextMember(destination_, "SubscriptionType") == "SSE") return;  // streams are never in the file
  if (!state_.db.DeleteDbSubscription(uri_, collectionEtag_)) hasFailed_ = true;
}

/// Takes the reply to the published count and moves the count in memory. False, after a line, when it was not taken.
bool SettleCount(SubscriptionsState& state, const redisReply* length, const redisReply* published, int32_t removed) {
  if (published != nullptr && SettleMembersCount(state, length, published, -removed)) return true;
  // The members are gone, whatever Redis says about their number.
  state.subscriptionCount -= std::min(state.subscriptionCount, static_cast<uint32_t>(removed));
  LogError("DatabaseOperationError: Failed to update Members count.");
  return false;
}

/// The status of a deletion is set before the answer is announced, because its failure makes another answer.
bool IsStatusSet(const RedisReply& reply) {
  if (IsInteger(reply)) return true;
  LogError("DatabaseOperationError: Failed to set OK_Empty.");
  return false;
}

/// A member that is gone leaves the collection as well, and what its deletion would have taken with it.
void RemoveStrayEntry(Request& request, const std::string& uri) {
  SubscriptionsState& state = *request.subscriptions;
  RedisPipeline pipeline(request.redis);
  AppendMemberRemoval(pipeline, kSubscriptionsUri, uri);
  const std::vector<RedisReply> removals = pipeline.Execute();
  if (!AllIntegers(removals)) LogError("Failed to remove %s from the collection.", uri.c_str());
  if (!HaveRemoved(removals)) return;
  std::erase(state.syslogTlsDestinationIds, MemberIdOf(uri));
  state.halfChangedUris.erase(uri);
  const MemberTraces traces = FindTraces(request.redis, uri).value_or(MemberTraces());
  for (const std::string& key : traces.indexKeys) pipeline.Append({"HDEL", key, MemberIdOf(uri)});
  const size_t keys = pipeline.Size();
  AppendUnlink(pipeline, traces.keys);
  const size_t etag = pipeline.Append({"HSET", kSubscriptionsUri, kEtagField, JsonText(NewEtag())});
  const size_t storedEtag = pipeline.Append({"HGET", kSubscriptionsUri, kEtagField});
  const std::vector<RedisReply> replies = pipeline.Execute();
  if (!AllIntegers(std::span(replies).first(keys))) LogError("Failed to remove the origin index of %s.", uri.c_str());
  if (!AllIntegers(std::span(replies).subspan(keys, etag - keys))) {
    LogError("Failed to delete the keys of %s.", uri.c_str());
  }
  if (!IsInteger(replies[etag])) LogEtagFailure(kSubscriptionsUri);
  static_cast<void>(state.db.DeleteDbSubscription(uri, TextOf(replies[storedEtag])));
  if (!UpdateMembersCount(request.redis, state, -1)) SettleCount(state, nullptr, nullptr, 1);
  LogSubscriptionChange(uri, "deleted", request.AskedBy());
}

/// The URIs of the members that belong to streams.
std::vector<std::string> StreamMembers(redisContext* redis) {
  std::vector<std::string> streams;
  const RedisReply entries = SendArguments(redis, {"LRANGE", kSubscriptionsMembersKey, "0", "-1"});
  if (!IsArray(entries)) {
    LogError("Failed to read the members of the collection.");
    return streams;
  }
  std::vector<std::string_view> uris;
  RedisPipeline types(redis);
  for (const redisReply* entry : std::span(entries->element, entries->elements)) {
    const std::string_view uri = MemberUriOf(TextOf(entry));
    if (MemberIdOf(uri).empty()) continue;
    uris.push_back(uri);
    types.Append({"HGET", uri, "SubscriptionType"});
  }
  const std::vector<RedisReply> replies = types.Execute();
  const auto isUnread = [](const RedisReply& type) { return IsFailure(type) && !IsWrongType(type); };
  if (std::ranges::any_of(replies, isUnread)) LogError("Failed to read which members are streams.");
  for (size_t i = 0; i < uris.size(); ++i) {
    if (TextOf(replies[i]) == "\"SSE\"") streams.emplace_back(uris[i]);
  }
  return streams;
}

}  // namespace

Answer DeleteEventDestination(Request& request) {
  MemberDeletion deletion(request, request.record.targetUri);
  if (MemberIdOf(deletion.Uri()).empty()) return MemberMissing(deletion.Uri());
  std::optional<uint32_t> eventGroupId;
  if (auto refusal = deletion.Read(eventGroupId)) {
    if (refusal->status == kNotFound) RemoveStrayEntry(request, deletion.Uri());
    return *std::move(refusal);
  }
  deletion.Remove(*eventGroupId);
  deletion.RemoveFromFile();

  RedisPipeline last(request.redis);
  LifeCycleBatch events(request, last, *eventGroupId);
  events.AppendForMember("remove", deletion.Uri());
  events.AppendForCollection();
  const size_t count = last.Size();
  const redisReply* const length = deletion.MembersLength();
  const bool isCountSent = length != nullptr && AppendMembersCount(last, length);
  const bool isStatusDue = !deletion.HasFailed() && !request.IsFromEventing();
  if (isStatusDue) last.Append({"HSET", request.announcement.responseKey, kReturnStatus, kOkEmpty});
  const std::vector<RedisReply> replies = last.Execute();
  events.Check(replies);
  LogSubscriptionChange(deletion.Uri(), "deleted", request.AskedBy());
  bool hasFailed = deletion.HasFailed();
  if (length != nullptr && !SettleCount(*request.subscriptions, length, isCountSent ? replies[count].get() : nullptr,
                                        deletion.HasLeftCollection() ? 1 : 0)) {
    hasFailed = true;
  }
  if (isStatusDue && !IsStatusSet(replies.back())) hasFailed = true;
  return hasFailed ? DatabaseError({}) : StatusIsWritten();
}

Answer DeleteAllSseSubscriptions(Request& request) {
  std::optional<uint32_t> eventGroupId;
  std::vector<std::string> deleted;
  int32_t removed = 0;
  for (std::string& uri : StreamMembers(request.redis)) {
    MemberDeletion deletion(request, std::move(uri));
    if (const auto refusal = deletion.Read(eventGroupId)) {
      if (!refusal->logText.empty()) LogError("%s", refusal->logText.c_str());
      continue;
    }
    deletion.Remove(*eventGroupId);
    deleted.push_back(deletion.Uri());
    if (deletion.HasLeftCollection()) ++removed;
    LogSubscriptionChange(deletion.Uri(), "deleted", request.AskedBy());
  }
  RedisPipeline last(request.redis);
  if (!deleted.empty()) {
    LifeCycleBatch events(request, last, *eventGroupId);
    for (const std::string& uri : deleted) events.AppendForMember("remove", uri);
    events.AppendForCollection();
    events.Check(last.Execute());
    if (!UpdateMembersCount(request.redis, *request.subscriptions, -removed)) {
      SettleCount(*request.subscriptions, nullptr, nullptr, removed);
    }
  }
  if (request.IsFromEventing()) return NoAnswer();
  last.Append({"HSET", request.announcement.responseKey, kReturnStatus, kOkEmpty});
  return IsStatusSet(last.Execute().front()) ? StatusIsWritten() : DatabaseError({});
}

}  // namespace event_service
