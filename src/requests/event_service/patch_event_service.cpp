#include "requests/event_service/patch_event_service.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "foundation/durable_file.h"
#include "foundation/logging.h"
#include "foundation/random.h"
#include "platform/data_encrypt/data_encrypt.h"
#include "requests/event_service/persistent_properties.h"
#include "requests/event_service/service_properties.h"
#include "requests/request_body.h"
#include "service/event_group_id.h"
#include "service/life_cycle_event.h"
#include "service/redis_keys.h"

namespace event_service {
namespace {

/// What a PATCH starts from.
struct PatchInput {
  RequestBody body;
  StoredService stored;
};

std::optional<Answer> ReadInput(const Request& request, PatchInput& input) {
  RedisPipeline pipeline(request.redis);
  input.body.AppendLevel(pipeline);
  const size_t serviceAt = AppendServiceRead(pipeline);
  const std::vector<RedisReply> replies = pipeline.Execute();
  std::optional<StoredService> stored = TakeStoredService(replies, serviceAt);
  // A record that names no body reads as the hash under an empty key, which nobody writes.
  bool isRead = !request.record.requestData.empty() && input.body.TakeLevel(replies);
  while (isRead && !input.body.IsComplete()) {
    input.body.AppendLevel(pipeline);
    isRead = input.body.TakeLevel(pipeline.Execute());
  }
  if (!isRead) return DatabaseError("DatabaseOperationError: Gets request data failed.");
  if (!stored) return DatabaseError("DatabaseOperationError: Gets EventService data failed.");
  input.stored = *std::move(stored);
  return std::nullopt;
}

/// Puts the encrypted password among the changes. A secret counts as one even when it is the same.
std::optional<Answer> AddPassword(const ServiceValues& accepted, const ServiceSettings& settings,
                                  ServiceValues& changed) {
  const auto password = accepted.find(kSmtpPassword);
  if (password == accepted.end()) return std::nullopt;
  Json& kept = changed[std::string(kSmtpPassword)];
  if (password->second.is_null()) {
    kept = nullptr;
    return std::nullopt;
  }
  const std::optional<std::string> encrypted =
      encryptToHexString(password->second.get_ref<const std::string&>(), FirstLineOf(settings.paths.passwordFile));
  if (!encrypted) {
    return Refuse(kException, kOperationFailedMessage, {}, "OperationFailed: Failed to encrypt the SMTP password.");
  }
  kept = *encrypted;
  return std::nullopt;
}

/// Asks the Subscriptions listener, which owns them, to delete the SSE subscriptions.
class SseDeletion {
 public:
  void Append(RedisPipeline& pipeline) {
    pipeline.Append({"HSET", key_, kRequestMethod, "DELETE"});
    pipeline.Append({"HSET", key_, kTargetUri, "SSE-ALL"});
    publishAt_ = pipeline.Append({"PUBLISH", kSubscriptionsChannel, key_ + ' ' + std::string(kFromEventing)});
  }
  void Settle(redisContext* redis, const std::vector<RedisReply>& replies) const {
    const RedisReply& published = replies[publishAt_];
    if (IsInteger(published) && published->integer >= 1) return;
    LogError("The SSE subscriptions could not be deleted: nobody listens for the request.");
    KeyDelete(redis, key_);
  }

