/// The creation of a subscription: from the body that the front end left to a stored, indexed, persisted and announced
/// resource. Runs on the Subscriptions listener's thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "foundation/random.h"
#include "requests/answer.h"
#include "requests/request.h"

namespace event_service {

/// "UNAVAILABLE" while there are as many subscriptions as the service takes.
std::optional<Answer> CheckSubscriptionLimit(const Request& request);

/// Where generated Ids come from.
using RandomSource = uint32_t (*)();
inline uint32_t KernelRandom() { return RandomNumber(); }

/// Creates the subscription that the request asks for, or refuses it and leaves Redis as it was. The gates have been
/// passed. What fails after the resource has been written whole is logged; the creation stands.
Answer CreateEventDestination(Request& request, RandomSource random = KernelRandom);

}  // namespace event_service
