#include "requests/event_service/submit_test_event.h"

#include <algorithm>
#include <string_view>

#include "foundation/logging.h"
#include "foundation/random.h"
#include "foundation/time_stamp.h"
#include "requests/event_service/time_stamp_form.h"
#include "requests/event_submission.h"
#include "requests/property_faults.h"
#include "requests/request_body.h"
#include "resource_store/resource_editor.h"
#include "service/event_group_id.h"
#include "service/static_tables.h"

namespace event_service {
namespace {

constexpr std::string_view kEventObjectPrefix = "&&/redfish/v1/EventService/Actions/";
constexpr int kMaxKeyDraws = 10;

// ---- Judging --------------------------------------------------------------------------------------------------------

constexpr std::string_view kSeverities[] = {"OK", "Warning", "Critical"};

/// A reference is stored as one word of a marker.
bool IsOneWord(std::string_view text) {
  return !text.empty() && std::ranges::none_of(text, [](unsigned char c) { return c <= ' ' || c == 0x7F; });
}

std::optional<Fault> CheckForm(const Json& value, bool (*isGood)(std::string_view)) {
  const std::optional<Fault> fault = CheckText(value);
  if (fault || isGood(value.get_ref<const std::string&>())) return fault;
  return Fault{FaultKind::kFormat};
}

struct Parameter {
  std::string_view name;
  std::optional<Fault> (*check)(const Json& value);
};

constexpr Parameter kParameters[] = {
    {"EventGroupId", [](const Json& value) { return CheckInteger(value); }},
    {"EventId", [](const Json& value) { return CheckText(value); }},
    {"EventTimestamp", [](const Json& value) { return CheckForm(value, IsTimeStamp); }},
    {"EventType", [](const Json& value) { return CheckInWords(value, kEventTypes); }},
    {"Message", [](const Json& value) { return CheckText(value); }},
    {"MessageArgs", [](const Json& value) { return CheckArray(value); }},
    {"MessageId", [](const Json& value) { return CheckText(value); }},
    {"MessageSeverity", [](const Json& value) { return CheckInWords(value, kSeverities); }},
    {"OriginOfCondition", [](const Json& value) { return CheckForm(value, IsOneWord); }},
    {"Severity", [](const Json& value) { return CheckText(value); }},
};

std::optional<Fault> CheckParameter(std::string_view name, const Json& value) {
  const auto parameter = std::ranges::find(kParameters, name, &Parameter::name);
  if (parameter == std::end(kParameters)) return Fault{FaultKind::kUnknown};
  const std::optional<Fault> overfull = CheckOverfull(value);
  return overfull ? overfull : parameter->check(value);
}

// ---- Acting ---------------------------------------------------------------------------------------------------------

/// What is asked of Redis before anything is decided.
struct TestEventInput {
  RequestBody body;
  std::string key = NewKey();  // of the event object
  bool keyIsFree = false;
  bool originExists = true;

