#include "subscriptions/state.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "foundation/logging.h"
#include "foundation/redis_pipeline.h"
#include "requests/request_body.h"
#include "resource_store/resource_editor.h"
#include "subscriptions/member_change.h"
#include "subscriptions/resource/event_destination.h"
#include "subscriptions/resource/member_uri.h"
#include "subscriptions/stored_member.h"

namespace event_service {
namespace {

/// The values that the standard has for Status/State.
constexpr std::string_view kStates[] = {"Enabled",   "Disabled", "StandbyOffline", "StandbySpare",
                                        "InTest",    "Starting", "Absent",         "UnavailableOffline",
                                        "Deferring", "Quiesced", "Updating",       "Qualified"};

std::string Quoted(std::string_view text) { return '"' + std::string(text) + '"'; }

/// What a change of State depends on.
struct StoredState {
  bool isSse = false;
  bool hasStatus = false;  // a marker that leads to it
  std::string state;       // as stored; empty: the member has none, as streams have none
};

/// Reads it in one batch with what the pipeline holds already. A refusal when there is no such member or Redis does not
/// tell.
std::optional<Answer> ReadState(RedisPipeline& pipeline, std::string_view uri, StoredState& stored) {
  std::string type;
  std::string status;
  MemberReads reads(pipeline, uri);
  reads.AskWhetherThere();
  reads.AskField(uri, "SubscriptionType", type);
  reads.AskField(uri, "Status", status);
  reads.AskField(ChildKey(uri, "Status"), "State", stored.state);
  pipeline.Execute();
  stored.isSse = IsStreamType(type);
  stored.hasStatus = ParseFieldMarker(status).has_value();
  return reads.Refusal();
}

/// False when a write failed.
bool ChangeState(Request& request, std::string_view uri, const StoredState& stored, std::string_view state,
                 const char* who) {
  const Json status = {{"State", state}};
  RedisPipeline writes(request.redis);
  int64_t noSequence = kNoSequence;
  if (stored.hasStatus) {
    writes.Append({"HSET", ChildKey(uri, "Status"), "State", Quoted(state)});  // it may have other members
  } else if (!AppendPropertyWrites(writes, uri, "Status", status, noSequence)) {
    return false;
  }
  return ApplyMemberChange(request, writes,
                           {.uri = uri,
                            .isSse = stored.isSse,
                            .changes = {{"Status", status}},
                            .eventKind = "status",
                            .done = state == kStateEnabled ? "resumed" : "suspended",
                            .who = who});
}

}  // namespace

bool SetState(redisContext* redis, std::string_view uri, std::string_view state) {
  return HashWriteQuoted(redis, ChildKey(uri, "Status"), "State", state);
}

Answer ResumeSubscription(Request& request, std::string_view uri) {
  if (MemberIdOf(uri).empty()) return MemberMissing(uri);
  RedisPipeline pipeline(request.redis);
  StoredState stored;
  if (auto refusal = ReadState(pipeline, uri, stored)) return *std::move(refusal);
  const bool isEnabled = stored.state == Quoted(kStateEnabled) && !IsHalfChanged(request, uri);
  if (isEnabled || stored.state.empty()) return NoOperationAnswer();
  if (!ChangeState(request, uri, stored, kStateEnabled, "client")) {
    return DatabaseError("DatabaseOperationError: Failed to set State.");
  }
  return Succeed();
}

Answer ApplyDeliveryState(Request& request) {
  const std::string& uri = request.record.targetUri;
  if (MemberIdOf(uri).empty()) return MemberMissing(uri);
  RequestBody body(request.record.requestData);
  RedisPipeline pipeline(request.redis);
  body.AskLevel(pipeline);
  StoredState stored;
  if (auto refusal = ReadState(pipeline, uri, stored)) return *std::move(refusal);
  if (!body.ReadRest(pipeline)) {
    return DatabaseError("DatabaseOperationError: Failed to get request data from database.");
  }
  const auto status = body.Document().find("Status");
  const std::string_view state = status == body.Document().end() ? std::string_view() : TextMember(*status, "State");
  const auto known = std::ranges::find(kStates, state);
  if (known == std::end(kStates)) {
    LogError("The event delivery asked for an unknown State of %s.", uri.c_str());
    return NoAnswer();
  }
  if (stored.state == Quoted(state) && !IsHalfChanged(request, uri)) return NoAnswer();
  if (!ChangeState(request, uri, stored, *known, "delivery side")) {
    return DatabaseError("DatabaseOperationError: Failed to set State.");
  }
  return NoAnswer();
}

}  // namespace event_service
