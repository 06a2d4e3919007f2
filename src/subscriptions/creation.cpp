#include "subscriptions/creation.h"

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/durable_file.h"
#include "foundation/logging.h"
#include "foundation/redis_pipeline.h"
#include "foundation/text_numbers.h"
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
#include "subscriptions/resource/event_destination.h"
#include "subscriptions/resource/filter_mask.h"
#include "subscriptions/resource/member_uri.h"
#include "subscriptions/resource/member_weight.h"
#include "subscriptions/resource/origin_index.h"
#include "subscriptions/state.h"
#include "subscriptions/stored_member.h"
#include "subscriptions/syslog_exchange.h"

namespace event_service {
namespace {

constexpr int kMostIdRedraws = 10;
constexpr size_t kLongestId = 64;  // a longer one is refused, and not asked for

Answer BodyUnreadable() { return DatabaseError("DatabaseOperationError: Failed to get request data from database."); }

/// What is known before anything is decided.
struct CreationInput {
  Json body;
  NumberTexts numbers;
  NewDestination about;
  bool isIdGiven = false;
  std::optional<bool> idExists = false;  // nothing: Redis does not tell whether there is one that would be replaced
  std::string collectionEtag;            // as stored
};

/// What is written.
struct NewMember {
  std::string uri;
  Json destination;
  int64_t sequence = kNoSequence;  // the first id of its arrays
};

/// What the member's entry in the collection has led to.
struct Membership {
  std::string collectionEtag;  // as stored
  std::optional<int64_t> membersLength;
  uint32_t eventGroupId = 0;
};

bool ReadRoot(const Request& request, RequestBody& body) {
  RedisReply fetched;
  const redisReply* root = request.PrefetchedBody();
  if (root == nullptr) {
    fetched = SendArguments(request.redis, {"HGETALL", request.record.requestData});
    root = fetched.get();
  }
  // Redis keeps no empty hash: a body without a field is a body that is not there.
  return IsArray(root) && root->elements > 0 && body.TakeRoot(root);
}

/// Takes the client's Id or draws one. False for an Id that is refused whether or not it exists.
bool ChooseId(const Json& body, RandomSource random, CreationInput& input) {
  const auto id = body.find("Id");
  input.isIdGiven = id != body.end() && *id != "";
  if (!input.isIdGiven) {
    input.about.id = HexText(random());
    return true;
  }
  if (!id->is_string() || id->get_ref<const std::string&>().size() > kLongestId) return false;
  input.about.id = id->get<std::string>();
  return true;
}

void AskWhetherIdExists(RedisPipeline& pipeline, CreationInput& input) {
  pipeline.Ask({"EXISTS", MemberUri(input.about.id)}, [&input](const RedisReply& reply) {
    input.idExists = IsInteger(reply) ? std::optional(reply->integer == 1) : std::nullopt;
  });
}

/// False when the body cannot be read, or whether the Id exists.
bool ReadInput(const Request& request, RandomSource random, CreationInput& input) {
  input.about.isSse = request.record.isSse == "true";
  input.about.privileges = request.record.privileges;
  RequestBody body(request.record.requestData);
  if (!ReadRoot(request, body)) return false;
  // What else has to be known travels with the body's second level.
  RedisPipeline pipeline(request.redis);
  body.AskLevel(pipeline);
  pipeline.Ask({"HGET", kSubscriptionsUri, kEtagField},
               [&input](const RedisReply& reply) { input.collectionEtag = TextOf(reply); });
  if (ChooseId(body.Document(), random, input)) AskWhetherIdExists(pipeline, input);
  if (input.about.isSse) {
    pipeline.Ask({"HGET", request.announcement.requestKey, kSseChannel},
                 [&input](const RedisReply& reply) { input.about.sseChannel = TextOf(reply); });
  }
  pipeline.Execute();
  if (!input.idExists || !body.ReadRest(pipeline)) return false;
  input.numbers = body.Numbers();
  input.body = std::move(body).TakeDocument();
  return true;
}

std::optional<Answer> DrawFreeId(const Request& request, RandomSource random, CreationInput& input) {
  RedisPipeline pipeline(request.redis);
  for (int draw = 0; draw < kMostIdRedraws; ++draw) {
    input.about.id = HexText(random());
    AskWhetherIdExists(pipeline, input);
    pipeline.Execute();
    if (!input.idExists) return BodyUnreadable();
    if (!*input.idExists) return std::nullopt;
  }
  return Refuse(kException, kOperationFailedMessage, {}, "OperationFailed: Failed to generate an unused Id.");
}

std::optional<Answer> Judge(const Request& request, RandomSource random, CreationInput& input) {
  const size_t tlsDestinations = request.subscriptions->syslogTlsDestinationIds.size();
  if (auto refusal = CheckCreation(input.body, {.settings = request.settings,
                                                .syslogTlsDestinations = tlsDestinations,
                                                .isSse = input.about.isSse,
                                                .numbers = input.numbers})) {
    return refusal;
  }
  if (!*input.idExists) return std::nullopt;
  if (!input.isIdGiven) return DrawFreeId(request, random, input);
  return Answer{kFailure, {{"Base.1.12.ResourceAlreadyExists", {"EventDestination", "Id", input.about.id}, {"Id"}}}};
}

std::optional<Answer> Build(const ServiceSettings& settings, CreationInput& input, NewMember& member) {
  member.uri = MemberUri(input.about.id);
  input.about.etag = NewEtag();
  if (input.about.isSse) input.about.timeStamp = TimeStamp();
  if (input.body.contains("SNMP")) input.about.passwordLine = FirstLineOf(settings.paths.passwordFile);
  std::optional<Json> destination = BuildEventDestination(std::move(input.body), input.about, settings);
  if (!destination) return Refuse(kException, kOperationFailedMessage);
  member.destination = *std::move(destination);
  const std::optional<std::string> heaviest = TooHeavyProperty(member.destination);
  if (!heaviest) return std::nullopt;
  return Answer{kFailure, {PropertyMessage(FaultKind::kValue, MemberPath({}, *heaviest))}};
}

std::optional<Answer> SetUpSyslog(const Request& request, const NewMember& member) {
  const std::string_view transport = SyslogTransport(member.destination);
  if (transport.empty()) return std::nullopt;
  if (!CreateAtSyslogForwarder(request.redis, member.destination)) {
    return Refuse(kUnavailable, kOperationFailedMessage);
  }
  if (transport != "TLS") return std::nullopt;
  std::vector<std::string>& ids = request.subscriptions->syslogTlsDestinationIds;
  const std::string_view id = MemberIdOf(member.uri);
  if (std::ranges::find(ids, id) == ids.end()) ids.emplace_back(id);
  return std::nullopt;
}

/// Removes what the creation may have written, however far it got. The syslog forwarder is not told, and counters that
/// have moved stay.
void RollBack(const Request& request, const CreationInput& input, const NewMember& member) {
  std::erase(request.subscriptions->syslogTlsDestinationIds, MemberIdOf(member.uri));
  RedisPipeline pipeline(request.redis);
  AppendUnlink(pipeline, DocumentKeys(member.uri, member.destination, member.sequence));
  AppendMemberRemoval(pipeline, kSubscriptionsUri, member.uri);
  pipeline.Append({"HDEL", request.announcement.requestKey, kLocation});
  pipeline.Then([](Replies replies) {
    if (!AllIntegers(replies)) LogError("Failed to delete data of event destination whencreate failed.");
  });
  if (input.collectionEtag.empty()) {
    pipeline.Append({"HDEL", kSubscriptionsUri, kEtagField});
  } else {
    pipeline.Append({"HSET", kSubscriptionsUri, kEtagField, input.collectionEtag});
  }
  pipeline.Then([](Replies replies) {
    if (!AllIntegers(replies)) LogEtagFailure(kSubscriptionsUri);
  });
  pipeline.Execute();
}

/// Writes the whole resource in one batch.
bool Write(redisContext* redis, bool isIdGiven, NewMember& member) {
  if (NeedsSequenceIds(member.destination)) {
    member.sequence = NextSequenceId(redis);
    if (member.sequence < 0) return false;
  }
  RedisPipeline pipeline(redis);
  // What an incomplete deletion may have left under an Id that is used again must not be added to.
  if (isIdGiven) AppendUnlink(pipeline, DocumentKeys(member.uri, member.destination, member.sequence));
  int64_t next = member.sequence;
  if (!AppendDocument(pipeline, member.uri, member.destination, next)) return false;
  bool isWritten = false;
  pipeline.Then([&isWritten](Replies replies) { isWritten = AllIntegers(replies); });
  if (next != member.sequence) {
    AppendSequenceStore(pipeline, next);
    pipeline.Then([&isWritten](Replies replies) { isWritten &= TextOf(replies.back()).starts_with("OK"); });
  }
  pipeline.Execute();
  return isWritten;
}

/// Makes the resource a member.
bool AddToCollection(const Request& request, const CreationInput& input, NewMember& member, Membership& membership) {
  const std::string etag = NewEtag();
  bool isEtagSet = false;
  bool isAdded = false;
  RedisPipeline pipeline(request.redis);
  SetEtag(pipeline, kSubscriptionsUri, etag, isEtagSet);
  pipeline.Append({"HSET", request.announcement.requestKey, kLocation, member.uri});
  // A generated Id has never been used; a given one may stand in the list in some form.
  if (input.isIdGiven) AppendMemberRemoval(pipeline, kSubscriptionsUri, member.uri);
  pipeline.Append({"RPUSH", kSubscriptionsMembersKey, MemberEntry(member.uri)});
  // Last: it says that the member is whole.
  pipeline.Append({"HSET", member.uri, kCrudPrefixField, kEventDestinationPrefix});
  pipeline.Then([&isAdded](Replies replies) { isAdded = AllIntegers(replies); });
  pipeline.OnlyIf(isAdded);
  AskMembersLength(pipeline, membership.membersLength);
  DrawEventGroupId(request.redis, pipeline, membership.eventGroupId);
  pipeline.Execute();
  membership.collectionEtag = isEtagSet ? JsonText(etag) : input.collectionEtag;
  member.destination[std::string(kCrudPrefixField)] = kEventDestinationPrefix;
  return isAdded;
}

bool DisableSnmpTrap(redisContext* redis, NewMember& member) {
  if (!IsSnmpTrapDestination(member.uri, TextMember(member.destination, "SubscriptionType"))) return true;
  member.destination["Status"]["State"] = kStateDisabled;
  return SetState(redis, member.uri, kStateDisabled);
}

void WriteIntoFile(const Request& request, const CreationInput& input, const NewMember& member,
                   std::string_view collectionEtag) {
  if (input.about.isSse) return;  // a stream does not outlive the service
  SubscriptionDb& db = request.subscriptions->db;
  if (!db.InsertDbSubscription(input.about.id, FileText(member.destination), input.about.privileges, collectionEtag)) {
    LogError("Failed to insert the subscription to DB file.");
  }
}

/// Tells event delivery where to look for the subscription.
void EnterIndex(RedisPipeline& pipeline, const Request& request, const NewMember& member) {
  if (IsMetricReportDestination(member.destination)) {
    pipeline.Ask({"HINCRBY", kMetricReportKey, kMetricReportField, "1"}, [](const RedisReply& reply) {
      if (!IsInteger(reply)) LogError("Failed to increase the counter &&subs:MetricReport");
    });
    return;
  }
  const std::string mask = std::to_string(FilterMask(member.destination, request.subscriptions->registryPrefixBits));
  for (const std::string& key : OriginIndexKeys(member.destination, request.settings.subordinateResourcesSupported)) {
    pipeline.Append({"HSET", key, MemberIdOf(member.uri), mask});
  }
  pipeline.Then([&member](Replies replies) {
    if (!AllIntegers(replies)) LogError("Failed to write the origin index of %s.", member.uri.c_str());
  });
}

/// Tells event delivery and those who watch the collection, and counts the member. False when it is not counted.
bool Announce(const Request& request, const NewMember& member, const Membership& membership) {
  bool isCounted = false;
  RedisPipeline pipeline(request.redis);
  EnterIndex(pipeline, request, member);
  LifeCycleBatch events(request, pipeline, membership.eventGroupId);
  events.RaiseForMember("add", member.uri);
  events.RaiseForCollection();
  PublishMembersCount(pipeline, *request.subscriptions, membership.membersLength, 1, isCounted);
  pipeline.Execute();
  LogSubscriptionChange(member.uri, "added", request.AskedBy());
  return isCounted;
}

}  // namespace

std::optional<Answer> CheckSubscriptionLimit(const Request& request) {
  // Compared signed, as the limit is.
  if (static_cast<int32_t>(request.subscriptions->subscriptionCount) < request.settings.maxSubscriptionCount) {
    return std::nullopt;
  }
  return Refuse(kUnavailable, "Base.1.12.EventSubscriptionLimitExceeded");
}

Answer CreateEventDestination(Request& request, RandomSource random) {
  CreationInput input;
  if (!ReadInput(request, random, input)) return BodyUnreadable();
  if (auto refusal = Judge(request, random, input)) return *std::move(refusal);
  NewMember member;
  if (auto refusal = Build(request.settings, input, member)) return *std::move(refusal);
  if (auto refusal = SetUpSyslog(request, member)) return *std::move(refusal);
  Membership membership;
  if (!Write(request.redis, input.isIdGiven, member) || !AddToCollection(request, input, member, membership)) {
    LogError("DatabaseOperationError: Failed to create event destination object.");
    RollBack(request, input, member);
    return DatabaseError({});
  }
  if (!DisableSnmpTrap(request.redis, member)) {
    LogError("DatabaseOperationError: Failed to set State.");
    RollBack(request, input, member);
    return DatabaseError({});
  }
  WriteIntoFile(request, input, member, membership.collectionEtag);
  const bool isCounted = Announce(request, member, membership);
  request.spent.push_back(std::move(member.destination));
  if (!isCounted) {
    return DatabaseError("DatabaseOperationError: Failed to update Members count.");
  }
  return Succeed("Base.1.12.Created");
}

}  // namespace event_service