  static std::string NewKey() { return std::string(kEventObjectPrefix) + std::to_string(RandomNumber()); }
};

std::string TextParameter(const Json& parameters, std::string_view name, const std::string& fallback) {
  const auto value = parameters.find(name);
  return value != parameters.end() && value->is_string() ? value->get<std::string>() : fallback;
}

/// The resource that must exist for the event to be accepted; empty: none.
std::string OriginToFind(const Json& parameters) {
  constexpr std::string_view kRoot = "/redfish/v1/";
  std::string origin = TextParameter(parameters, "OriginOfCondition", "");
  return origin.starts_with(kRoot) ? origin : std::string();
}

bool IsOne(const RedisReply& reply) { return IsInteger(reply) && reply->integer == 1; }
bool IsZero(const RedisReply& reply) { return IsInteger(reply) && reply->integer == 0; }

/// Reads the body; what else has to be known travels with the level of its lists.
std::optional<Answer> ReadInput(redisContext* redis, TestEventInput& input) {
  RedisPipeline first(redis);
  input.body.AppendLevel(first);
  const size_t keyAt = first.Append({"EXISTS", input.key});
  const std::vector<RedisReply> firstReplies = first.Execute();
  if (!input.body.TakeLevel(firstReplies)) return DatabaseError("DatabaseOperationError: Gets request data failed.");
  input.keyIsFree = IsZero(firstReplies[keyAt]);

  std::string origin = OriginToFind(input.body.Document());
  while (!input.body.IsComplete() || !origin.empty()) {
    RedisPipeline level(redis);
    input.body.AppendLevel(level);
    const size_t originAt = origin.empty() ? 0 : level.Append({"EXISTS", origin});
    const std::vector<RedisReply> replies = level.Execute();
    if (!input.body.TakeLevel(replies)) return DatabaseError("DatabaseOperationError: redisLRANGE failed.");
    if (!origin.empty()) input.originExists = IsOne(replies[originAt]);
    origin.clear();
  }
  return std::nullopt;
}

std::optional<Answer> ClaimKey(redisContext* redis, TestEventInput& input) {
  for (int draw = 1; !input.keyIsFree; ++draw) {
    if (draw == kMaxKeyDraws) {
      return Refuse(kException, kOperationFailedMessage, {}, "OperationFailed: No key is free for the test event.");
    }
    input.key = TestEventInput::NewKey();
    input.keyIsFree = IsZero(SendArguments(redis, {"EXISTS", input.key}));
  }
  return std::nullopt;
}

std::optional<Answer> StoreTestEvent(redisContext* redis, const TestEventInput& input) {
  const Json& parameters = input.body.Document();
  TestEventDefaults defaults;
  defaults.eventId = std::to_string(RandomNumber());
  defaults.timeStamp = TimeStamp();
  if (!parameters.contains("EventGroupId")) defaults.eventGroupId = NextEventGroupId(redis);
  Json event = BuildTestEvent(parameters, defaults);
  const std::string id = "SubmitTestEvent-" + event["EventId"].get<std::string>();
  RedisPipeline pipeline(redis);
  const bool appended = AppendEventObject(pipeline, input.key, id, "SubmitTestEvent", std::move(event));
  if (appended && AllIntegers(pipeline.Execute())) return std::nullopt;
  // What has been written of it leads nowhere.
  const std::string keys[] = {input.key, input.key + "/Events", input.key + "/Events/0",
                              input.key + "/Events/0/MessageArgs"};
  AppendUnlink(pipeline, keys);
  pipeline.Execute();
  return DatabaseError("Failed to create event based on the request body!");
}

std::optional<Answer> TrySubmit(redisContext* redis, TestEventInput& input) {
  if (auto refusal = ReadInput(redis, input)) return refusal;
  const Json& parameters = input.body.Document();
  std::vector<Message> faults = JudgeTestEvent(parameters, input.body.Numbers());
  if (!faults.empty()) return Answer{kFailure, std::move(faults), {}, {}};
  if (!input.originExists) return Refuse(kFailure, "Base.1.12.ResourceMissingAtURI", {OriginToFind(parameters)});
  if (auto refusal = ClaimKey(redis, input)) return refusal;
  if (auto refusal = StoreTestEvent(redis, input)) return refusal;
  return NotifyTestEvent(redis, input.key);
}

}  // namespace

std::vector<Message> JudgeTestEvent(const Json& parameters, const NumberTexts& numbers) {
  std::vector<Message> faults;
  const auto report = [&](const std::optional<Fault>& fault, const Json& value, const std::string& path) {
    if (fault) faults.push_back(ParameterMessage(*fault, value, path, kSubmitTestEventAction, numbers));
    return fault.has_value();
  };
  for (const auto& [name, value] : parameters.items()) {
    if (report(CheckParameter(name, value), value, MemberPath({}, name)) || name != "MessageArgs") continue;
    for (size_t i = 0; i < value.size(); ++i) report(CheckStringElement(value[i]), value[i], ElementPath(name, i));
  }
  return faults;
}

Json BuildTestEvent(const Json& parameters, const TestEventDefaults& defaults) {
  Json event = {
      {"EventGroupId", defaults.eventGroupId}, {"EventId", defaults.eventId},
      {"EventTimestamp", defaults.timeStamp},  {"EventType", "Other"},
      {"MessageArgs", Json::array()},
  };
  for (const auto& [name, value] : parameters.items()) event[name] = value;
  event["EventGroupId"] = WholeNumber(event["EventGroupId"]).value_or(defaults.eventGroupId);
  // The severity has two names: older clients give the first, which takes any text, newer ones the second.
  const std::string severity =
      TextParameter(parameters, "Severity", TextParameter(parameters, "MessageSeverity", "OK"));
  const bool isOfList = !CheckInWords(severity, kSeverities);
  event["Severity"] = severity;
  event["MessageSeverity"] = TextParameter(parameters, "MessageSeverity", isOfList ? severity : "OK");
  if (const auto origin = event.find("OriginOfCondition"); origin != event.end()) {
    *origin = {{"@odata.id", origin->get<std::string>()}};
  }
  return event;
}

Answer SubmitTestEvent(const Request& request) {
  TestEventInput input{.body = RequestBody(request.record.requestData)};
  if (auto refusal = TrySubmit(request.redis, input)) return *std::move(refusal);
  const std::string& responseKey = request.announcement.responseKey;
  if (responseKey != kFromEventing && !HashWrite(request.redis, responseKey, kReturnStatus, kOkRes)) {
    LogError("Failed to set data.");
  }
  return NoAnswer();
}

}  // namespace event_service
