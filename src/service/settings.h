/// What startup finds out and the listeners only read, and the little that the Subscriptions side goes on changing.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/file_paths.h"
#include "service/listener_recovery.h"
#include "subscription_db/subscription_db.h"

namespace event_service {

/// Property name -> the values accepted for it, each as JSON text (strings in their quotes), in the order in which they
/// are shown.
using AllowedValuesTable = std::map<std::string, std::vector<std::string>, std::less<>>;

/// The part of the table that is fixed; discovery adds "MessageIds", "ResourceTypes" and "RegistryPrefixes".
AllowedValuesTable StaticAllowedValues();

/// Registry prefix, without quotes (lists hold it in quotes, message ids do not) -> its bit in the mask. The 32nd and
/// later prefixes share the largest value.
using RegistryPrefixBits = std::map<std::string, int32_t, std::less<>>;

/// `text` without the double quotes around it, if there are any: the bare word of a JSON string that needs no escapes.
std::string_view WithoutQuotes(std::string_view text);

/// Filled by startup before the listeners start; read-only while they run.
struct ServiceSettings {
  bool offersRegistryPrefixes = true;
  bool protocolOnly = false;  // only Redfish subscriptions are served, SMTP is not initialised
  ListenerRecovery listenerRecovery = ListenerRecovery::kNone;
  std::string sslSoftwareArg = "''";
  std::string sslOptionArg;
  int32_t maxSubscriptionCount = 100;
  std::string defaultRetryPolicy = "TerminateAfterRetries";
  bool subordinateResourcesSupported = false;
  bool includeOriginOfConditionSupported = false;
  std::vector<std::string> syslogCertificateNames;
  AllowedValuesTable allowedValues = StaticAllowedValues();
  FilePaths paths = ProcessPaths();
};

/// Reads what the configuration file sets; a value that is absent or none of those allowed leaves its default.
void ReadConfiguration(ServiceSettings& settings);

/// Whether clients may filter by registry prefix: the list of allowed prefixes holds one at least.
bool SupportsRegistryPrefixes(const ServiceSettings& settings);

/// Filled by startup; afterwards changed by the Subscriptions listener only.
struct SubscriptionsState {
  uint32_t subscriptionCount = 0;
  RegistryPrefixBits registryPrefixBits;
  std::vector<std::string> syslogTlsDestinationIds;  // no further one is created while there are 3
  /// Members whose last change failed half-way: Redis may hold what the file lacks.
  std::set<std::string, std::less<>> halfChangedUris;
  /// Members of which a change or deletion that failed half-way may have left what their markers do not name any more.
  std::set<std::string, std::less<>> scatteredUris;
  SubscriptionDb db;
};

/// The process's settings and state: main hands their addresses over once, before any thread starts. The threads'
/// entry functions, which have no argument, take them from here; everything below is given them.
void SetProcessState(const ServiceSettings* settings, SubscriptionsState* subscriptions);
const ServiceSettings& ProcessSettings();
SubscriptionsState& ProcessSubscriptions();

}  // namespace event_service
