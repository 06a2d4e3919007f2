#include "subscriptions/judgement/creation_rules.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "resource_store/json_text.h"
#include "service/static_tables.h"

namespace event_service {
namespace {

using Arguments = std::vector<std::string>;

/// null works as if the property had been left out.
bool IsGiven(const Json& body, std::string_view name) {
  const auto value = body.find(name);
  return value != body.end() && !value->is_null();
}

std::string_view FirstGiven(const Json& body, std::span<const std::string_view> names) {
  for (const std::string_view name : names) {
    if (IsGiven(body, name)) return name;
  }
  return {};
}

std::optional<Arguments> EventAndMetricFilters(const Json& body) {
  const std::string_view eventFilter = FirstGiven(body, kEventFilterProperties);
  const std::string_view metricFilter = FirstGiven(body, kMetricFilterProperties);
  if (eventFilter.empty() || metricFilter.empty()) return std::nullopt;
  return Arguments{std::string(eventFilter), std::string(metricFilter)};
}

std::optional<Arguments> FilterOfTheOtherFormat(const Json& body) {
  const std::string_view format = TextMember(body, "EventFormatType");
  std::string_view filter;
  if (format == "Event") filter = FirstGiven(body, kMetricFilterProperties);
  if (format == "MetricReport") filter = FirstGiven(body, kEventFilterProperties);
  if (filter.empty()) return std::nullopt;
  return Arguments{std::string(filter), "EventFormatType"};
}

std::optional<Arguments> MessageIdsBesidePrefixes(const Json& body) {
  if (!IsGiven(body, "MessageIds") || !IsGiven(body, "RegistryPrefixes")) return std::nullopt;
  return Arguments{"RegistryPrefixes", "MessageIds"};
}

std::optional<Arguments> NoProtocol(const Json& body) {
  if (IsGiven(body, "Protocol")) return std::nullopt;
  return Arguments{};
}

std::optional<Arguments> SnmpWithoutSubscriptionType(const Json& body) {
  if (!TextMember(body, "Protocol").starts_with("SNMP") || IsGiven(body, "SubscriptionType")) return std::nullopt;
  return Arguments{"SubscriptionType", "Protocol"};
}

std::optional<Arguments> SnmpWithoutCommunity(const Json& body) {
  const std::string_view protocol = TextMember(body, "Protocol");
  if (protocol != "SNMPv1" && protocol != "SNMPv2c") return std::nullopt;
  const auto snmp = body.find("SNMP");
  if (snmp != body.end() && !TextMember(*snmp, "TrapCommunity").empty()) return std::nullopt;
  return Arguments{"Protocol", "SNMP/TrapCommunity"};
}

struct CreationRule {
  std::string_view logText;
  std::optional<Arguments> (*brokenBy)(const Json& body);  // the message arguments
  std::string_view status = kFailure;
  std::string_view messageId = "ExtendedError.1.2.UnprocessableEntity";
};

// Checked in this order; the first broken rule answers.
constexpr CreationRule kCreationRules[] = {
    {"Filter parameter for events and metric reports should not be supplied at the same request.",
     EventAndMetricFilters},
    {"Filter parameter and event format type is conflict.", FilterOfTheOtherFormat},
    {"MessageIds and RegistryPrefix should not be supplied at the same request.", MessageIdsBesidePrefixes},
    {"Failed to get the protocol value from the request.", NoProtocol, kException,
     "ExtendedError.1.2.DatabaseOperationError"},
    {"SubscriptionType is required for SNMP.", SnmpWithoutSubscriptionType},
    {"SNMP/TrapCommunity is required for SNMPv1 or SNMPv2c.", SnmpWithoutCommunity},
};

}  // namespace

std::optional<Answer> CheckCreationRules(const Json& body) {
  for (const CreationRule& rule : kCreationRules) {
    if (auto args = rule.brokenBy(body)) {
      return Refuse(rule.status, rule.messageId, std::move(*args), std::string(rule.logText));
    }
  }
  return std::nullopt;
}

}  // namespace event_service
