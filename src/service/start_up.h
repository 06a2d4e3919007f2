/// The start-up sequence. What lies above this folder comes in as values, so that the order and the failure exits can
/// be tested with stand-ins.
#pragma once

#include "foundation/file_paths.h"
#include "foundation/redis_commands.h"
#include "service/settings.h"

namespace event_service {

/// What start-up calls in the folders above this one; filled in by main, or by a test.
struct StartUpSteps {
  bool (*restorePersistentProperties)(redisContext* redis, const ServiceSettings& settings);
  void* (*eventServiceListener)(void*);  // pthread entry points, with a null argument
  void* (*subscriptionsListener)(void*);
  void (*createGeneratedDestinations)(redisContext* redis, const ServiceSettings& settings);
};

/// Brings the daemon up and waits for both listeners. Returns the exit status: 0 after both have ended, or -1 after one
/// logged error line. The paths come from ProcessPaths().
int RunStartUp(const StartUpSteps& steps);

}  // namespace event_service
