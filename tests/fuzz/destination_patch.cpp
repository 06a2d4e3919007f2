// PATCH of a subscription: the body in the first line, the stored resource in the second.
#include <algorithm>

#include "requests/body_cleaning.h"
#include "resource_store/json_text.h"
#include "service/static_tables.h"
#include "subscriptions/judgement/patch_check.h"
#include "tests/fuzz/messages.h"

namespace event_service::fuzz {
namespace {

/// Whether applying the body twice is no other than once: no secret, which always counts as a change, and no element
/// that says what becomes of the stored one.
bool CanRepeat(const Json& body) {
  return std::ranges::all_of(body.items(), [](const auto& item) {
    const Json& value = item.value();
    if (item.key() == "HttpHeaders") return false;
    if (value.is_object()) {
      return std::ranges::none_of(kSensitiveSnmpKeys, [&value](std::string_view name) { return value.contains(name); });
    }
    return !value.is_array() || std::ranges::none_of(value, [](const Json& element) {
      return element.is_null() || (element.is_object() && element.empty());
    });
  });
}

}  // namespace

void Fuzz(std::string_view input) {
  Json body = ParseOutsideText(TakeLine(input));
  const Json stored = ParseOutsideText(TakeLine(input));
  if (!body.is_object() || !stored.is_object() || !NestsWithin(body, kMaxNesting) || HoldsMark(body)) return;
  RemovePassedOver(body);
  static const ServiceSettings settings = [] {
    ServiceSettings made;
    made.paths.headerValidatorModule = "/nonexistent/module";
    return made;
  }();
  const PatchJudgement marked = JudgePatch(WithMarkedSecrets(body), stored, settings);
  if (marked.answer) CheckMessages(marked.answer->messages);
  CheckMessages(marked.notUpdatable);

  const PatchJudgement judgement = JudgePatch(body, stored, settings);
  Require(judgement.answer.has_value() == judgement.changes.empty(), "there is an answer or something to write");
  for (const auto& change : judgement.changes.items()) {
    Require(body.contains(change.key()), "nothing changes that the body does not name");
  }
  if (judgement.answer || !CanRepeat(body)) return;
  Json changed = stored;
  changed.update(judgement.changes, true);
  const PatchJudgement again = JudgePatch(body, changed, settings);
  Require(again.changes.empty(), "the same body changes nothing more");
}

}  // namespace event_service::fuzz
