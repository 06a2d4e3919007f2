/// Which registries' messages a subscription wants, as the mask that event delivery reads from the origin index.
#pragma once

#include <cstdint>

#include "resource_store/store_encoding.h"
#include "service/settings.h"

namespace event_service {

/// The mask without a restriction.
inline constexpr int32_t kEveryRegistry = -1;

/// The mask of a subscription: the bits of its "RegistryPrefixes", or of the registries that its "MessageIds" name,
/// each joined once (null names none); kEveryRegistry when neither has elements. A prefix that a message id names and
/// `bits` lacks joins `bits` with the value 0.
int32_t FilterMask(const Json& destination, RegistryPrefixBits& bits);

}  // namespace event_service
