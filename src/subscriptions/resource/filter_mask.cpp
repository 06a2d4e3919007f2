#include "subscriptions/resource/filter_mask.h"

#include <string>
#include <string_view>

namespace event_service {
namespace {

// Prefixes without a bit are remembered up to here: clients choose them, and memory must not grow with their choice.
constexpr size_t kMostKnownPrefixes = 1024;

/// Visits the strings of an array property; false when the property is missing or has no elements at all.
template <typename Visitor>
bool ForEachString(const Json& destination, std::string_view property, const Visitor& visit) {
  const auto found = destination.find(property);
  if (found == destination.end() || !found->is_array()) return false;
  for (const Json& element : *found) {
    if (element.is_string()) visit(std::string_view(element.get_ref<const std::string&>()));
  }
  return !found->empty();
}

}  // namespace

int32_t FilterMask(const Json& destination, RegistryPrefixBits& bits) {
  int32_t mask = 0;
  // Joined, not added: a prefix may stand twice, and every prefix from the 32nd on shares the largest bit.
  const bool hasPrefixes = ForEachString(destination, "RegistryPrefixes", [&](std::string_view prefix) {
    if (const auto bit = bits.find(prefix); bit != bits.end()) mask |= bit->second;
  });
  const bool hasMessageIds = ForEachString(destination, "MessageIds", [&](std::string_view messageId) {
    const std::string_view prefix = messageId.substr(0, messageId.find('.'));
    if (const auto bit = bits.find(prefix); bit != bits.end()) {
      mask |= bit->second;
    } else if (bits.size() < kMostKnownPrefixes) {
      bits.emplace(prefix, 0);
    }
  });
  return hasPrefixes || hasMessageIds ? mask : kEveryRegistry;
}

}  // namespace event_service
