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
  std::optional<StoredService> stored = {};
};

std::optional<Answer> ReadInput(const Request& request, PatchInput& input) {
  RedisPipeline pipeline(request.redis);
  ReadStoredService(pipeline, input.stored);
  if (request.record.requestData.empty() || !input.body.ReadRest(pipeline)) {
    return DatabaseError("DatabaseOperationError: Gets request data failed.");
  }
  if (!input.stored) return DatabaseError("DatabaseOperationError: Gets EventService data failed.");
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

/// A step that asks the Subscriptions listener, which owns them, to delete the SSE subscriptions.
void EndStreams(redisContext* redis, RedisPipeline& pipeline) {
  const std::string key = std::string(kEndOfStreamsPrefix) + std::to_string(RandomNumber());
  pipeline.Append({"HSET", key, kRequestMethod, "DELETE"});
  pipeline.Append({"HSET", key, kTargetUri, kEveryStream});
  pipeline.Ask({"PUBLISH", kSubscriptionsChannel, key + ' ' + std::string(kFromEventing)},
               [redis, key](const RedisReply& hearers) {
                 if (IsInteger(hearers) && hearers->integer >= 1) return;
                 LogError("The SSE subscriptions could not be deleted: nobody listens for the request.");
                 KeyDelete(redis, key);
               });
}

/// What Redis took of a change.
struct WriteOutcome {
  ServiceWrites values = {};
  uint32_t eventGroupId = 0;
};

WriteOutcome WriteChanges(redisContext* redis, const ServiceValues& changed) {
  WriteOutcome outcome;
  bool isEtagWritten = false;
  RedisPipeline pipeline(redis);
  WriteServiceValues(pipeline, changed, outcome.values);
  pipeline.OnlyIf(outcome.values.areComplete);
  WriteServiceEtag(pipeline, isEtagWritten);
  DrawEventGroupId(redis, pipeline, outcome.eventGroupId);
  pipeline.Execute();
  if (outcome.values.areComplete && !isEtagWritten) LogError("Failed to set the etag of the EventService.");
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
  RaiseLifeCycleEvent(pipeline, request.record.lifeCycleDigest,
                      {.change = "change",
                       .resourcePath = kEventServiceUri,
                       .resourceType = "EventService",
                       .extraText = {},
                       .eventGroupId = eventGroupId});
  if (turnsOff) EndStreams(request.redis, pipeline);
  pipeline.Execute();
}

bool TurnsOff(const ServiceValues& changed, const StoredService& stored) {
  const auto value = changed.find(kServiceEnabled);
  return value != changed.end() && value->second != true && StoredValue(kServiceEnabled, stored) == Json(true);
}

std::optional<Answer> ApplyChanges(const Request& request, const StoredService& stored, const ServiceValues& changed) {
  const bool turnsOff = TurnsOff(changed, stored);
  const WriteOutcome outcome = WriteChanges(request.redis, changed);
  if (outcome.values.areComplete) {
    KeepChanges(request, stored, changed);
    Announce(request, outcome.eventGroupId, turnsOff);
    return std::nullopt;
  }
  for (const auto& [path, value] : changed) request.unsettled->insert(path);
  if (turnsOff && outcome.values.isSwitchWritten) {
    RedisPipeline pipeline(request.redis);
    EndStreams(request.redis, pipeline);
    pipeline.Execute();
  }
  return DatabaseError("DatabaseOperationError: Failed to update the EventService.");
}

}  // namespace

Answer PatchEventService(const Request& request) {
  PatchInput input{.body = RequestBody(request.record.requestData)};
  if (auto refusal = ReadInput(request, input)) return *std::move(refusal);
  ServicePatchJudgement judgement =
      JudgeServicePatch(input.body.Document(), input.body.Numbers(), !request.settings.protocolOnly);
  const bool nothingToUpdate = judgement.accepted.empty() && !judgement.messages.empty();
  if (judgement.isUnacceptable || nothingToUpdate) return Answer{kFailure, std::move(judgement.messages)};

  ServiceValues changed = ChangedValues(judgement.accepted, *input.stored);
  for (const auto& accepted : judgement.accepted) {
    if (request.unsettled->contains(accepted.first)) changed.insert(accepted);
  }
  if (auto refusal = AddPassword(judgement.accepted, request.settings, changed)) return *std::move(refusal);
  if (changed.empty() && judgement.messages.empty()) return NoOperationAnswer();
  if (!changed.empty()) {
    if (auto refusal = ApplyChanges(request, *input.stored, changed)) return *std::move(refusal);
  }
  if (judgement.messages.empty()) return Succeed();
  return Answer{kOkRes, std::move(judgement.messages)};
}

}  // namespace event_service
