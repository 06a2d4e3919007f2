#include "resource_store/member_uri.h"

#include <algorithm>

namespace event_service {

std::string_view MemberIdOf(std::string_view collectionUri, std::string_view uri) {
  if (!uri.starts_with(collectionUri)) return {};
  uri.remove_prefix(collectionUri.size());
  return uri.rfind('/') == 0 ? uri.substr(1) : std::string_view{};
}

bool CanBeStoredAsMember(std::string_view collectionUri, std::string_view uri) {
  const std::string_view id = MemberIdOf(collectionUri, uri);
  return !id.empty() && std::ranges::none_of(id, [](unsigned char c) { return c <= ' ' || c == 0x7f; });
}

}  // namespace event_service
