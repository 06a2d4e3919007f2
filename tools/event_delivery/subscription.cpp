#include "tools/event_delivery/subscription.h"

#include <algorithm>

namespace event_service {
namespace {

bool IsTrue(const Json& member, std::string_view name) {
  const auto value = member.find(name);
  return value != member.end() && *value == true;
}

std::vector<std::string> TextsIn(const Json& member, std::string_view name) {
  std::vector<std::string> texts;
  const auto array = member.find(name);
  if (array == member.end() || !array->is_array()) return texts;
  for (const Json& element : *array) {
    if (element.is_string()) texts.push_back(element.get<std::string>());
  }
  return texts;
}

bool IsHeaderName(std::string_view name) {
  const auto fits = [](char c) { return c > ' ' && c < '\x7f' && c != ':'; };
  return !name.empty() && std::ranges::all_of(name, fits);
}

bool IsHeaderValue(std::string_view value) {
  return std::ranges::none_of(value, [](char c) { return (c >= '\0' && c < ' ' && c != '\t') || c == '\x7f'; });
}

std::vector<std::pair<std::string, std::string>> HeadersIn(const Json& member) {
  std::vector<std::pair<std::string, std::string>> headers;
  const auto array = member.find("HttpHeaders");
  if (array == member.end() || !array->is_array()) return headers;
  for (const Json& element : *array) {
    if (!element.is_object()) continue;
    for (const auto& [name, value] : element.items()) {
      if (!value.is_string() || !IsHeaderName(name)) continue;
      if (IsHeaderValue(value.get_ref<const std::string&>())) headers.emplace_back(name, value.get<std::string>());
    }
  }
  return headers;
}

Subscription::Transport TransportOf(const Json& member) {
  if (TextMember(member, "Protocol") != "Redfish") return Subscription::Transport::kForeign;
  return TextMember(member, "SubscriptionType") == "SSE" ? Subscription::Transport::kStream
                                                         : Subscription::Transport::kHttp;
}

bool Has(const std::vector<std::string>& wanted, std::string_view value) {
  return wanted.empty() || std::ranges::find(wanted, value) != wanted.end();
}

// Every filter that is present has to let the record through.
using Filter = bool (*)(const Subscription& subscription, const RecordFacts& record);
constexpr Filter kFilters[] = {
    [](const Subscription& subscription, const RecordFacts&) { return subscription.isEnabled; },
    [](const Subscription& subscription, const RecordFacts&) { return subscription.wantsEvents; },
    [](const Subscription& subscription, const RecordFacts& record) {
      return Has(subscription.messageIds, record.messageId);
    },
    [](const Subscription& subscription, const RecordFacts& record) {
      return Has(subscription.registryPrefixes, RegistryPrefixOf(record.messageId));
    },
    [](const Subscription& subscription, const RecordFacts& record) {
      return Has(subscription.resourceTypes, record.resourceType);
    },
    [](const Subscription& subscription, const RecordFacts& record) {
      return Has(subscription.eventTypes, record.eventType);
    },
};

}  // namespace

Subscription ParseSubscription(std::string uri, const Json& member) {
  Subscription subscription;
  subscription.uri = std::move(uri);
  if (!member.is_object()) return subscription;
  subscription.etag = TextMember(member, "@odata.etag");
  subscription.transport = TransportOf(member);
  subscription.destination = TextMember(member, "Destination");
  subscription.streamChannel = TextMember(member, "&&SSE-CHANNEL");
  subscription.headers = HeadersIn(member);
  subscription.verifiesCertificate = IsTrue(member, "VerifyCertificate");
  subscription.includesOrigin = IsTrue(member, "IncludeOriginOfCondition");
  if (const auto context = member.find("Context"); context != member.end()) subscription.context = *context;
  subscription.retryPolicy = RetryPolicyOf(TextMember(member, "DeliveryRetryPolicy"));
  if (const auto status = member.find("Status"); status != member.end()) {
    const std::string_view state = TextMember(*status, "State");
    subscription.isEnabled = state.empty() || state == "Enabled";
  }
  subscription.wantsEvents = TextMember(member, "EventFormatType") != "MetricReport";
  subscription.messageIds = TextsIn(member, "MessageIds");
  subscription.registryPrefixes = TextsIn(member, "RegistryPrefixes");
  subscription.resourceTypes = TextsIn(member, "ResourceTypes");
  subscription.eventTypes = TextsIn(member, "EventTypes");
  return subscription;
}

bool MaskAdmits(int64_t mask, int64_t registryBit) {
  return mask == -1 || registryBit == 0 || (mask & registryBit) != 0;
}

int64_t RegistryBit(const std::vector<std::string>& registryPrefixes, std::string_view prefix) {
  constexpr ptrdiff_t kBits = 31;
  constexpr int64_t kLargestBit = 2147483647;
  const auto found = std::ranges::find(registryPrefixes, prefix);
  if (found == registryPrefixes.end()) return 0;
  const ptrdiff_t position = found - registryPrefixes.begin();
  return position < kBits ? int64_t{1} << position : kLargestBit;
}

bool Admits(const Subscription& subscription, const RecordFacts& record) {
  return std::ranges::all_of(kFilters, [&](Filter filter) { return filter(subscription, record); });
}

}  // namespace event_service