 private:
  std::string key_ = std::string(kEndOfStreamsPrefix) + std::to_string(RandomNumber());
  size_t publishAt_ = 0;
};

/// What Redis took of a change.
struct WriteOutcome {
  bool isComplete = false;
  bool isSwitchWritten = false;  // ServiceEnabled, whatever became of the others
  uint32_t eventGroupId = 0;     // of a complete one
};

WriteOutcome WriteChanges(redisContext* redis, const ServiceValues& changed) {
  RedisPipeline pipeline(redis);
  const std::optional<size_t> switchAt = AppendServiceWrites(pipeline, changed);
  const size_t etagAt = AppendServiceEtag(pipeline);
  const size_t drawAt = AppendEventGroupIdDraw(pipeline);
  const std::vector<RedisReply> replies = pipeline.Execute();
  WriteOutcome outcome{.isComplete = AllIntegers(std::span(replies).first(etagAt)),
                       .isSwitchWritten = switchAt && IsInteger(replies[*switchAt])};
  if (!outcome.isComplete) return outcome;
  if (!IsInteger(replies[etagAt])) LogError("Failed to set the etag of the EventService.");
  outcome.eventGroupId = SettleEventGroupId(redis, replies, drawAt);
  return outcome;
}

/// Brings the changes into the file, and with them what earlier ones left undone.
void KeepChanges(const Request& request, const StoredService& former, const ServiceValues& changed) {
  ServiceValues kept = changed;
  for (const std::string& path : *request.unsettled) {
    std::optional<Json> value = StoredValue(path, former);
    if (value && AcceptKeptValue(path, *value)) kept.emplace(path, *std::move(value));
  }
  if (SavePersistentProperties(request.settings.paths.persistentProperties, kept)) {
    request.unsettled->clear();
  } else {
    for (const auto& [path, value] : changed) request.unsettled->insert(path);
  }
}

void Announce(const Request& request, uint32_t eventGroupId, bool turnsOff) {
  RedisPipeline pipeline(request.redis);
  const bool raises = AppendLifeCycleEvent(pipeline, request.record.lifeCycleDigest,
                                           {.change = "change",
                                            .resourcePath = kEventServiceUri,
                                            .resourceType = "EventService",
                                            .extraText = {},
                                            .eventGroupId = eventGroupId});
  SseDeletion sseDeletion;
  if (turnsOff) sseDeletion.Append(pipeline);
  const std::vector<RedisReply> replies = pipeline.Execute();
  if (raises) CheckLifeCycleReply(replies.front().get(), kEventServiceUri);
  if (turnsOff) sseDeletion.Settle(request.redis, replies);
}

bool TurnsOff(const Request& request, const ServiceValues& changed, const StoredService& stored) {
  const auto value = changed.find(kServiceEnabled);
  if (value == changed.end() || value->second == true) return false;
  return StoredValue(kServiceEnabled, stored) == Json(true) || request.unsettled->contains(kServiceEnabled);
}

std::optional<Answer> ApplyChanges(const Request& request, const StoredService& stored, const ServiceValues& changed) {
  const bool turnsOff = TurnsOff(request, changed, stored);
  const WriteOutcome outcome = WriteChanges(request.redis, changed);
  if (outcome.isComplete) {
    KeepChanges(request, stored, changed);
    Announce(request, outcome.eventGroupId, turnsOff);
    return std::nullopt;
  }
  for (const auto& [path, value] : changed) request.unsettled->insert(path);
  if (turnsOff && outcome.isSwitchWritten) {
    RedisPipeline pipeline(request.redis);
    SseDeletion sseDeletion;
    sseDeletion.Append(pipeline);
    sseDeletion.Settle(request.redis, pipeline.Execute());
  }
  return DatabaseError("DatabaseOperationError: Failed to update the EventService.");
}

}  // namespace

Answer PatchEventService(const Request& request) {
  PatchInput input{.body = RequestBody(request.record.requestData), .stored = {}};
  if (auto refusal = ReadInput(request, input)) return *std::move(refusal);
  ServicePatchJudgement judgement =
      JudgeServicePatch(input.body.Document(), input.body.Numbers(), !request.settings.protocolOnly);
  const bool nothingToUpdate = judgement.accepted.empty() && !judgement.messages.empty();
  if (judgement.isUnacceptable || nothingToUpdate) return Answer{kFailure, std::move(judgement.messages)};

  ServiceValues changed = ChangedValues(judgement.accepted, input.stored);
  for (const auto& accepted : judgement.accepted) {
    if (request.unsettled->contains(accepted.first)) changed.insert(accepted);
  }
  if (auto refusal = AddPassword(judgement.accepted, request.settings, changed)) return *std::move(refusal);
  if (changed.empty() && judgement.messages.empty()) return NoOperationAnswer();
  if (!changed.empty()) {
    if (auto refusal = ApplyChanges(request, input.stored, changed)) return *std::move(refusal);
  }
  if (judgement.messages.empty()) return Succeed();
  return Answer{kOkRes, std::move(judgement.messages)};
}

}  // namespace event_service
