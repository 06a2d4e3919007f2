/// When an event that was not taken is sent again, and what becomes of its subscription in the end.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

namespace event_service {

enum class RetryPolicy { kTerminate, kSuspend, kForever, kForeverWithBackoff };

/// The service's settings for all subscriptions.
struct RetrySettings {
  uint32_t attempts = 3;  // of sending again
  std::chrono::seconds interval{60};
};

/// The policy of that name; TerminateAfterRetries for any other text.
RetryPolicy RetryPolicyOf(std::string_view name);

/// How long to wait after so many failures (from 1 on) of one event before it is sent again; nothing when it is given
/// up. Those who retry for ever wait a second at least; with backoff the pause doubles up to an hour.
std::optional<std::chrono::seconds> PauseAfter(RetryPolicy policy, uint32_t failures, const RetrySettings& settings);

}  // namespace event_service
