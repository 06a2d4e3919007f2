#include "subscriptions/patch.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "foundation/durable_file.h"
#include "foundation/redis_pipeline.h"
#include "requests/fault_messages.h"
#include "requests/request_body.h"
#include "resource_store/resource_editor.h"
#include "resource_store/resource_walk.h"
#include "resource_store/resource_writer.h"
#include "subscriptions/judgement/patch_check.h"
#include "subscriptions/member_change.h"
#include "subscriptions/resource/event_destination.h"
#include "subscriptions/resource/member_uri.h"
#include "subscriptions/resource/member_weight.h"
#include "subscriptions/stored_member.h"
#include "subscriptions/syslog_exchange.h"

namespace event_service {
namespace {

/// The body, the resource as it stands (all its properties, but of the nested ones only what the body names), and what
/// all of it weighs, read in the same batches.
struct PatchInput {
  explicit PatchInput(const Request& request)
      : body(request.record.requestData),
        walk(request.record.targetUri,
             {.knownKind = ContainerKind::kObject, .withControlFields = true, .onlyMembersOf = &body.Document()},
             &stored) {}

  std::optional<Answer> Read(const Request& request);

  RequestBody body;
  Json stored;
  ResourceWalk walk;
  std::optional<PropertyWeights> weights;
};

std::optional<Answer> PatchInput::Read(const Request& request) {
  const std::string& uri = request.record.targetUri;
  RedisPipeline pipeline(request.redis);
  MemberReads reads(pipeline, uri);
  // The body first: it tells the walk how far to go.
  body.AskLevel(pipeline);
  reads.AskFirstLevel(walk);
  AskWeights(pipeline, uri, weights);
  do {
    pipeline.Execute();
    if (body.HasFailed()) return DatabaseError("DatabaseOperationError: Failed to get request data from database.");
    if (auto refusal = reads.Refusal()) return refusal;
    if (walk.HasFailed() || !weights) {
      return DatabaseError("DatabaseOperationError: Failed to read the event destination.");
    }
    body.AskLevel(pipeline);
    walk.AskLevel(pipeline);
  } while (pipeline.Size() > 0);
  return std::nullopt;
}

/// The properties that the resource will hold in the place of its own, complete: "SNMP" with the members that stay,
/// arrays with their counts, and what follows from them. Nothing when a secret cannot be encrypted (logged).
std::optional<Json> NewProperties(const Json& changes, const Json& stored, const ServiceSettings& settings) {
  Json properties = changes;
  for (const auto& [name, value] : changes.items()) SetCount(properties, name);
  if (const auto given = changes.find("SNMP"); given != changes.end()) {
    Json snmp = stored.value("SNMP", Json());
    const bool isNew = !snmp.is_object();
    if (isNew) snmp = Json::object();
    if (!MergeSnmp(*given, FirstLineOf(settings.paths.passwordFile), snmp)) return std::nullopt;
    if (isNew && !IsStream(stored)) AddSnmpAllowableValues(snmp, settings);
    properties["SNMP"] = std::move(snmp);
  }
  if (const auto headers = changes.find(kHeadersPath); headers != changes.end() && !headers->empty()) {
    const std::string paths(TextMember(stored, kSensitiveDataField));
    const std::string joined = JoinPaths(paths, kHeadersPath);
    if (joined != paths) properties[std::string(kSensitiveDataField)] = joined;
  }
  return properties;
}

/// A refusal when the resource would weigh too much with the new properties.
std::optional<Answer> CheckWeight(const Json& properties, PropertyWeights weights, std::vector<Message> notUpdatable) {
  for (const auto& [name, weight] : WeightsOf(properties)) weights[name] = weight;
  const std::optional<std::string> heaviest = TooHeavyProperty(weights);
  if (!heaviest) return std::nullopt;
  Message message = PropertyMessage(FaultKind::kValue, MemberPath({}, *heaviest));
  const auto pathOf = [](const Message& other) { return other.relatedProperties.front(); };
  notUpdatable.insert(std::ranges::upper_bound(notUpdatable, pathOf(message), {}, pathOf), message);
  return Answer{kFailure, std::move(notUpdatable)};
}

/// The forwarder knows the first of the filters. After a change that failed half-way nobody knows what it knows.
std::optional<Answer> RenewSyslogOrder(const Request& request, const Json& properties, const Json& stored) {
  const auto filters = properties.find("SyslogFilters");
  if (filters == properties.end() || SyslogTransport(stored).empty()) return std::nullopt;
  Json wanted = stored;
  wanted["SyslogFilters"] = *filters;
  const bool isSame = SyslogCreateMessage(wanted) == SyslogCreateMessage(stored);
  if (isSame && !IsHalfChanged(request, request.record.targetUri)) return std::nullopt;
  if (RenewAtSyslogForwarder(request.redis, stored, wanted)) return std::nullopt;
  return Refuse(kUnavailable, kOperationFailedMessage);
}

/// The writes of one PATCH, and the same change for the file.
class PatchWrites {
 public:
  PatchWrites(const Request& request, PatchInput& input, int64_t firstSequence)
      : input_(input), uri_(request.record.targetUri), sequence_(firstSequence), pipeline_(request.redis) {}

