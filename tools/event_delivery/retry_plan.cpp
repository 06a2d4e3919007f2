#include "tools/event_delivery/retry_plan.h"

#include <algorithm>

namespace event_service {
namespace {

using std::chrono::seconds;

constexpr seconds kShortestPause{1};
constexpr seconds kLongestPause{3600};
constexpr seconds kLongestInterval{7 * 24 * 3600};  // clients may set any number

struct NamedPolicy {
  std::string_view name;
  RetryPolicy policy;
};
constexpr NamedPolicy kPolicies[] = {
    {"TerminateAfterRetries", RetryPolicy::kTerminate},
    {"SuspendRetries", RetryPolicy::kSuspend},
    {"RetryForever", RetryPolicy::kForever},
    {"RetryForeverWithBackoff", RetryPolicy::kForeverWithBackoff},
};

}  // namespace

RetryPolicy RetryPolicyOf(std::string_view name) {
  const auto* const found = std::ranges::find(kPolicies, name, &NamedPolicy::name);
  return found == std::end(kPolicies) ? RetryPolicy::kTerminate : found->policy;
}

std::optional<seconds> PauseAfter(RetryPolicy policy, uint32_t failures, const RetrySettings& settings) {
  const seconds interval = std::min(settings.interval, kLongestInterval);
  switch (policy) {
    case RetryPolicy::kTerminate:
    case RetryPolicy::kSuspend:
      if (failures > settings.attempts) return std::nullopt;
      return interval;
    case RetryPolicy::kForever:
      break;
    case RetryPolicy::kForeverWithBackoff: {
      const seconds longest = std::max(interval, kLongestPause);
      seconds pause = std::max(interval, kShortestPause);
      for (uint32_t i = 1; i < failures && pause < longest; ++i) pause *= 2;
      return std::min(pause, longest);
    }
  }
  return std::max(interval, kShortestPause);
}

}  // namespace event_service
