/// What delivery has taken from the queue and still owes, kept in Redis so that a crash loses nothing.
///
/// An element of the queue is moved to a list of its own when it is taken, and leaves that list in the same transaction
/// that enters the event and its receivers in the ledger, a hash: field "<number>" is the event document, field
/// "<number> <URI>" the positions of the records that this subscription still has to get.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/redis_pipeline.h"
#include "tools/event_delivery/event_document.h"

namespace event_service {

inline constexpr std::string_view kEventQueue = "&&/redfish/v1/EventService/EVENTQ";
inline constexpr std::string_view kTakenList = "&&/redfish/v1/EventService/EVENTQ/TAKEN";
inline constexpr std::string_view kLedger = "&&/redfish/v1/EventService/EVENTQ/OWED";

/// One event that is owed to somebody.
struct OwedEvent {
  uint64_t number = 0;  // the order of the queue
  Json document;
  size_t size = 0;       // of its text
  size_t receivers = 0;  // that have not got it
};
using OwedEventPtr = std::shared_ptr<OwedEvent>;

/// What a subscription has to get of it.
struct OwedRecords {
  OwedEventPtr event;
  std::vector<size_t> records;
};

/// The fields of the ledger.
std::string EventField(const OwedEvent& event);
std::string ReceiverField(const OwedEvent& event, std::string_view uri);
std::string RecordsText(const std::vector<size_t>& records);

/// The ledger's events by number, each with its receivers; what cannot be read is left out.
struct LedgerEntry {
  OwedEventPtr event;
  std::vector<std::pair<std::string, std::vector<size_t>>> receivers;  // URI, positions
};
std::map<uint64_t, LedgerEntry> ParseLedger(const std::map<std::string, std::string>& fields);

}  // namespace event_service
