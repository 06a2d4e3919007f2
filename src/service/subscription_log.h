/// The debug line that every change of a subscription leaves.
#pragma once

#include <string_view>

#include "foundation/logging.h"

namespace event_service {

/// "Subscription <uri> <done> by <who>.": done is "added", "changed", "suspended", "resumed", "deleted", "restored";
/// who is "client", "delivery side" or "start-up".
inline void LogSubscriptionChange(std::string_view uri, const char* done, const char* who) {
  LogDebug("Subscription %.*s %s by %s.", static_cast<int>(uri.size()), uri.data(), done, who);
}

}  // namespace event_service
