/// The stored form of one subscription, built whole as a value before anything is written. The same value is what goes
/// into Redis and, as text, into the database file.
///
/// Control fields ("&&Privileges") are members like the others, with their raw text as a string.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "resource_store/json_text.h"
#include "resource_store/store_encoding.h"
#include "service/redis_keys.h"
#include "service/settings.h"

namespace event_service {

/// The values of Status/State that this service sets by itself.
inline constexpr std::string_view kStateEnabled = "Enabled";
inline constexpr std::string_view kStateDisabled = "Disabled";  // suspended

/// What stands behind a member's URI in the target of its action.
inline constexpr std::string_view kResumeAction = "/Actions/EventDestination.ResumeSubscription";

/// The paths of the SNMP secrets, as "&&SensitiveData" holds them.
inline constexpr std::string_view kSnmpSensitivePaths = "SNMP/TrapCommunity,SNMP/AuthenticationKey,SNMP/EncryptionKey";

/// The path of the headers, whose values are secrets as well.
inline constexpr std::string_view kHeadersPath = "HttpHeaders";

/// Adds to a list of paths, as "&&SensitiveData" holds them, those of `added` that it lacks.
std::string JoinPaths(std::string paths, std::string_view added);

/// What a new subscription is made from besides the body of its creation.
struct NewDestination {
  std::string id = {};
  std::string privileges = {};    // as the front end recorded them
  std::string etag = {};          // a quoted tag
  std::string passwordLine = {};  // encrypts the SNMP secrets
  bool isSse = false;             // the front end opened a stream for it
  std::string sseChannel = {};    // of that stream
  std::string timeStamp = {};     // when the stream was opened
};

/// The resource that the body makes, complete but for "&&CRUDprefix", which a member gets when it has been written
/// whole. The body has passed the creation's checks. Nothing when a secret cannot be encrypted.
std::optional<Json> BuildEventDestination(Json body, const NewDestination& about, const ServiceSettings& settings);

/// Puts the members of a client's SNMP object into the stored one: secrets encrypted, a key that is null taken out,
/// "...Set" flags told for each key given; a TrapCommunity that is null or empty counts as none. False when a secret
/// cannot be encrypted (logged).
[[nodiscard]] bool MergeSnmp(const Json& given, std::string_view passwordLine, Json& stored);

/// The value with "@odata.count" of an array property that is counted, in its place; nothing for other properties.
void SetCount(Json& destination, const std::string& property);

/// Adds to an SNMP object the lists of values that a client may choose from.
void AddSnmpAllowableValues(Json& snmp, const ServiceSettings& settings);

/// True for a subscription that lives as long as a stream of the front end's, by its SubscriptionType: in the resource,
/// or as Redis holds it.
bool IsStream(const Json& destination);
bool IsStreamType(std::string_view storedType);

/// "TCP" or "TLS" for a destination whose protocol is SyslogTCP or SyslogTLS; empty for any other.
std::string_view SyslogTransport(const Json& destination);

/// The text for the database file.
std::string FileText(const Json& destination);

}  // namespace event_service
