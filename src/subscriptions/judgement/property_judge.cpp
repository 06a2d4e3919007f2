#include "subscriptions/judgement/property_judge.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "requests/body_cleaning.h"
#include "requests/fault_messages.h"
#include "requests/value_checks.h"
#include "subscriptions/judgement/array_patch.h"
#include "subscriptions/judgement/header_validation.h"
#include "subscriptions/judgement/uri_forms.h"

namespace event_service {

void PropertyJudge::JudgeProperties(const Json::const_iterator& first, const Json::const_iterator& last) {
  JudgeMembers(first, last, EventDestinationProperties(), "");
}

void PropertyJudge::JudgeMembers(const Json::const_iterator& first, const Json::const_iterator& last,
                                 std::span<const PropertyRule> rules, const std::string& parentPath) {
  for (auto member = first; member != last; ++member) {
    if (IsPassedOver(member.key())) continue;
    const std::string path = MemberPath(parentPath, member.key());
    const PropertyRule* rule = FindRule(rules, member.key());
    if (rule == nullptr) {
      Report(Fault{FaultKind::kUnknown}, nullptr, path);
    } else if (!IsWritable(*rule, circumstances_.isCreation)) {
      Report(Fault{FaultKind::kNotWritable}, nullptr, path);
    } else if (!(rule->hangsOnProtocol && circumstances_.protocolRefused)) {
      JudgeValue(*rule, *member, path);
    }
  }
}

void PropertyJudge::JudgeValue(const PropertyRule& rule, const Json& value, const std::string& path) {
  if (rule.kind == PropertyKind::kHeaders) return JudgeHeaderArray(value);
  if (value.is_null() && TakesNull(rule)) return;
  if (const std::optional<Fault> fault = CheckValue(rule, value)) {
    if (rule.isSecret) return Refuse(Fault{FaultKind::kValue}, value, path);
    const bool mayHoldPassword = rule.isAddress && value.is_string();
    return Refuse(*fault, mayHoldPassword ? Json(WithoutPassword(value.get_ref<const std::string&>())) : value, path);
  }
  if (rule.kind == PropertyKind::kObject) JudgeMembers(value.begin(), value.end(), rule.members, path);
  if (rule.kind == PropertyKind::kArray) JudgeElements(rule, value, path);
  if (rule.kind == PropertyKind::kReference) JudgeReference(value, path);
}

/// The value itself, not what it contains.
std::optional<Fault> PropertyJudge::CheckValue(const PropertyRule& rule, const Json& value) const {
  if (const std::optional<Fault> fault = CheckOverfull(value)) return fault;
  switch (rule.kind) {
    case PropertyKind::kText:
      return CheckTextValue(rule, value);
    case PropertyKind::kBoolean:
      return CheckBoolean(value);
    case PropertyKind::kInteger:
      return CheckInteger(value, rule.smallest, rule.largest);
    case PropertyKind::kArray:
    case PropertyKind::kHeaders:
      return CheckArray(value);
    case PropertyKind::kObject:
      if (!value.is_object()) return Fault{FaultKind::kType};
      break;
    case PropertyKind::kReference:
      if (!IsReference(value)) return Fault{FaultKind::kType};
      break;
  }
  return std::nullopt;
}

std::optional<Fault> PropertyJudge::CheckTextValue(const PropertyRule& rule, const Json& value) const {
  if (value.is_null() && rule.null == Null::kUnlessListed) return Fault{FaultKind::kNotInList};
  const bool isElement = rule.name.empty();
  const auto fault = isElement ? CheckStringElement(value, rule.maxBytes) : CheckText(value, rule.maxBytes);
  if (fault) return fault;
  const std::string_view text = value.get_ref<const std::string&>();
  if (!rule.values.empty() && std::ranges::find(rule.values, text) == rule.values.end()) {
    return Fault{FaultKind::kNotInList};
  }
  const std::span<const std::string> listed = ListedValues(rule, circumstances_.settings);
  if (!listed.empty() && std::ranges::find(listed, text, WithoutQuotes) == listed.end()) {
    return Fault{FaultKind::kNotInList};
  }
  return rule.checkText == nullptr ? std::nullopt : rule.checkText(text, circumstances_);
}

bool PropertyJudge::TakesNull(const PropertyRule& rule) const {
  switch (rule.null) {
    case Null::kRefused:
      return false;
    case Null::kAccepted:
      return true;
    case Null::kOnPatch:
      return !circumstances_.isCreation;
    case Null::kUnlessListed:
      return ListedValues(rule, circumstances_.settings).empty();
  }
  return false;
}

void PropertyJudge::JudgeElements(const PropertyRule& rule, const Json& array, const std::string& path) {
  // In an array that is patched, null and {} are no values: they say what becomes of the stored element.
  const bool isPatched = !circumstances_.isCreation && path == rule.name;
  for (size_t i = 0; i < array.size(); ++i) {
    if (isPatched && (array[i].is_null() || LeavesElement(array[i]))) continue;
    JudgeValue(*rule.element, array[i], ElementPath(path, i));
  }
}

void PropertyJudge::JudgeReference(const Json& value, const std::string& path) {
  const Json& uri = value["@odata.id"];
  std::optional<Fault> fault = CheckText(uri);
  if (!fault && !IsResourceReference(uri.get_ref<const std::string&>())) fault = Fault{FaultKind::kFormat};
  if (fault) Refuse(*fault, uri, path);
}

void PropertyJudge::JudgeHeaderArray(const Json& value) {
  HeaderFindings findings =
      JudgeHeaders(value, circumstances_.stored, circumstances_.settings.paths.headerValidatorModule);
  hasUnacceptableValue_ |= !findings.faults.empty();
  moduleFailed_ |= findings.moduleFailed;
  findings.faults.resize(std::min(findings.faults.size(), kMostMessages - faults_.size()));
  std::ranges::move(findings.faults, std::back_inserter(faults_));
}

void PropertyJudge::Refuse(Fault fault, const Json& value, const std::string& path) {
  hasUnacceptableValue_ = true;
  Report(fault, value, path);
}

void PropertyJudge::Report(Fault fault, const Json& value, const std::string& path) {
  if (faults_.size() < kMostMessages) faults_.push_back(PropertyMessage(fault, value, path, circumstances_.numbers));
}

}  // namespace event_service
