#include "tools/event_delivery/event_document.h"

#include <algorithm>

namespace event_service {
namespace {

constexpr std::string_view kServiceRoot = "/redfish/v1/";
constexpr std::string_view kIndexPrefix = "&&subs:";
constexpr size_t kMostRecords = 64;
// A path comes from whoever submits a test event; what it makes us look up is bounded.
constexpr size_t kLongestOrigin = 2048;
constexpr size_t kMostAncestors = 32;

bool IsControl(std::string_view name) { return name.starts_with("&&"); }

/// The members that are sent.
Json Visible(const Json& object) {
  Json visible = Json::object();
  for (const auto& [name, value] : object.items()) {
    if (!IsControl(name)) visible[name] = value;
  }
  return visible;
}

std::string Compose(const Json& document, const std::vector<size_t>& records, const Json& context, bool withOrigin) {
  Json payload = Visible(document);
  Json& events = payload["Events"] = Json::array();
  for (const size_t position : records) {
    const Json& record = document["Events"].at(position);
    Json& event = events.emplace_back(Visible(record));
    event["MemberId"] = std::to_string(events.size() - 1);
    if (const auto origin = record.find(kOriginMember); withOrigin && origin != record.end()) {
      event["OriginOfCondition"] = *origin;
    }
  }
  payload["Events@odata.count"] = events.size();
  if (context.is_string()) payload["Context"] = context;
  return TolerantJsonText(payload);
}

}  // namespace

std::string_view Unquoted(std::string_view text) {
  return text.size() >= 2 && text.starts_with('"') && text.ends_with('"') ? text.substr(1, text.size() - 2) : text;
}

std::string_view RegistryPrefixOf(std::string_view messageId) { return messageId.substr(0, messageId.find('.')); }

std::string_view ResourceTypeOf(std::string_view odataType) {
  if (odataType.starts_with('#')) odataType.remove_prefix(1);
  return odataType.substr(0, odataType.find('.'));
}

bool IsEventDocument(const Json& document) {
  if (!document.is_object()) return false;
  const auto events = document.find("Events");
  return events != document.end() && events->is_array() && !events->empty() && events->size() <= kMostRecords &&
         std::ranges::all_of(*events, [](const Json& record) { return record.is_object(); });
}

std::vector<RecordFacts> FactsOf(const Json& document) {
  std::vector<RecordFacts> facts;
  // As a field of a stored object it has its quotes.
  const std::string_view resourceType = Unquoted(TextMember(document, kResourceTypeMember));
  for (const Json& record : document["Events"]) {
    const auto origin = record.find("OriginOfCondition");
    facts.push_back({.messageId = std::string(TextMember(record, "MessageId")),
                     .eventType = std::string(TextMember(record, "EventType")),
                     .origin = std::string(origin == record.end() ? "" : TextMember(*origin, "@odata.id")),
                     .resourceType = std::string(resourceType)});
  }
  return facts;
}

std::vector<std::string> OriginIndexKeysFor(std::string_view origin) {
  const std::string prefix(kIndexPrefix);
  std::vector<std::string> keys = {prefix + "*"};
  if (!origin.starts_with(kServiceRoot) || origin.size() > kLongestOrigin) return keys;
  std::string_view path = origin.substr(kServiceRoot.size());
  if (path.ends_with('/')) path.remove_suffix(1);
  // A subscription may name its origin with or without a slash at the end.
  keys.push_back(prefix + std::string(path));
  keys.push_back(prefix + std::string(path) + "/");
  keys.push_back(prefix + "/*");  // below the service root
  size_t ancestors = 0;
  for (size_t i = 1; i < path.size() && ancestors < kMostAncestors; ++i) {
    // What a fragment names inside a resource lies below it.
    const bool isStep = path[i] == '/' || (path[i] == '#' && path.substr(i).starts_with("#/"));
    if (!isStep || path[i - 1] == '#') continue;
    keys.push_back(prefix + std::string(path.substr(0, i)) + "/*");
    ++ancestors;
  }
  return keys;
}

std::string PayloadOf(const Json& document, const std::vector<size_t>& records, const Json& context,
                      bool includesOrigin) {
  std::string payload = Compose(document, records, context, includesOrigin);
  if (includesOrigin && payload.size() > kMostPayload) payload = Compose(document, records, context, false);
  return payload;
}

}  // namespace event_service
