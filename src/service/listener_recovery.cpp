#include "service/listener_recovery.h"

#include <algorithm>

namespace event_service {

ListenerRecovery ListenerRecoveryFrom(std::string_view configured) {
  if (configured == "exit") return ListenerRecovery::kExit;
  return configured == "reconnect" ? ListenerRecovery::kReconnect : ListenerRecovery::kNone;
}

AfterLoss ActionAfterLoss(ListenerRecovery recovery, LostConnection lost) {
  switch (recovery) {
    case ListenerRecovery::kExit:
      return AfterLoss::kEndProcess;
    case ListenerRecovery::kReconnect:
      return AfterLoss::kReconnect;
    case ListenerRecovery::kNone:
      break;
  }
  return lost == LostConnection::kChannel ? AfterLoss::kEndListener : AfterLoss::kServeOn;
}

std::chrono::milliseconds NextPause(std::chrono::milliseconds last, std::chrono::milliseconds served) {
  constexpr std::chrono::milliseconds kFirst{100};
  constexpr std::chrono::milliseconds kLongest{5000};
  constexpr std::chrono::milliseconds kSuccess{50};
  return served >= kSuccess ? kFirst : std::clamp(2 * last, kFirst, kLongest);
}

}  // namespace event_service
