#include "requests/event_service/test_event.h"

#include <algorithm>
#include <iterator>

#include "requests/event_service/time_stamp_form.h"
#include "requests/fault_messages.h"
#include "requests/value_checks.h"
#include "resource_store/json_text.h"
#include "service/static_tables.h"

namespace event_service {
namespace {

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

std::string TextParameter(const Json& parameters, std::string_view name, const std::string& fallback) {
  return parameters.contains(name) ? std::string(TextMember(parameters, name)) : fallback;
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

}  // namespace event_service
