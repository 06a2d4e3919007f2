/// What is known about properties before anything has been read; names as clients write them.
#pragma once

#include <string_view>

namespace event_service {

/// Stored encrypted and never shown.
inline constexpr std::string_view kSensitiveSnmpKeys[] = {"TrapCommunity", "AuthenticationKey", "EncryptionKey"};

/// Filters that mean something for events only, or for metric reports only.
inline constexpr std::string_view kEventFilterProperties[] = {"ResourceTypes",        "MessageIds",
                                                              "RegistryPrefixes",     "OriginResources",
                                                              "SubordinateResources", "IncludeOriginOfCondition"};
inline constexpr std::string_view kMetricFilterProperties[] = {"MetricReportDefinitions"};

/// Arrays whose elements are {"@odata.id": uri}.
inline constexpr std::string_view kReferenceArrayProperties[] = {"OriginResources", "MetricReportDefinitions"};

/// Objects, and arrays of objects, that clients write member by member: an "@odata.id" among the members is an
/// annotation.
inline constexpr std::string_view kObjectProperties[] = {"SMTP", "SNMP"};
inline constexpr std::string_view kObjectArrayProperties[] = {"SyslogFilters"};

/// Arrays that have a "...@odata.count" beside them.
inline constexpr std::string_view kCountedArrays[] = {"MessageIds",    "OriginResources",  "HttpHeaders",
                                                      "ResourceTypes", "RegistryPrefixes", "MetricReportDefinitions"};

/// The values that properties take: StaticAllowedValues gives them as JSON texts.
inline constexpr std::string_view kProtocols[] = {"Redfish", "SNMPv1",    "SNMPv2c",  "SNMPv3",
                                                  "SMTP",    "SyslogTCP", "SyslogTLS"};
inline constexpr std::string_view kDeliveryRetryPolicies[] = {"TerminateAfterRetries", "SuspendRetries", "RetryForever",
                                                              "RetryForeverWithBackoff"};
inline constexpr std::string_view kAuthenticationProtocols[] = {"None",           "CommunityString", "HMAC_MD5",
                                                                "HMAC_SHA96",     "HMAC128_SHA224",  "HMAC192_SHA256",
                                                                "HMAC256_SHA384", "HMAC384_SHA512"};
inline constexpr std::string_view kEncryptionProtocols[] = {"None", "CBC_DES", "CFB128_AES128"};
inline constexpr std::string_view kEventFormatTypes[] = {"Event", "MetricReport"};

/// What an event may be: a test event is one of them, a subscription lists those that it wants.
inline constexpr std::string_view kEventTypes[] = {
    "StatusChange", "ResourceUpdated", "ResourceAdded", "ResourceRemoved", "Alert", "MetricReport", "Other"};

}  // namespace event_service
