#include "subscriptions/filter_mask.h"

#include <string>
#include <string_view>

namespace event_service {
namespace {

// Prefixes without a bit are remembered up to here: clients choose them, and memory must not grow with their choice.
constexpr size_t kMostKnownPrefixes = 1024;

/// The strings of an array property; nothing for a missing property and for elements of another type.
template <typename Visitor>
void ForEachString(const Json& body, std::string_view property, const Visitor& visit) {
  const auto found = body.find(property);
  if (found == body.end() || !found->is_array()) return;
  for (const Json& element : *found) {
    if (element.is_string()) visit(std::string_view(element.get_ref<const std::string&>()));
  }
}

}  // namespace

int32_t FilterMask(const Json& body, RegistryPrefixBits& bits) {
  bool isRestricted = false;
  int32_t mask = 0;
  // Joined, not added: a prefix may stand twice, and every prefix from the 32nd on shares the largest bit.
  ForEachString(body, "RegistryPrefixes", [&](std::string_view prefix) {
    isRestricted = true;
    if (const auto bit = bits.find(prefix); bit != bits.end()) mask |= bit->second;
  });
  ForEachString(body, "MessageIds", [&](std::string_view messageId) {
    isRestricted = true;
    const std::string_view prefix = messageId.substr(0, messageId.find('.'));
    if (const auto bit = bits.find(prefix); bit != bits.end()) {
      mask |= bit->second;
    } else if (bits.size() < kMostKnownPrefixes) {
      bits.emplace(prefix, 0);
    }
  });
  return isRestricted ? mask : kEveryRegistry;
}

}  // namespace event_service
