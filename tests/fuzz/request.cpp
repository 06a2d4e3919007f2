// A request: the announcement in the first line, then the replies that give its record and its body.
#include "requests/request.h"

#include "requests/body_cleaning.h"
#include "requests/event_service/service_properties.h"
#include "requests/event_service/test_event.h"
#include "requests/request_body.h"
#include "subscriptions/judgement/creation_check.h"
#include "subscriptions/judgement/patch_check.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/canned_replies.h"

namespace event_service::fuzz {
namespace {

/// Names of members may be any bytes here, as in Redis; a judge must bear what they are.
void Judge(const Json& body, const NumberTexts& numbers) {
  static const ServiceSettings settings;
  CheckCreation(body, {.settings = settings, .numbers = numbers});
  JudgePatch(body, body, settings, numbers);
  JudgeServicePatch(body, numbers, true);
  JudgeTestEvent(body, numbers);
}

}  // namespace

void Fuzz(std::string_view input) {
  const std::string_view text = TakeLine(input);
  const std::optional<Announcement> announcement = ParseAnnouncement(text);
  if (!announcement || !CouldBeReplies(input)) return;
  Require(announcement->requestKey + ' ' + announcement->responseKey == text, "an announcement is its two keys");
  Require(announcement->requestKey.find(' ') == std::string::npos, "a request key has no blank");
  CannedConnection connection(input);
  const RequestRecord record = ReadRequestRecord(connection.redis(), announcement->requestKey);
  RequestBody body(record.requestData);
  RedisPipeline pipeline(connection.redis());
  if (!body.TakeRoot(record.usualBody.get()) || !body.ReadRest(pipeline)) return;
  for (const auto& member : body.Document().items()) Require(!IsPassedOver(member.key()), "a body is cleaned");
  Require(NestsWithin(body.Document()), "a body nests no deeper than the limit");
  Judge(body.Document(), body.Numbers());
}

}  // namespace event_service::fuzz
