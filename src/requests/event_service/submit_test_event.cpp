#include "requests/event_service/submit_test_event.h"

#include <string>
#include <utility>
#include <vector>

#include "foundation/logging.h"
#include "foundation/random.h"
#include "foundation/redis_pipeline.h"
#include "foundation/time_stamp.h"
#include "requests/event_handover.h"
#include "requests/event_object.h"
#include "requests/event_service/test_event.h"
#include "requests/request_body.h"
#include "resource_store/json_text.h"
#include "resource_store/resource_writer.h"
#include "service/event_group_id.h"

namespace event_service {
namespace {

/// What is asked of Redis before anything is decided.
struct TestEventInput {
  RequestBody body;
  EventObjectKey key = {};
  bool originExists = true;
};

/// The resource that must exist for the event to be accepted; empty: none.
std::string OriginToFind(const Json& parameters) {
  const std::string_view origin = TextMember(parameters, "OriginOfCondition");
  return std::string(origin.starts_with("/redfish/v1/") ? origin : std::string_view());
}

/// Reads the body; what else has to be known travels with the level of its lists.
std::optional<Answer> ReadInput(redisContext* redis, TestEventInput& input) {
  RedisPipeline pipeline(redis);
  input.body.AskLevel(pipeline);
  input.key.AskWhetherFree(pipeline);
  pipeline.Execute();
  if (input.body.HasFailed()) return DatabaseError("DatabaseOperationError: Gets request data failed.");

  const std::string origin = OriginToFind(input.body.Document());
  if (!origin.empty()) {
    pipeline.Ask({"EXISTS", origin},
                 [&input](const RedisReply& reply) { input.originExists = IsInteger(reply) && reply->integer == 1; });
  }
  while (!input.body.IsComplete() || pipeline.Size() > 0) {
    input.body.AskLevel(pipeline);
    pipeline.Execute();
    if (input.body.HasFailed()) return DatabaseError("DatabaseOperationError: redisLRANGE failed.");
  }
  return std::nullopt;
}

std::optional<Answer> StoreTestEvent(redisContext* redis, const TestEventInput& input) {
  const Json& parameters = input.body.Document();
  TestEventDefaults defaults{.eventId = std::to_string(RandomNumber()), .timeStamp = TimeStamp()};
  if (!parameters.contains("EventGroupId")) defaults.eventGroupId = NextEventGroupId(redis);
  Json event = BuildTestEvent(parameters, defaults);
  const std::string id = "SubmitTestEvent-" + event["EventId"].get<std::string>();
  const std::string& key = input.key.Text();
  RedisPipeline pipeline(redis);
  const bool isBuilt = AppendEventObject(pipeline, key, id, "SubmitTestEvent", std::move(event));
  if (isBuilt && AllIntegers(pipeline.Execute())) return std::nullopt;
  // What has been written of it leads nowhere.
  AppendUnlink(pipeline, EventObjectKeys(key));
  pipeline.Execute();
  return DatabaseError("Failed to create event based on the request body!");
}

std::optional<Answer> TrySubmit(redisContext* redis, TestEventInput& input) {
  if (auto refusal = ReadInput(redis, input)) return refusal;
  const Json& parameters = input.body.Document();
  std::vector<Message> faults = JudgeTestEvent(parameters, input.body.Numbers());
  if (!faults.empty()) return Answer{kFailure, std::move(faults)};
  if (!input.originExists) return Refuse(kFailure, "Base.1.12.ResourceMissingAtURI", {OriginToFind(parameters)});
  if (!input.key.Claim(redis)) {
    return Refuse(kException, kOperationFailedMessage, {}, "OperationFailed: No key is free for the test event.");
  }
  if (auto refusal = StoreTestEvent(redis, input)) return refusal;
  return NotifyTestEvent(redis, input.key.Text());
}

}  // namespace

std::optional<Answer> NotifyTestEvent(redisContext* redis, std::string_view eventHashId) {
  std::vector<std::string> messages;
  if (EnqueueEvent(redis, eventHashId, messages)) return std::nullopt;
  // A refusal without arguments counts as a failed operation, whatever message it names.
  if (messages.size() < 2) {
    return Refuse(kException, kOperationFailedMessage, {}, "OperationFailed: Failed to notify event occurs.");
  }
  const std::string messageId = std::move(messages.front());
  messages.erase(messages.begin());
  if (messageId == "Base.1.12.ActionParameterMissing") {
    messages.emplace(messages.begin(), kSubmitTestEventAction);
  } else if (messageId == "Base.1.12.ActionParameterValueTypeError" ||
             messageId == "Base.1.12.ActionParameterValueFormatError") {
    messages.emplace_back(kSubmitTestEventAction);
  }
  return Refuse(kFailure, messageId, std::move(messages));
}

Answer SubmitTestEvent(const Request& request) {
  TestEventInput input{.body = RequestBody(request.record.requestData)};
  if (auto refusal = TrySubmit(request.redis, input)) return *std::move(refusal);
  const std::string& responseKey = request.announcement.responseKey;
  if (responseKey != kFromEventing && !HashWrite(request.redis, responseKey, kReturnStatus, kOkRes)) {
    LogError("Failed to set data.");
  }
  return StatusIsWritten();
}

}  // namespace event_service
