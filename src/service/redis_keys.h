/// The keys and channels of this service that more than one folder uses.
#pragma once

#include <string_view>

namespace event_service {

inline constexpr std::string_view kEventServiceUri = "/redfish/v1/EventService";
inline constexpr std::string_view kSubscriptionsUri = "/redfish/v1/EventService/Subscriptions";
inline constexpr std::string_view kSmtpKey = "&&/redfish/v1/EventService/SMTP";

/// The collection's list of members.
inline constexpr std::string_view kSubscriptionsMembersKey = "&&/redfish/v1/EventService/Subscriptions/Members";

/// What clients may filter by, as the EventService shows it.
inline constexpr std::string_view kResourceTypesKey = "&&/redfish/v1/EventService/ResourceTypes";
inline constexpr std::string_view kRegistryPrefixesKey = "&&/redfish/v1/EventService/RegistryPrefixes";

/// Where the front end announces requests: the EventService's own, and everything about subscriptions.
inline constexpr std::string_view kEventServiceChannel = "&&/redfish/v1/EventService/CHANNEL";
inline constexpr std::string_view kSubscriptionsChannel = "&&/redfish/v1/EventService/Subscriptions/CHANNEL";

/// What the keys of our own requests begin with: startup's for creations, and those that end all streams when a client
/// turns the service off.
inline constexpr std::string_view kGenerationPrefix = "&&/redfish/v1/EventService/Subscriptions/GENERATE/";
inline constexpr std::string_view kEndOfStreamsPrefix = "&&/redfish/v1/EventService/SSE-ALL/";

/// The target of a DELETE that ends all streams.
inline constexpr std::string_view kEveryStream = "SSE-ALL";

/// The hash of script digests that other services have registered.
inline constexpr std::string_view kScriptDigests = "redisSHAScripts";
inline constexpr std::string_view kLifeCycleScript = "resourceChange";

/// The field that marks a subscription as complete, and its value.
inline constexpr std::string_view kCrudPrefixField = "&&CRUDprefix";
inline constexpr std::string_view kEventDestinationPrefix = "&&/redfish/v1/EventDestination";

/// The two that a creation writes first: a member that has them but not the one above was never completed.
inline constexpr std::string_view kAllowMethodField = "&&AllowMethod";
inline constexpr std::string_view kPatchValidationField = "&&PATCHValidation";

/// Further fields of stored resources.
inline constexpr std::string_view kEtagField = "@odata.etag";
inline constexpr std::string_view kSensitiveDataField = "&&SensitiveData";  // paths that are not shown
inline constexpr std::string_view kSmtpPasswordField = "&&Password";        // of the SMTP hash, encrypted
inline constexpr std::string_view kSmtpPassword = "SMTP/Password";          // the path under which clients know it
inline constexpr std::string_view kServiceEnabled = "ServiceEnabled";

}  // namespace event_service
