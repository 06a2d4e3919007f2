#include "subscriptions/judgement/creation_check.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "resource_store/json_text.h"
#include "subscriptions/judgement/creation_rules.h"
#include "subscriptions/judgement/property_judge.h"

namespace event_service {
namespace {

constexpr std::string_view kNotImplemented = "ExtendedError.1.2.NotImplemented";
constexpr size_t kMostSyslogTlsDestinations = 3;

/// Whatever the values: a client that names a feature counts on it.
std::optional<Answer> CheckOptionalFeatures(const Json& body, const ServiceSettings& settings) {
  std::vector<std::string> lacking;
  if (!settings.subordinateResourcesSupported && body.contains("SubordinateResources")) {
    lacking.emplace_back("SubordinateResources");
  }
  if (!settings.includeOriginOfConditionSupported && body.contains("IncludeOriginOfCondition")) {
    lacking.emplace_back("IncludeOriginOfCondition");
  }
  if (lacking.empty()) return std::nullopt;
  return Refuse(kNotSupported, kNotImplemented, std::move(lacking));
}

std::optional<Answer> CheckSyslogTlsLimit(const Json& body, size_t existing) {
  if (existing < kMostSyslogTlsDestinations || TextMember(body, "Protocol") != "SyslogTLS") return std::nullopt;
  return Refuse(kFailure, "Base.1.12.CreateLimitReachedForResource", {},
                "Cannot create the new event destination for syslog because the maximum number of remote server "
                "destination entries has been reached.");
}

BodyCircumstances CircumstancesOf(const Json& body, const CreationCircumstances& creation) {
  BodyCircumstances circumstances{
      .settings = creation.settings, .numbers = creation.numbers, .isCreation = true, .isSse = creation.isSse};
  const auto protocol = body.find("Protocol");
  if (protocol == body.end()) return circumstances;
  PropertyJudge judge(circumstances);
  judge.JudgeProperties(protocol, std::next(protocol));
  circumstances.protocolRefused = judge.HasUnacceptableValue();
  if (!circumstances.protocolRefused) circumstances.protocol = protocol->get_ref<const std::string&>();
  return circumstances;
}

/// What the judge found, as an answer.
std::optional<Answer> AnswerOf(const PropertyJudge& judge) {
  if (judge.ModuleFailed()) return Refuse(kException, kOperationFailedMessage);
  if (judge.Faults().empty()) return std::nullopt;
  return Answer{kFailure, judge.Faults()};
}

std::optional<Answer> CheckProperties(const Json& body, const CreationCircumstances& creation) {
  const BodyCircumstances circumstances = CircumstancesOf(body, creation);
  PropertyJudge judge(circumstances);
  // A filter by prefix that nobody can serve answers alone, unless something before it is at fault already.
  const auto prefixes = body.find("RegistryPrefixes");
  judge.JudgeProperties(body.begin(), prefixes);
  if (prefixes != body.end()) {
    const bool isUnserved = prefixes->is_structured() && !SupportsRegistryPrefixes(creation.settings);
    if (isUnserved && !AnswerOf(judge)) return Refuse(kNotSupported, kNotImplemented, {"RegistryPrefixes"});
    judge.JudgeProperties(prefixes, body.end());
  }
  return AnswerOf(judge);
}

std::optional<Answer> CheckDestinationGiven(const Json& body, bool isSse) {
  if (isSse || body.contains("Destination")) return std::nullopt;
  Answer refusal = Refuse(kFailure, "Base.1.12.CreateFailedMissingReqProperties", {"Destination"});
  refusal.messages.front().relatedProperties = {"Destination"};
  return refusal;
}

}  // namespace

std::optional<Answer> CheckCreation(const Json& body, const CreationCircumstances& circumstances) {
  if (auto refusal = CheckOptionalFeatures(body, circumstances.settings)) return refusal;
  if (auto refusal = CheckSyslogTlsLimit(body, circumstances.syslogTlsDestinations)) return refusal;
  if (auto refusal = CheckProperties(body, circumstances)) return refusal;
  if (auto refusal = CheckCreationRules(body)) return refusal;
  return CheckDestinationGiven(body, circumstances.isSse);
}

}  // namespace event_service
