#include "subscriptions/resource/member_uri.h"

#include <algorithm>

#include "resource_store/member_uri.h"
#include "service/redis_keys.h"

namespace event_service {
namespace {

constexpr size_t kLongestUndeletableId = 7;

/// What follows the collection's URI and a slash; empty when `uri` does not begin with them.
std::string_view TextBehindCollection(std::string_view uri) {
  if (!uri.starts_with(kSubscriptionsUri)) return {};
  uri.remove_prefix(kSubscriptionsUri.size());
  return uri.starts_with('/') ? uri.substr(1) : std::string_view{};
}

bool IsBlank(char character) { return character == ' ' || (character >= '\t' && character <= '\r'); }

}  // namespace

std::string MemberUri(std::string_view id) {
  std::string uri(kSubscriptionsUri);
  uri += '/';
  uri += id;
  return uri;
}

std::string_view MemberIdOf(std::string_view uri) { return MemberIdOf(kSubscriptionsUri, uri); }

bool IsUndeletableSubscriptionUri(std::string_view uri) {
  const std::string_view rest = TextBehindCollection(uri);
  return !rest.empty() && rest.size() <= kLongestUndeletableId && std::ranges::none_of(rest, IsBlank);
}

bool IsSnmpTrapDestination(std::string_view uri, std::string_view subscriptionType) {
  return IsUndeletableSubscriptionUri(uri) && subscriptionType == "SNMPTrap";
}

}  // namespace event_service
