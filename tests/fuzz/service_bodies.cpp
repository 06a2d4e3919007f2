// The EventService's bodies: PATCH, and the parameters of a test event. The same texts as the file of what a PATCH
// keeps.
#include "requests/body_cleaning.h"
#include "requests/event_object.h"
#include "requests/event_service/persistent_properties.h"
#include "requests/event_service/service_properties.h"
#include "requests/event_service/test_event.h"
#include "resource_store/json_text.h"
#include "tests/fuzz/messages.h"

namespace event_service::fuzz {
namespace {

void CheckPatch(const Json& body, bool smtpIsServed) {
  CheckMessages(JudgeServicePatch(WithMarkedSecrets(body), {}, smtpIsServed).messages);
  ServicePatchJudgement judgement = JudgeServicePatch(body, {}, smtpIsServed);
  Require(!judgement.isUnacceptable || !judgement.messages.empty(), "a refusal says why");
  judgement.accepted.erase(std::string(kSmtpPassword));  // kept in another form
  const PersistentProperties kept = ParsePersistentProperties(FormatPersistentProperties(judgement.accepted));
  Require(kept.unusableLines.empty() && kept.values == judgement.accepted, "what is accepted can be kept in the file");
}

void CheckTestEvent(const Json& parameters) {
  if (!JudgeTestEvent(parameters, {}).empty()) return;
  Json event = BuildTestEvent(parameters, {.eventId = "2", .timeStamp = "2024-05-01T13:45:10Z", .eventGroupId = 1});
  Require(event["EventId"].is_string() && event["EventGroupId"].is_number_integer(), "an event has its identifiers");
  RedisPipeline neverSent(nullptr);
  Require(AppendEventObject(neverSent, "&&/event", "id", "name", std::move(event)), "an event can be stored");
}

}  // namespace

void Fuzz(std::string_view input) {
  const ServiceValues read = ParsePersistentProperties(input).values;
  const PersistentProperties again = ParsePersistentProperties(FormatPersistentProperties(read));
  Require(again.unusableLines.empty() && again.values == read, "what was read from the file is written and read again");
  Json body = ParseOutsideText(input);
  if (!body.is_object() || HoldsMark(body)) return;
  RemovePassedOver(body);
  CheckPatch(body, true);
  CheckPatch(body, false);
  CheckTestEvent(body);
}

}  // namespace event_service::fuzz
