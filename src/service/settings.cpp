#include "service/settings.h"

#include <span>

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

}  // namespace

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
