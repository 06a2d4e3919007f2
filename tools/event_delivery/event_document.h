/// Event documents as delivery handles them: what the queue holds, made into what a subscriber gets.
///
/// A document is a Redfish Event (v1_7_0). Members of it, or of its event records, that begin with "&&" are for
/// delivery alone and never sent. Nothing here talks to Redis.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "resource_store/json_text.h"

namespace event_service {

/// For delivery alone: the type of the resource that an event is about, the one member that an event is for, that
/// member as it was when the event was queued, and the resource at a record's OriginOfCondition.
inline constexpr std::string_view kResourceTypeMember = "&&ResourceType";
inline constexpr std::string_view kOneReceiverMember = "&&EventDestination";
inline constexpr std::string_view kReceiverMember = "&&Receiver";
inline constexpr std::string_view kOriginMember = "&&Origin";

/// A pushed payload stays below this many bytes; a larger document is not taken.
inline constexpr size_t kMostPayload = 1024 * 1024 - 1;

/// What the filters of a subscription look at.
struct RecordFacts {
  std::string messageId;
  std::string eventType;
  std::string origin;        // URI; empty: the record names none
  std::string resourceType;  // "Chassis"
};

/// A JSON text without the quotes of a string.
std::string_view Unquoted(std::string_view text);

/// The registry that a message id names: "Base" of "Base.1.12.Success".
std::string_view RegistryPrefixOf(std::string_view messageId);

/// The resource type in an "@odata.type": "Chassis" of "#Chassis.v1_14_0.Chassis".
std::string_view ResourceTypeOf(std::string_view odataType);

/// True for an object with 1 to 64 objects in "Events".
bool IsEventDocument(const Json& document);

/// The facts of each record. The resource type is the document's, which its writer gave for all of them.
std::vector<RecordFacts> FactsOf(const Json& document);

/// The keys of the origin index under which the subscriptions stand that may want a record with this origin: those of
/// every origin, of this one, and of everything below one that it lies below.
std::vector<std::string> OriginIndexKeysFor(std::string_view origin);

/// What one subscriber gets: the records at these positions under the context (null: none), an origin of condition that
/// was read in the place of its link where that is wanted and the payload stays within its limit.
std::string PayloadOf(const Json& document, const std::vector<size_t>& records, const Json& context,
                      bool includesOrigin);

}  // namespace event_service
