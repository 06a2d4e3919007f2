#include "subscriptions/patch.h"

#include <string>
#include <utility>
#include <vector>

#include "foundation/durable_file.h"
#include "foundation/redis_pipeline.h"
#include "requests/request_body.h"
#include "resource_store/resource_editor.h"
#include "resource_store/resource_walk.h"
#include "resource_store/resource_writer.h"
#include "subscriptions/judgement/patch_check.h"
#include "subscriptions/member_change.h"
#include "subscriptions/resource/event_destination.h"
#include "subscriptions/resource/member_uri.h"

namespace event_service {
namespace {

/// The body, and the resource as it stands: all its properties, but of the nested ones only what the body names. Both
/// are read in the same batches.
struct PatchInput {
  explicit PatchInput(const Request& request)
      : body(request.record.requestData),
        walk(request.record.targetUri, {.knownKind = ContainerKind::kObject, .onlyMembersOf = &body.Document()},
             &stored) {}

  std::optional<Answer> Read(const Request& request);

  RequestBody body;
  Json stored;
  ResourceWalk walk;
};

std::optional<Answer> PatchInput::Read(const Request& request) {
  bool isFirst = true;
  while (isFirst || !body.IsComplete() || !walk.Done()) {
    RedisPipeline pipeline(request.redis);
    const bool isBodyOpen = !body.IsComplete();
    const bool isWalkOpen = !walk.Done();
    walk.AppendLevel(pipeline);
    body.AppendLevel(pipeline);
    const std::vector<RedisReply> replies = pipeline.Execute();
    // The body first: it tells the walk how far to go.
    if (isBodyOpen && !body.TakeLevel(replies)) {
      return DatabaseError("DatabaseOperationError: Failed to get request data from database.");
    }
    if (isFirst && SaysMissing(replies.front())) return MemberMissing(request.record.targetUri);
    if (isWalkOpen && !walk.TakeLevel(replies)) {
      return DatabaseError("DatabaseOperationError: Failed to read the event destination.");
    }
    isFirst = false;
  }
  return std::nullopt;
}

/// The writes of one PATCH, and the same change for the file.
class PatchWrites {
 public:
  PatchWrites(const Request& request, PatchInput& input, int64_t firstSequence)
      : request_(request),
        input_(input),
        uri_(request.record.targetUri),
        sequence_(firstSequence),
        pipeline_(request.redis) {}

  /// False when the value cannot be stored (logged).
  bool Append(const std::string& name, const Json& value);

  RedisPipeline& Pipeline() { return pipeline_; }
  int64_t NextSequence() const { return sequence_; }
  Json TakeChanges() { return std::move(changes_); }
  std::vector<std::string> TakeRemoved() { return std::move(removed_); }

 private:
  bool Replace(const std::string& name, const Json& value);
  bool AppendSnmp(const Json& given);

  const Request& request_;
  PatchInput& input_;
  const std::string& uri_;
  int64_t sequence_;
  RedisPipeline pipeline_;
  Json changes_ = Json::object();
  std::vector<std::string> removed_;
};

bool PatchWrites::Append(const std::string& name, const Json& value) {
  if (name == "SNMP" && value.is_object()) return AppendSnmp(value);
  if (!Replace(name, value)) return false;
  Json counted = {{name, value}};
  SetCount(counted, name);
  for (const auto& [member, memberValue] : counted.items()) {
    if (member != name && !Replace(member, memberValue)) return false;
  }
  return true;
}

bool PatchWrites::Replace(const std::string& name, const Json& value) {
  changes_[name] = value;
  std::vector<std::string> keys = input_.walk.KeysOfMember(name);
  // A marker may lead to what belongs to another resource.
  std::erase_if(keys, [this](const std::string& key) { return !IsUnderKey(uri_, key); });
  return AppendPropertyWrites(pipeline_, uri_, name, value, sequence_, keys);
}

bool PatchWrites::AppendSnmp(const Json& given) {
  Json old = input_.stored.value("SNMP", Json());
  if (!old.is_object()) old = Json::object();
  Json snmp = old;
  if (!MergeSnmp(given, FirstLineOf(request_.settings.paths.passwordFile), snmp)) return false;
  const std::string snmpKey = ChildKey(uri_, "SNMP");
  const std::vector<std::string> oldKeys = input_.walk.KeysOfMember("SNMP");
  const bool standsInPlace = !oldKeys.empty() && oldKeys.front() == snmpKey;
  for (const auto& member : old.items()) {
    if (!snmp.contains(member.key())) removed_.push_back("SNMP/" + member.key());
  }
  if (!standsInPlace) {
    AddSnmpAllowableValues(snmp, request_.settings);
    return Replace("SNMP", snmp);
  }
  // Member by member: the delivery side may be reading the others.
  for (const std::string& path : removed_) AppendPropertyRemoval(pipeline_, snmpKey, path.substr(path.find('/') + 1));
  for (const auto& [member, value] : snmp.items()) {
    if (const auto before = old.find(member); before != old.end() && *before == value) continue;
    changes_["SNMP"][member] = value;
    if (!AppendPropertyWrites(pipeline_, snmpKey, member, value, sequence_)) return false;
  }
  return true;
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

  int64_t firstSequence = kNoSequence;
  if (NeedsSequenceIds(judgement.changes)) {
    firstSequence = NextSequenceId(request.redis);
    if (firstSequence < 0) return DatabaseError("DatabaseOperationError: Failed to update event destination object.");
  }
  PatchWrites writes(request, input, firstSequence);
  for (const auto& [name, value] : judgement.changes.items()) {
    if (!writes.Append(name, value)) return Refuse(kException, kOperationFailedMessage);
  }
  const bool isSse = TextMember(input.stored, "SubscriptionType") == "SSE";
  const int64_t nextSequence = writes.NextSequence() == firstSequence ? kNoSequence : writes.NextSequence();
  if (!ApplyMemberChange(request, writes.Pipeline(),
                         {.uri = uri,
                          .isSse = isSse,
                          .changes = writes.TakeChanges(),
                          .removed = writes.TakeRemoved(),
                          .eventKind = "change",
                          .nextSequence = nextSequence})) {
    return DatabaseError("DatabaseOperationError: Failed to update event destination object.");
  }
  if (judgement.notUpdatable.empty()) judgement.notUpdatable = {{std::string(kSuccessMessage), {}, {}}};
  return Answer{kOkRes, std::move(judgement.notUpdatable), {}, {}};
}

}  // namespace event_service