  /// False when the value cannot be stored (logged).
  bool Append(const std::string& name, const Json& value);

  RedisPipeline& Pipeline() { return pipeline_; }
  int64_t NextSequence() const { return sequence_; }
  Json TakeChanges() { return std::move(changes_); }
  std::vector<std::string> TakeRemoved() { return std::move(removed_); }

 private:
  bool Replace(const std::string& name, const Json& value);
  bool AppendSnmp(const Json& snmp);

  PatchInput& input_;
  const std::string& uri_;
  int64_t sequence_;
  RedisPipeline pipeline_;
  Json changes_ = Json::object();
  std::vector<std::string> removed_;
};

bool PatchWrites::Append(const std::string& name, const Json& value) {
  return name == "SNMP" ? AppendSnmp(value) : Replace(name, value);
}

bool PatchWrites::Replace(const std::string& name, const Json& value) {
  changes_[name] = value;
  std::vector<std::string> keys = input_.walk.KeysOfMember(name);
  // A marker may lead to what belongs to another resource.
  std::erase_if(keys, [this](const std::string& key) { return !IsUnderKey(uri_, key); });
  return AppendPropertyWrites(pipeline_, uri_, name, value, sequence_, keys);
}

bool PatchWrites::AppendSnmp(const Json& snmp) {
  Json old = input_.stored.value("SNMP", Json());
  if (!old.is_object()) old = Json::object();
  const std::string snmpKey = ChildKey(uri_, "SNMP");
  const std::vector<std::string> oldKeys = input_.walk.KeysOfMember("SNMP");
  for (const auto& member : old.items()) {
    if (!snmp.contains(member.key())) removed_.push_back("SNMP/" + member.key());
  }
  if (oldKeys.empty() || oldKeys.front() != snmpKey) return Replace("SNMP", snmp);
  // Member by member: the delivery side may be reading the others.
  for (const std::string& path : removed_) AppendPropertyRemoval(pipeline_, snmpKey, path.substr(path.find('/') + 1));
  for (const auto& [member, value] : snmp.items()) {
    if (const auto before = old.find(member); before != old.end() && *before == value) continue;
    changes_["SNMP"][member] = value;
    if (!AppendPropertyWrites(pipeline_, snmpKey, member, value, sequence_)) return false;
  }
  return true;
}

Answer UpdateFailed() { return DatabaseError("DatabaseOperationError: Failed to update event destination object."); }

/// Gives the resource its new properties: at the syslog forwarder first, which may refuse, then in Redis and the file.
std::optional<Answer> Apply(Request& request, PatchInput& input, const Json& properties) {
  int64_t firstSequence = kNoSequence;
  if (NeedsSequenceIds(properties)) {
    firstSequence = NextSequenceId(request.redis);
    if (firstSequence < 0) return UpdateFailed();
  }
  PatchWrites writes(request, input, firstSequence);
  for (const auto& [name, value] : properties.items()) {
    if (!writes.Append(name, value)) return Refuse(kException, kOperationFailedMessage);
  }
  if (auto refusal = RenewSyslogOrder(request, properties, input.stored)) return refusal;
  const int64_t nextSequence = writes.NextSequence() == firstSequence ? kNoSequence : writes.NextSequence();
  if (ApplyMemberChange(request, writes.Pipeline(),
                        {.uri = request.record.targetUri,
                         .isSse = IsStream(input.stored),
                         .changes = writes.TakeChanges(),
                         .removed = writes.TakeRemoved(),
                         .eventKind = "change",
                         .nextSequence = nextSequence})) {
    return std::nullopt;
  }
  return UpdateFailed();
}

}  // namespace

Answer PatchEventDestination(Request& request) {
  const std::string& uri = request.record.targetUri;
  if (MemberIdOf(uri).empty()) return MemberMissing(uri);
  if (request.record.requestData.empty()) {
    return DatabaseError("DatabaseOperationError: Failed to get request data from database.");
  }
  PatchInput input(request);
  if (auto refusal = input.Read(request)) return *std::move(refusal);
  PatchJudgement judgement = JudgePatch(input.body.Document(), input.stored, request.settings, input.body.Numbers(),
                                        IsHalfChanged(request, uri));
  if (judgement.answer) return *std::move(judgement.answer);
  const std::optional<Json> properties = NewProperties(judgement.changes, input.stored, request.settings);
  if (!properties) return Refuse(kException, kOperationFailedMessage);
  if (auto refusal = CheckWeight(*properties, *std::move(input.weights), judgement.notUpdatable)) {
    return *std::move(refusal);
  }
  if (auto refusal = Apply(request, input, *properties)) return *std::move(refusal);
  if (judgement.notUpdatable.empty()) return Succeed();
  return Answer{kOkRes, std::move(judgement.notUpdatable)};
}

}  // namespace event_service
