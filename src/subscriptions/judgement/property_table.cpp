#include "subscriptions/judgement/property_table.h"

#include <algorithm>

#include "foundation/characters.h"
#include "service/redis_keys.h"
#include "service/static_tables.h"
#include "subscriptions/judgement/snmp_keys.h"
#include "subscriptions/judgement/uri_forms.h"
#include "subscriptions/resource/origin_index.h"

namespace event_service {
namespace {

std::optional<Fault> FaultUnless(bool isFine, FaultKind kind) {
  if (isFine) return std::nullopt;
  return Fault{kind};
}

bool IsIdCharacter(char c) { return IsAlphanumeric(c) || c == '-' || c == '_' || c == '.'; }

// An Id becomes a segment of URIs and keys: those of the collection's own parts, the target that ends all streams. It
// becomes a field of the origin index, too: there it must not be the counter that an origin "/redfish/v1/MetricReport"
// would put it beside.
constexpr std::string_view kReservedIds[] = {"Actions", "CHANNEL", "Members", kEveryStream, kMetricReportField};

/// An empty one stands for one that the service generates.
std::optional<Fault> CheckId(std::string_view text, const BodyCircumstances& /*circumstances*/) {
  constexpr size_t kMaxIdCharacters = 64;
  if (text.empty()) return std::nullopt;
  const bool isFine = text.size() <= kMaxIdCharacters && std::ranges::all_of(text, IsIdCharacter) &&
                      text.front() != '-' && text.front() != '.' &&
                      std::ranges::find(kReservedIds, text) == std::end(kReservedIds);
  return FaultUnless(isFine, FaultKind::kFormat);
}

/// A stream is a Redfish subscription.
std::optional<Fault> CheckProtocol(std::string_view text, const BodyCircumstances& circumstances) {
  return FaultUnless(!circumstances.isSse || text == "Redfish", FaultKind::kNotInList);
}

std::optional<Fault> CheckDestination(std::string_view text, const BodyCircumstances& circumstances) {
  // That of a stream comes from the front end. That the protocol is missing is said elsewhere.
  if (circumstances.isSse || circumstances.protocol.empty()) return std::nullopt;
  return FaultUnless(IsDestinationFor(circumstances.protocol, text), FaultKind::kFormat);
}

/// A protocol that is missing or refused, which is said elsewhere, may have been meant as one.
bool MayBeSyslog(std::string_view protocol) { return protocol.empty() || protocol.starts_with("Syslog"); }

std::optional<Fault> CheckSubscriptionType(std::string_view text, const BodyCircumstances& circumstances) {
  const bool isFine = text == "RedfishEvent" || text == "SNMPTrap" || text == "SNMPInform" ||
                      (text == "Syslog" && MayBeSyslog(circumstances.protocol)) ||
                      (text == "SSE" && circumstances.isSse);
  return FaultUnless(isFine, FaultKind::kNotInList);
}

std::optional<Fault> CheckAuthenticationKey(std::string_view text, const BodyCircumstances& /*circumstances*/) {
  return FaultUnless(IsSnmpAuthenticationKey(text), FaultKind::kFormat);
}

std::optional<Fault> CheckEncryptionKey(std::string_view text, const BodyCircumstances& /*circumstances*/) {
  return FaultUnless(IsSnmpEncryptionKey(text), FaultKind::kFormat);
}

constexpr std::string_view kFacilities[] = {"Kern",   "User",     "Mail",    "Daemon",      "Auth",     "Syslog",
                                            "LPR",    "News",     "UUCP",    "Cron",        "Authpriv", "FTP",
                                            "NTP",    "Security", "Console", "SolarisCron", "Local0",   "Local1",
                                            "Local2", "Local3",   "Local4",  "Local5",      "Local6",   "Local7"};
constexpr std::string_view kSeverities[] = {"Emergency", "Alert",         "Critical", "Error", "Warning",
                                            "Notice",    "Informational", "Debug",    "All"};

using enum PropertyKind;
using enum WritableBy;

constexpr PropertyRule kAnEventType = {.values = kEventTypes};
constexpr PropertyRule kAMessageId = {.null = Null::kUnlessListed, .listName = "MessageIds"};
constexpr PropertyRule kARegistryPrefix = {.null = Null::kUnlessListed, .listName = "RegistryPrefixes"};
constexpr PropertyRule kAResourceType = {.null = Null::kUnlessListed, .listName = "ResourceTypes"};
constexpr PropertyRule kAReference = {.kind = kReference};

constexpr PropertyRule kSnmpMembers[] = {
    {.name = "AuthenticationKey",
     .writableBy = kClient,
     .null = Null::kOnPatch,
     .checkText = CheckAuthenticationKey,
     .isSecret = true},
    {.name = "AuthenticationKeySet", .kind = kBoolean},
    {.name = "AuthenticationProtocol",
     .writableBy = kClient,
     .null = Null::kAccepted,
     .listName = "AuthenticationProtocol"},
    {.name = "EncryptionKey",
     .writableBy = kClient,
     .null = Null::kOnPatch,
     .checkText = CheckEncryptionKey,
     .isSecret = true},
    {.name = "EncryptionKeySet", .kind = kBoolean},
    {.name = "EncryptionProtocol", .writableBy = kClient, .null = Null::kAccepted, .listName = "EncryptionProtocol"},
    {.name = "TrapCommunity", .writableBy = kClient, .null = Null::kAccepted, .isSecret = true},
};

constexpr PropertyRule kAFacility = {.null = Null::kAccepted, .values = kFacilities};
constexpr PropertyRule kSyslogFilterMembers[] = {
    {.name = "LogFacilities", .kind = kArray, .writableBy = kClient, .element = &kAFacility},
    {.name = "LowestSeverity", .writableBy = kClient, .null = Null::kAccepted, .values = kSeverities},
};
constexpr PropertyRule kASyslogFilter = {.kind = kObject, .null = Null::kAccepted, .members = kSyslogFilterMembers};

// Optional parts of the schema that this service does not implement (certificates, OEM) count as written by the
// service: they exist, and no client writes them.
constexpr PropertyRule kProperties[] = {
    {.name = "Actions"},
    {.name = "Certificates"},
    {.name = "ClientCertificates"},
    {.name = "Context", .writableBy = kClient, .null = Null::kAccepted},
    {.name = "DeliveryRetryPolicy", .writableBy = kClient, .null = Null::kAccepted, .listName = "DeliveryRetryPolicy"},
    {.name = "Description", .writableBy = kCreation, .null = Null::kAccepted},
    {.name = "Destination",
     .writableBy = kCreation,
     .maxBytes = kMaxDestinationBytes,
     .checkText = CheckDestination,
     .isAddress = true,
     .hangsOnProtocol = true},
    {.name = "EventFormatType", .writableBy = kCreation, .null = Null::kAccepted, .listName = "EventFormatType"},
    {.name = "EventTypes", .kind = kArray, .writableBy = kCreation, .element = &kAnEventType},
    {.name = "HeartbeatIntervalMinutes",
     .kind = kInteger,
     .writableBy = kCreation,
     .null = Null::kAccepted,
     .smallest = 1,
     .largest = 65535},
    {.name = "HttpHeaders", .kind = kHeaders, .writableBy = kClient, .isSecret = true},
    {.name = "Id", .writableBy = kCreation, .checkText = CheckId},
    {.name = "IncludeOriginOfCondition", .kind = kBoolean, .writableBy = kCreation, .null = Null::kAccepted},
    {.name = "MessageIds", .kind = kArray, .writableBy = kCreation, .element = &kAMessageId},
    {.name = "MetricReportDefinitions", .kind = kArray, .writableBy = kCreation, .element = &kAReference},
    {.name = "Name", .writableBy = kCreation},
    {.name = "OEMProtocol"},
    {.name = "OEMSubscriptionType"},
    {.name = "Oem"},
    {.name = "OriginResources", .kind = kArray, .writableBy = kCreation, .element = &kAReference},
    {.name = "Protocol", .writableBy = kCreation, .listName = "Protocol", .checkText = CheckProtocol},
    {.name = "RegistryPrefixes", .kind = kArray, .writableBy = kCreation, .element = &kARegistryPrefix},
    {.name = "ResourceTypes", .kind = kArray, .writableBy = kCreation, .element = &kAResourceType},
    {.name = "SNMP", .kind = kObject, .writableBy = kClient, .members = kSnmpMembers},
    {.name = "SendHeartbeat", .kind = kBoolean, .writableBy = kCreation, .null = Null::kAccepted},
    {.name = "Status"},
    {.name = "SubordinateResources", .kind = kBoolean, .writableBy = kCreation, .null = Null::kAccepted},
    {.name = "SubscriptionType", .writableBy = kCreation, .null = Null::kAccepted, .checkText = CheckSubscriptionType},
    {.name = "SyslogFilters", .kind = kArray, .writableBy = kClient, .element = &kASyslogFilter},
    {.name = "VerifyCertificate", .kind = kBoolean, .writableBy = kClient, .null = Null::kAccepted},
};

constexpr bool IsSorted(std::span<const PropertyRule> rules) {
  return std::ranges::is_sorted(rules, {}, &PropertyRule::name);
}
static_assert(IsSorted(kProperties) && IsSorted(kSnmpMembers) && IsSorted(kSyslogFilterMembers), "FindRule needs it");

}  // namespace

std::span<const PropertyRule> EventDestinationProperties() { return kProperties; }

const PropertyRule* FindRule(std::span<const PropertyRule> rules, std::string_view name) {
  const auto rule = std::ranges::lower_bound(rules, name, {}, &PropertyRule::name);
  return rule == rules.end() || rule->name != name ? nullptr : &*rule;
}

bool IsWritable(const PropertyRule& rule, bool isCreation) {
  return rule.writableBy == WritableBy::kClient || (rule.writableBy == WritableBy::kCreation && isCreation);
}

std::span<const std::string> ListedValues(const PropertyRule& rule, const ServiceSettings& settings) {
  const auto list = settings.allowedValues.find(rule.listName);
  if (list == settings.allowedValues.end()) return {};
  return list->second;
}

}  // namespace event_service
