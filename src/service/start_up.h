/// The startup sequence. What lies above this folder comes in as values, so that the order and the failure exits can
/// be tested with stand-ins.
#pragma once

#include <chrono>

#include "foundation/redis_commands.h"
#include "service/settings.h"

namespace event_service {

/// What startup calls in the folders above this one; filled in by main, or by a test.
struct StartUpSteps {
  bool (*restorePersistentProperties)(redisContext* redis, const ServiceSettings& settings);
  void* (*eventServiceListener)(void*);  // pthread entry points, with a null argument
  void* (*subscriptionsListener)(void*);
  void (*expectListeners)();  // before their threads are started
  /// Waits until both listeners hear their channels or have ended; false when that takes longer.
  bool (*awaitListeners)(std::chrono::milliseconds patience);
  void (*createGeneratedDestinations)(redisContext* redis, const ServiceSettings& settings);
};

/// Brings the daemon up, filling settings and state, and waits for both listeners. Returns the exit status: 0 after
/// both have ended, or -1 after one logged error line. After a failure to start the second listener the first one still
/// runs: the process must then end without destroying what a listener uses.
///
/// With "ListenerRecovery=reconnect" it waits, when both listeners have ended, until Redis answers, and brings the
/// daemon up again, from the files on: what a request has left half done is put right as by a start. Attempts that fail
/// are repeated with growing pauses.
///
/// A std::logic_error, std::regex_error or std::bad_cast that a step throws before the listeners run ends startup
/// with its logged line; any other exception passes through. What the generated
/// destinations throw, with both listeners running, is logged, and startup goes on.
int RunStartUp(const StartUpSteps& steps, ServiceSettings& settings, SubscriptionsState& state);

}  // namespace event_service
