#include "subscriptions/judgement/patch_check.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "subscriptions/judgement/array_patch.h"
#include "subscriptions/judgement/property_judge.h"

namespace event_service {
namespace {

Json WritablePart(const Json& body, std::span<const PropertyRule> rules);

/// An array without what a PATCH cannot write. Nothing when no element that gives a value is left with one: it would
/// say no more than how long the array is to be.
std::optional<Json> WritableArray(const Json& array, const PropertyRule& rule) {
  bool givesValue = false;
  bool keepsValue = false;
  Json writable = array;
  for (Json& element : writable) {
    if (element.is_null() || LeavesElement(element)) continue;
    givesValue = true;
    if (element.is_object()) element = WritablePart(element, rule.members);
    keepsValue |= !LeavesElement(element);
  }
  if (givesValue && !keepsValue) return std::nullopt;
  return writable;
}

/// The body without what a PATCH cannot write, at every level that the table describes.
Json WritablePart(const Json& body, std::span<const PropertyRule> rules) {
  Json part = Json::object();
  for (const auto& [name, value] : body.items()) {
    const PropertyRule* rule = FindRule(rules, name);
    if (rule == nullptr || !IsWritable(*rule, false)) continue;
    if (value.is_object()) {
      if (Json members = WritablePart(value, rule->members); !members.empty()) part[name] = std::move(members);
    } else if (value.is_array() && rule->element != nullptr) {
      if (std::optional<Json> array = WritableArray(value, *rule->element)) part[name] = *std::move(array);
    } else {
      part[name] = value;
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
Json ArrayChange(const PropertyRule& rule, const Json& stored, const Json& patch, bool everythingCounts) {
  const Json before = stored.is_array() ? stored : Json::array();
  Json after = MergeArray(before, patch);
  const bool givesSecret = rule.isSecret && std::ranges::any_of(patch, GivesHeader);
  return everythingCounts || givesSecret || after != before ? after : Json();
}

/// The part of `wanted`, which is writable and acceptable, that counts as a change of what is stored.
Json ChangedPart(const Json& wanted, const Json& stored, std::span<const PropertyRule> rules, bool everythingCounts) {
  Json changes = Json::object();
  for (const auto& [name, value] : wanted.items()) {
    const PropertyRule& rule = *FindRule(rules, name);
    const Json& former = ValueOf(stored, name);
    if (value.is_object()) {
      if (Json members = ChangedPart(value, former, rule.members, everythingCounts); !members.empty()) {
        changes[name] = std::move(members);
      }
    } else if (value.is_array()) {
      if (Json array = ArrayChange(rule, former, value, everythingCounts); !array.is_null()) {
        changes[name] = std::move(array);
      }
    } else if (everythingCounts || rule.isSecret || value != former) {
      changes[name] = value;
    }
  }
  return changes;
}

}  // namespace

PatchJudgement JudgePatch(const Json& body, const Json& stored, const ServiceSettings& settings,
                          const NumberTexts& numbers, bool everythingCounts) {
  const BodyCircumstances circumstances{
      .settings = settings, .numbers = numbers, .isCreation = false, .stored = &stored};
  PropertyJudge judge(circumstances);
  judge.JudgeProperties(body.begin(), body.end());

  PatchJudgement judgement;
  if (judge.ModuleFailed()) {
    judgement.answer = Refuse(kException, kOperationFailedMessage);
    return judgement;
  }
  const Json wanted = WritablePart(body, EventDestinationProperties());
  const bool nothingUpdatable = wanted.empty() && !judge.Faults().empty();
  if (judge.HasUnacceptableValue() || nothingUpdatable) {
    judgement.answer = Answer{kFailure, judge.Faults()};
    return judgement;
  }
  judgement.changes = ChangedPart(wanted, stored, EventDestinationProperties(), everythingCounts);
  judgement.notUpdatable = judge.Faults();
  if (!judgement.changes.empty()) return judgement;
  judgement.answer = judgement.notUpdatable.empty() ? NoOperationAnswer() : Answer{kOkRes, judgement.notUpdatable};
  return judgement;
}

}  // namespace event_service
