/// The rules that a creation has to keep across its properties, such as that RegistryPrefixes and MessageIds exclude
/// each other (DSP0266, Eventing). Pure functions.
#pragma once

#include <optional>

#include "requests/answer.h"
#include "resource_store/store_encoding.h"

namespace event_service {

/// The refusal for the first broken rule; nothing when all are kept. The values of the body are acceptable already.
std::optional<Answer> CheckCreationRules(const Json& body);

}  // namespace event_service
