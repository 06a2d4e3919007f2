#include "subscriptions/creation.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <span>
#include <utility>
#include <vector>

#include "foundation/durable_file.h"
#include "foundation/logging.h"
#include "foundation/redis_pipeline.h"
#include "foundation/time_stamp.h"
#include "requests/fault_messages.h"
#include "requests/request_body.h"
#include "resource_store/json_text.h"
#include "resource_store/resource_editor.h"
#include "resource_store/resource_writer.h"
#include "service/event_group_id.h"
#include "service/members_count.h"
#include "service/redis_keys.h"
#include "service/subscription_log.h"
#include "subscriptions/judgement/creation_check.h"
#include "subscriptions/life_cycle_batch.h"
#include "subscriptions/member_change.h"
#include "subscriptions/resource/event_destination.h"
#include "subscriptions/resource/filter_mask.h"
#include "subscriptions/resource/member_uri.h"
#include "subscriptions/resource/member_weight.h"
#include "subscriptions/resource/origin_index.h"
#include "subscriptions/state.h"
#include "subscriptions/syslog_exchange.h"

namespace event_service {
namespace {

constexpr int kMostIdRedraws = 10;
constexpr size_t kLongestId = 64;  // a longer one is refused, and not asked for
constexpr std::string_view kLocationField = "&&Location";

std::string GenerateId(RandomSource random) {
  char id[9];
  std::snprintf(id, sizeof id, "%08" PRIX32, random());
  return id;
}

Answer BodyUnreadable() { return DatabaseError("DatabaseOperationError: Failed to get request data from database."); }

/// One creation on its way. The steps stand in the order in which they run.
class Creation {
 public:
  Creation(Request& request, RandomSource random)
      : request_(request), redis_(request.redis), state_(*request.subscriptions), random_(random) {
    about_.isSse = request.record.isSse == "true";
    about_.privileges = request.record.privileges;
  }

  Answer Run() {
    if (auto refusal = ReadBody()) return std::move(*refusal);
    if (auto refusal = Judge()) return std::move(*refusal);
    if (auto refusal = Build()) return std::move(*refusal);
    if (auto refusal = SetUpSyslog()) return std::move(*refusal);
    if (auto refusal = Write()) return std::move(*refusal);
    if (auto refusal = Enrol()) return std::move(*refusal);
    if (auto refusal = DisableSnmpTrap()) return std::move(*refusal);
    Persist();
    return Announce();
  }

 private:
  std::optional<Answer> ReadBody();
  bool ReadRoot(RequestBody& body);
  bool ChooseId(const Json& body);
  void AppendQuestions(RedisPipeline& pipeline, bool asksForId) const;
  bool TakeAnswers(std::span<const RedisReply> replies, bool asksForId);
  bool TakeExistence(const RedisReply& exists);
  std::optional<Answer> Judge();
  std::optional<Answer> DrawFreeId();
  std::optional<Answer> Build();
  std::optional<Answer> SetUpSyslog();
  std::optional<Answer> Write();
  std::optional<Answer> Enrol();
  std::optional<Answer> DisableSnmpTrap();
  void Persist();
  Answer Announce();
  Answer Failed(const char* logText);
  Answer WriteFailed();
  void TakeBack();

  Request& request_;
  redisContext* redis_;
  SubscriptionsState& state_;
  RandomSource random_;

