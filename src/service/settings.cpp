#include "service/settings.h"

#include <algorithm>
#include <span>

#include "foundation/configuration.h"
#include "foundation/text_numbers.h"
#include "service/static_tables.h"

namespace event_service {
namespace {

// Set by main before any thread starts; constant afterwards.
const ServiceSettings* processSettings = nullptr;
SubscriptionsState* processSubscriptions = nullptr;

std::vector<std::string> JsonTexts(std::span<const std::string_view> names) {
  std::vector<std::string> texts;
  texts.reserve(names.size());
  for (const std::string_view name : names) texts.push_back('"' + std::string(name) + '"');
  return texts;
}

/// The policy named by `configured`, with or without quotes, when there is such a policy.
void TakeRetryPolicy(std::string_view configured, std::string& policy) {
  configured = WithoutQuotes(configured);
  if (std::ranges::find(kDeliveryRetryPolicies, configured) != std::end(kDeliveryRetryPolicies)) policy = configured;
}

/// A number from 1 to 200 without leading zeros.
void TakeSubscriptionLimit(std::string_view configured, int32_t& limit) {
  constexpr int32_t kLargestLimit = 200;
  if (configured.empty() || configured[0] < '1' || configured[0] > '9') return;
  int32_t number = 0;
  if (ParseInteger(configured, number) == std::errc{} && number <= kLargestLimit) limit = number;
}

}  // namespace

void ReadConfiguration(ServiceSettings& settings) {
  const auto value = [&](const SettingKey& key) { return ReadSetting(settings.paths.configuration, key); };
  settings.protocolOnly = value(SettingNamed("SupportRedfishProtocolOnly")) == "true";
  settings.offersRegistryPrefixes = value(SettingNamed("EnableFilterRegistryPrefixes")) != "false";
  settings.listenerRecovery = ListenerRecoveryFrom(value(SettingNamed("ListenerRecovery")));
  // Both come in single quotes, ready for a command line. An option that is not set is left out; a program that is not
  // set is an empty word.
  settings.sslSoftwareArg = "'" + value(SettingNamed("SSLSoftware")) + "'";
  const std::string option = value(SettingNamed("SSLOption"));
  settings.sslOptionArg = option.empty() ? "" : "'" + option + "'";
  TakeRetryPolicy(value(SettingNamed("DefaultRetryPolicy")), settings.defaultRetryPolicy);
  TakeSubscriptionLimit(value(SettingNamed("MaxCountOfEventSubscriptions")), settings.maxSubscriptionCount);
}

AllowedValuesTable StaticAllowedValues() {
  return {
      {"AuthenticationProtocol", JsonTexts(kAuthenticationProtocols)},
      {"DeliveryRetryPolicy", JsonTexts(kDeliveryRetryPolicies)},
      {"EncryptionProtocol", JsonTexts(kEncryptionProtocols)},
      {"EventFormatType", JsonTexts(kEventFormatTypes)},
      {"Protocol", JsonTexts(kProtocols)},
  };
}

std::string_view WithoutQuotes(std::string_view text) {
  const bool quoted = text.size() >= 2 && text.front() == '"' && text.back() == '"';
  return quoted ? text.substr(1, text.size() - 2) : text;
}

bool SupportsRegistryPrefixes(const ServiceSettings& settings) {
  const auto prefixes = settings.allowedValues.find("RegistryPrefixes");
  return prefixes != settings.allowedValues.end() && !prefixes->second.empty();
}

void SetProcessState(const ServiceSettings* settings, SubscriptionsState* subscriptions) {
  processSettings = settings;
  processSubscriptions = subscriptions;
}

const ServiceSettings& ProcessSettings() { return *processSettings; }

SubscriptionsState& ProcessSubscriptions() { return *processSubscriptions; }

}  // namespace event_service
