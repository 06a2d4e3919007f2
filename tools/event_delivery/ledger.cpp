#include "tools/event_delivery/ledger.h"

#include <algorithm>

#include "foundation/text_numbers.h"
#include "resource_store/json_text.h"

namespace event_service {
namespace {

/// The positions in an entry's text; none unless all of them are the event's.
std::vector<size_t> ParseRecords(const std::string& text, const Json& document) {
  std::vector<size_t> records;
  const Json array = ParseOutsideText(text);
  const size_t count = document["Events"].size();
  if (!array.is_array()) return {};
  for (const Json& position : array) {
    if (!position.is_number_unsigned() || position >= count) return {};
    records.push_back(position);
  }
  return records;
}

}  // namespace

std::string EventField(const OwedEvent& event) { return std::to_string(event.number); }

std::string ReceiverField(const OwedEvent& event, std::string_view uri) {
  return EventField(event).append(" ").append(uri);
}

std::string RecordsText(const std::vector<size_t>& records) { return Json(records).dump(); }

std::map<uint64_t, LedgerEntry> ParseLedger(const std::map<std::string, std::string>& fields) {
  std::map<uint64_t, LedgerEntry> entries;
  uint64_t number = 0;
  // The fields come in order: an event's own before those of its receivers.
  for (const auto& [field, text] : fields) {
    const size_t blank = field.find(' ');
    if (ParseInteger(std::string_view(field).substr(0, blank), number) != std::errc{}) continue;
    if (blank == std::string::npos) {
      Json document = ParseOutsideText(text);
      if (!IsEventDocument(document)) continue;
      entries[number].event = std::make_shared<OwedEvent>(
          OwedEvent{.number = number, .document = std::move(document), .size = text.size()});
      continue;
    }
    const auto entry = entries.find(number);
    if (entry == entries.end()) continue;
    std::vector<size_t> records = ParseRecords(text, entry->second.event->document);
    if (!records.empty()) entry->second.receivers.emplace_back(field.substr(blank + 1), std::move(records));
  }
  return entries;
}

}  // namespace event_service
