/// What is known about properties before anything has been read. Names as clients write them; StaticAllowedValues gives
/// the lists of values once more as JSON texts.
#pragma once

#include <span>
#include <string_view>

namespace event_service {

/// The two EventService properties that make up the delivery retry policy.
inline constexpr std::string_view kRetryPolicyKeys[] = {"DeliveryRetryAttempts", "DeliveryRetryIntervalSeconds"};

/// Stored encrypted and never shown.
inline constexpr std::string_view kSensitiveSnmpKeys[] = {"TrapCommunity", "AuthenticationKey", "EncryptionKey"};

/// Filters that mean something for events only, or for metric reports only.
inline constexpr std::string_view kEventFilterProperties[] = {"ResourceTypes",        "MessageIds",
                                                              "RegistryPrefixes",     "OriginResources",
                                                              "SubordinateResources", "IncludeOriginOfCondition"};
inline constexpr std::string_view kMetricFilterProperties[] = {"MetricReportDefinitions"};

/// Arrays whose elements are {"@odata.id": uri}.
inline constexpr std::string_view kReferenceArrayProperties[] = {"OriginResources", "MetricReportDefinitions"};

/// Arrays that have a "...@odata.count" beside them.
inline constexpr std::string_view kCountedArrays[] = {"MessageIds",    "OriginResources",  "HttpHeaders",
                                                      "ResourceTypes", "RegistryPrefixes", "MetricReportDefinitions"};

/// The array-valued properties of a subscription and the JSON type of their elements.
struct ArrayProperty {
  std::string_view name;
  std::string_view elementType;  // "string" or "object"
};
inline constexpr ArrayProperty kArrayProperties[] = {
    {"EventTypes", "string"},
    {"MessageIds", "string"},
    {"OriginResources", "object"},
    {"HttpHeaders", "object"},
    {"ResourceTypes", "string"},
    {"RegistryPrefixes", "string"},
    {"MetricReportDefinitions", "object"},
    {"SyslogFilters", "object"},
};

inline constexpr std::string_view kProtocols[] = {"Redfish", "SNMPv1",    "SNMPv2c",  "SNMPv3",
                                                  "SMTP",    "SyslogTCP", "SyslogTLS"};
inline constexpr std::string_view kDeliveryRetryPolicies[] = {"TerminateAfterRetries", "SuspendRetries", "RetryForever",
                                                              "RetryForeverWithBackoff"};
inline constexpr std::string_view kAuthenticationProtocols[] = {"None",           "CommunityString", "HMAC_MD5",
                                                                "HMAC_SHA96",     "HMAC128_SHA224",  "HMAC192_SHA256",
                                                                "HMAC256_SHA384", "HMAC384_SHA512"};
inline constexpr std::string_view kEncryptionProtocols[] = {"None", "CBC_DES", "CFB128_AES128"};
inline constexpr std::string_view kEventFormatTypes[] = {"Event", "MetricReport"};

/// The values that the product's PATCH template lists for each enumerated property. It names one protocol only, which
/// does not narrow a creation; a Destination is judged by its form, so that its list is empty.
struct EnumeratedProperty {
  std::string_view name;
  std::span<const std::string_view> values;
};
inline constexpr EnumeratedProperty kEnumeratedProperties[] = {
    {"Protocol", std::span(kProtocols).first<1>()},
    {"DeliveryRetryPolicy", kDeliveryRetryPolicies},
    {"EventFormatType", kEventFormatTypes},
    {"Destination", {}},
};

}  // namespace event_service
