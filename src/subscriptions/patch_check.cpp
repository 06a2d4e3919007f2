#include "subscriptions/patch_check.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "subscriptions/array_patch.h"
#include "subscriptions/property_validators.h"

namespace event_service {
namespace {

/// The body without what a PATCH cannot write, at every level that the table describes.
Json WritablePart(const Json& body, std::span<const PropertyRule> rules) {
  Json part = Json::object();
  for (const auto& [name, value] : body.items()) {
    const PropertyRule* rule = FindRule(rules, name);
    if (rule == nullptr || !IsWritable(*rule, false)) continue;
    if (value.is_object()) {
      if (Json members = WritablePart(value, rule->members); !members.empty()) part[name] = std::move(members);
      continue;
    }
    Json& kept = part[name] = value;
    if (!kept.is_array() || rule->element == nullptr) continue;
    for (Json& element : kept) {
      if (element.is_object()) element = WritablePart(element, rule->element->members);
    }
  }
  return part;
}

/// What stands under a name; null for what is missing, which a client cannot tell from null.
const Json& ValueOf(const Json& object, std::string_view name) {
  static const Json kNone;
  if (!object.is_object()) return kNone;
  const auto value = object.find(name);
  return value == object.end() ? kNone : *value;
}

bool GivesHeader(const Json& element) { return element.is_object() && !element.empty(); }

/// The array as it will be; null when it stays as it is.
Json ArrayChange(const PropertyRule& rule, const Json& stored, const Json& patch) {
  const Json before = stored.is_array() ? stored : Json::array();
  Json after = MergeArray(before, patch);
  const bool givesSecret = rule.isSecret && std::ranges::any_of(patch, GivesHeader);
  return after != before || givesSecret ? after : Json();
}

/// The part of `wanted`, which is writable and acceptable, that differs from what is stored.
Json ChangedPart(const Json& wanted, const Json& stored, std::span<const PropertyRule> rules) {
  Json changes = Json::object();
  for (const auto& [name, value] : wanted.items()) {
    const PropertyRule& rule = *FindRule(rules, name);
    const Json& former = ValueOf(stored, name);
    if (value.is_object()) {
      if (Json members = ChangedPart(value, former, rule.members); !members.empty()) changes[name] = std::move(members);
    } else if (value.is_array()) {
      if (Json array = ArrayChange(rule, former, value); !array.is_null()) changes[name] = std::move(array);
    } else if (rule.isSecret || value != former) {
      changes[name] = value;
    }
  }
  return changes;
}

}  // namespace

PatchJudgement JudgePatch(const Json& body, const Json& stored, const ServiceSettings& settings,
                          const NumberTexts& numbers) {
  const BodyCircumstances circumstances{.settings = settings, .numbers = numbers, .isCreation = false};
  PropertyJudge judge(circumstances);
  judge.JudgeProperties(body.begin(), body.end());

  PatchJudgement judgement;
  if (judge.ModuleFailed()) {
    judgement.answer = Refuse(kException, "Base.1.12.OperationFailed");
    return judgement;
  }
  const Json wanted = WritablePart(body, EventDestinationProperties());
  const bool nothingUpdatable = wanted.empty() && !judge.Faults().empty();
  if (judge.HasUnacceptableValue() || nothingUpdatable) {
    judgement.answer = Answer{.status = kFailure, .messages = judge.Faults(), .logText = {}, .body = {}};
    return judgement;
  }
  judgement.changes = ChangedPart(wanted, stored, EventDestinationProperties());
  judgement.notUpdatable = judge.Faults();
  if (!judgement.changes.empty()) return judgement;
  judgement.answer = judgement.notUpdatable.empty()
                         ? NoOperationAnswer()
                         : Answer{.status = kOkRes, .messages = judgement.notUpdatable, .logText = {}, .body = {}};
  return judgement;
}

}  // namespace event_service