  Json body_;
  NumberTexts numbers_;
  NewDestination about_;
  bool isIdGiven_ = false;
  bool idExists_ = false;
  std::string uri_;
  Json destination_;
  int64_t sequence_ = kNoSequence;    // the first id of the resource's arrays
  std::string collectionEtag_;        // as stored: the former one until the creation has set its own
  std::string formerCollectionEtag_;  // for taking back
  RedisReply membersLength_;
  uint32_t eventGroupId_ = 0;
};

std::optional<Answer> Creation::ReadBody() {
  RequestBody body(request_.record.requestData);
  if (!ReadRoot(body)) return BodyUnreadable();
  const bool asksForId = ChooseId(body.Document());
  for (bool isFirst = true; isFirst || !body.IsComplete(); isFirst = false) {
    RedisPipeline pipeline(redis_);
    body.AppendLevel(pipeline);
    const size_t questions = pipeline.Size();
    if (isFirst) AppendQuestions(pipeline, asksForId);
    const std::vector<RedisReply> replies = pipeline.Execute();
    const bool isTold = !isFirst || TakeAnswers(std::span(replies).subspan(questions), asksForId);
    if (!isTold || !body.TakeLevel(replies)) return BodyUnreadable();
  }
  numbers_ = body.Numbers();
  body_ = std::move(body).TakeDocument();
  return std::nullopt;
}

bool Creation::ReadRoot(RequestBody& body) {
  RedisReply fetched;
  const redisReply* root = request_.PrefetchedBody();
  if (root == nullptr) {
    fetched = SendArguments(redis_, {"HGETALL", request_.record.requestData});
    root = fetched.get();
  }
  // Redis keeps no empty hash: a body without a field is a body that is not there.
  return IsArray(root) && root->elements > 0 && body.TakeRoot(root);
}

/// Takes the client's Id or draws one. False for an Id that is refused whether or not it exists.
bool Creation::ChooseId(const Json& body) {
  const auto id = body.find("Id");
  isIdGiven_ = id != body.end() && *id != "";
  if (!isIdGiven_) {
    about_.id = GenerateId(random_);
    return true;
  }
  if (!id->is_string() || id->get_ref<const std::string&>().size() > kLongestId) return false;
  about_.id = id->get<std::string>();
  return true;
}

/// What else has to be known travels with the body's second level.
void Creation::AppendQuestions(RedisPipeline& pipeline, bool asksForId) const {
  pipeline.Append({"HGET", kSubscriptionsUri, kEtagField});
  if (asksForId) pipeline.Append({"EXISTS", MemberUri(about_.id)});
  if (about_.isSse) pipeline.Append({"HGET", request_.announcement.requestKey, "&&SSE-CHANNEL"});
}

bool Creation::TakeAnswers(std::span<const RedisReply> replies, bool asksForId) {
  formerCollectionEtag_ = collectionEtag_ = TextOf(replies.front());
  if (about_.isSse) about_.sseChannel = TextOf(replies.back());
  return !asksForId || TakeExistence(replies[1]);
}

/// Without a reply nobody knows whether there is a resource that the creation would replace.
bool Creation::TakeExistence(const RedisReply& exists) {
  idExists_ = IsInteger(exists) && exists->integer == 1;
  return IsInteger(exists);
}

std::optional<Answer> Creation::Judge() {
  if (auto refusal = CheckCreation(body_, {.settings = request_.settings,
                                           .syslogTlsDestinations = state_.syslogTlsDestinationIds.size(),
                                           .isSse = about_.isSse,
                                           .numbers = numbers_})) {
    return refusal;
  }
  if (!idExists_) return std::nullopt;
  if (!isIdGiven_) return DrawFreeId();
  return Answer{kFailure, {{"Base.1.12.ResourceAlreadyExists", {"EventDestination", "Id", about_.id}, {"Id"}}}, {}, {}};
}

std::optional<Answer> Creation::DrawFreeId() {
  for (int draw = 0; draw < kMostIdRedraws; ++draw) {
    about_.id = GenerateId(random_);
    if (!TakeExistence(SendArguments(redis_, {"EXISTS", MemberUri(about_.id)}))) return BodyUnreadable();
    if (!idExists_) return std::nullopt;
  }
  return Refuse(kException, kOperationFailedMessage, {}, "OperationFailed: Failed to generate an unused Id.");
}

std::optional<Answer> Creation::Build() {
  uri_ = MemberUri(about_.id);
  about_.etag = NewEtag();
  if (about_.isSse) about_.timeStamp = TimeStamp();
  if (body_.contains("SNMP")) about_.passwordLine = FirstLineOf(request_.settings.paths.passwordFile);
  std::optional<Json> destination = BuildEventDestination(body_, about_, request_.settings);
  if (!destination) return Refuse(kException, kOperationFailedMessage);
  destination_ = std::move(*destination);
  const std::optional<std::string> heaviest = TooHeavyProperty(WeightsOf(destination_));
  if (!heaviest) return std::nullopt;
  return Answer{kFailure, {PropertyMessage(FaultKind::kValue, MemberPath({}, *heaviest))}, {}, {}};
}

std::optional<Answer> Creation::SetUpSyslog() {
  const std::string_view transport = SyslogTransport(destination_);
  if (transport.empty()) return std::nullopt;
  if (!CreateAtSyslogForwarder(redis_, destination_)) return Refuse(kUnavailable, kOperationFailedMessage);
  std::vector<std::string>& tlsIds = state_.syslogTlsDestinationIds;
  if (transport == "TLS" && std::ranges::find(tlsIds, about_.id) == tlsIds.end()) tlsIds.push_back(about_.id);
  return std::nullopt;
}

/// The whole resource in one batch.
std::optional<Answer> Creation::Write() {
  if (NeedsSequenceIds(destination_)) {
    sequence_ = NextSequenceId(redis_);
    if (sequence_ < 0) return WriteFailed();
  }
  RedisPipeline pipeline(redis_);
  // What an incomplete deletion may have left under an Id that is used again must not be added to.
  if (isIdGiven_) AppendUnlink(pipeline, DocumentKeys(uri_, destination_, sequence_));
  int64_t next = sequence_;
  if (!AppendDocument(pipeline, uri_, destination_, next)) return WriteFailed();
  const size_t writes = pipeline.Size();
  if (next != sequence_) AppendSequenceStore(pipeline, next);
  const std::vector<RedisReply> replies = pipeline.Execute();
  const bool isSequenceStored = writes == replies.size() || TextOf(replies.back()).starts_with("OK");
  if (!AllIntegers(std::span(replies).first(writes)) || !isSequenceStored) return WriteFailed();
  return std::nullopt;
}

/// Makes the resource a member of the collection.
std::optional<Answer> Creation::Enrol() {
  const std::string etag = JsonText(NewEtag());
  RedisPipeline pipeline(redis_);
  const size_t etagWrite = pipeline.Append({"HSET", kSubscriptionsUri, kEtagField, etag});
  const size_t firstWrite = pipeline.Append({"HSET", request_.announcement.requestKey, kLocationField, uri_});
  // A generated Id has never been used; a given one may stand in the list in some form.
  if (isIdGiven_) AppendMemberRemoval(pipeline, kSubscriptionsUri, uri_);
  pipeline.Append({"RPUSH", kSubscriptionsMembersKey, MemberEntry(uri_)});
  const size_t lastWrite = pipeline.Append({"HSET", uri_, kCrudPrefixField, kEventDestinationPrefix});
  AppendMembersLength(pipeline);
  const size_t draw = AppendEventGroupIdDraw(pipeline);
  std::vector<RedisReply> replies = pipeline.Execute();
  if (!AllIntegers(std::span(replies).subspan(firstWrite, lastWrite + 1 - firstWrite))) return WriteFailed();
  if (IsInteger(replies[etagWrite])) {
    collectionEtag_ = etag;
  } else {
    LogEtagFailure(kSubscriptionsUri);
  }
  membersLength_ = std::move(replies[lastWrite + 1]);
  eventGroupId_ = SettleEventGroupId(redis_, replies, draw);
  destination_[std::string(kCrudPrefixField)] = kEventDestinationPrefix;
  return std::nullopt;
}

std::optional<Answer> Creation::DisableSnmpTrap() {
  if (!IsSnmpTrapDestination(uri_, TextMember(destination_, "SubscriptionType"))) return std::nullopt;
  if (!SetState(redis_, uri_, kStateDisabled)) return Failed("DatabaseOperationError: Failed to set State.");
  destination_["Status"]["State"] = kStateDisabled;
  return std::nullopt;
}

void Creation::Persist() {
  if (about_.isSse) return;  // a stream does not outlive the service
  if (!state_.db.InsertDbSubscription(about_.id, FileText(destination_), about_.privileges, collectionEtag_)) {
    LogError("Failed to insert the subscription to DB file.");
  }
}

/// Tells event delivery and those who watch the collection.
Answer Creation::Announce() {
  RedisPipeline pipeline(redis_);
  const std::vector<std::string> indexKeys =
      OriginIndexKeys(destination_, request_.settings.subordinateResourcesSupported);
  const std::string mask = std::to_string(FilterMask(body_, state_.registryPrefixBits));
  for (const std::string& key : indexKeys) pipeline.Append({"HSET", key, about_.id, mask});
  const bool isMetricReport = IsMetricReportDestination(destination_);
  if (isMetricReport) pipeline.Append({"HINCRBY", kMetricReportKey, kMetricReportField, "1"});
  const size_t indexWrites = pipeline.Size();

  LifeCycleBatch events(request_, pipeline, eventGroupId_);
  events.AppendForMember("add", uri_);
  events.AppendForCollection();
  const bool isCountSent = AppendMembersCount(pipeline, membersLength_.get());
  const std::vector<RedisReply> replies = pipeline.Execute();

  if (!AllIntegers(std::span(replies).first(indexWrites))) {
    if (isMetricReport) {
      LogError("Failed to increase the counter &&subs:MetricReport");
    } else {
      LogError("Failed to write the origin index of %s.", uri_.c_str());
    }
  }
  events.Check(replies);
  LogSubscriptionChange(uri_, "added", request_.AskedBy());
  if (!isCountSent || !SettleMembersCount(state_, membersLength_.get(), replies.back().get(), 1)) {
    return DatabaseError("DatabaseOperationError: Failed to update Members count.");
  }
  return Succeed("Base.1.12.Created");
}

/// The log tells what failed before it tells what failed because of it.
Answer Creation::Failed(const char* logText) {
  LogError("%s", logText);
  TakeBack();
  return DatabaseError({});
}

Answer Creation::WriteFailed() { return Failed("DatabaseOperationError: Failed to create event destination object."); }

/// Removes what the creation may have written, however far it got. The syslog forwarder is not told, and counters that
/// have moved stay.
void Creation::TakeBack() {
  std::erase(state_.syslogTlsDestinationIds, about_.id);
  RedisPipeline pipeline(redis_);
  AppendUnlink(pipeline, DocumentKeys(uri_, destination_, sequence_));
  AppendMemberRemoval(pipeline, kSubscriptionsUri, uri_);
  pipeline.Append({"HDEL", request_.announcement.requestKey, kLocationField});
  const size_t removals = pipeline.Size();
  if (formerCollectionEtag_.empty()) {
    pipeline.Append({"HDEL", kSubscriptionsUri, kEtagField});
  } else {
    pipeline.Append({"HSET", kSubscriptionsUri, kEtagField, formerCollectionEtag_});
  }
  const std::vector<RedisReply> replies = pipeline.Execute();
  if (!AllIntegers(std::span(replies).first(removals))) {
    LogError("Failed to delete data of event destination whencreate failed.");
  }
  if (!IsInteger(replies.back())) LogEtagFailure(kSubscriptionsUri);
}

}  // namespace

std::optional<Answer> CheckSubscriptionLimit(const Request& request) {
  // Compared signed, as the limit is.
  if (static_cast<int32_t>(request.subscriptions->subscriptionCount) < request.settings.maxSubscriptionCount) {
    return std::nullopt;
  }
  return Refuse(kUnavailable, "Base.1.12.EventSubscriptionLimitExceeded");
}

Answer CreateEventDestination(Request& request, RandomSource random) { return Creation(request, random).Run(); }

}  // namespace event_service
