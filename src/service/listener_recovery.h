/// What becomes of the service when a listener loses Redis: the setting "ListenerRecovery", and what follows from it.
/// Nothing here acts.
#pragma once

#include <chrono>
#include <string_view>

namespace event_service {

enum class ListenerRecovery {
  kNone,       // a listener whose channel is lost ends alone
  kExit,       // the process ends, for its supervisor to start it anew
  kReconnect,  // both listeners end, and the service starts again within the process
};

/// "exit" and "reconnect", exactly; any other text is kNone.
ListenerRecovery ListenerRecoveryFrom(std::string_view configured);

enum class LostConnection { kChannel, kCommands };
enum class AfterLoss { kServeOn, kEndListener, kEndProcess, kReconnect };

/// What a listener does that has lost one of its two connections.
AfterLoss ActionAfterLoss(ListenerRecovery recovery, LostConnection lost);

/// How long to wait before the next attempt: 0.1 s before the first, for which `last` is 0, then twice as long each
/// time, 5 s at most. They begin anew when the service has `served` for 50 ms since the last attempt: one that is lost
/// at once, as by a Redis that takes no more clients, is no success.
std::chrono::milliseconds NextPause(std::chrono::milliseconds last, std::chrono::milliseconds served);

}  // namespace event_service
