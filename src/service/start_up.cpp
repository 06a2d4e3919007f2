#include "service/start_up.h"

#include <malloc.h>
#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <regex>
#include <stdexcept>
#include <thread>
#include <typeinfo>
#include <utility>

#include "foundation/logging.h"
#include "foundation/service_manager.h"
#include "service/event_group_id.h"
#include "service/event_service_init.h"
#include "service/life_cycle_event.h"
#include "service/listener_recovery.h"
#include "service/queue_init.h"
#include "service/redis_keys.h"

namespace event_service {
namespace {

constexpr int kFailed = -1;
constexpr std::chrono::seconds kListenerPatience{5};

/// Makes the log file the process's log until the end of its scope.
class ProcessLog {
 public:
  explicit ProcessLog(const std::string& configurationFile) {
    // It outlives startup: a listener may be in the middle of a line when startup gives up.
    static Logger logger;
    logger = Logger();
    logger.Initialise(configurationFile);
    SetLogger(&logger);
    if (logger.IsEnabled()) LogDebug("Event Service log is starting ...");
  }
  ProcessLog(const ProcessLog&) = delete;
  ProcessLog& operator=(const ProcessLog&) = delete;
  ~ProcessLog() { SetLogger(nullptr); }
};

/// What the steps work on.
struct StartUp {
  const StartUpSteps& above;
  ServiceSettings& settings;
  SubscriptionsState& state;
  RedisContext redis = nullptr;
  pthread_t eventServiceListener = {};
  pthread_t subscriptionsListener = {};
};

bool PrepareFiles(StartUp& startUp) { return startUp.state.db.Start().PrepareFiles(); }

bool ConnectToRedis(StartUp& startUp) {
  startUp.redis.reset(redisConnectContext());
  if (!startUp.redis) LogError("Failed to connect to Redis.");
  return startUp.redis != nullptr;
}

bool ReadSettings(StartUp& startUp) {
  ReadConfiguration(startUp.settings);
  return true;
}

bool InitialiseQueues(StartUp& startUp) { return InitQueues(startUp.redis.get(), startUp.settings); }

bool InitialiseService(StartUp& startUp) {
  return EventServiceInit(startUp.redis.get(), startUp.settings, startUp.state);
}

/// A failure has been logged; the service works with the properties as they are.
bool RestorePersistentProperties(StartUp& startUp) {
  [[maybe_unused]] const bool restored =
      startUp.above.restorePersistentProperties(startUp.redis.get(), startUp.settings);
  return true;
}

bool StartEventServiceListener(StartUp& startUp) {
  startUp.above.expectListeners();
  if (pthread_create(&startUp.eventServiceListener, nullptr, startUp.above.eventServiceListener, nullptr) == 0) {
    return true;
  }
  LogError("Failed to create thread for subscribing PATCH channel.");
  return false;
}

bool StartSubscriptionsListener(StartUp& startUp) {
  if (pthread_create(&startUp.subscriptionsListener, nullptr, startUp.above.subscriptionsListener, nullptr) == 0) {
    return true;
  }
  LogError("Create thread for subscribe failed.");
  return false;
}

bool AwaitListeners(StartUp& startUp) {
  if (!startUp.above.awaitListeners(kListenerPatience)) {
    LogError("A listener does not hear its channel yet; the service is ready without it.");
  }
  return true;
}

/// The front end hands over requests from here on.
bool LeaveBlockList(StartUp& startUp) {
  if (!IsInteger(SendArguments(startUp.redis.get(), {"SREM", "&&AccessBlockList", "EventService"}))) {
    LogError("EventService is ready, but fail to remove it from the block list.");
  }
  return true;
}

bool TellServiceManager(StartUp& /*startUp*/) {
  if (!TellServiceManagerReady()) {
    LogError("Failed to tell the service manager that the service is ready: %s.", std::strerror(errno));
  }
  return true;
}

bool CreateDestinations(StartUp& startUp) {
  try {
    startUp.above.createGeneratedDestinations(startUp.redis.get(), startUp.settings);
  } catch (const std::exception& error) {
    LogError("The generated event destinations were given up: %s", error.what());
  }
  return true;
}

bool Disconnect(StartUp& startUp) {
  startUp.redis.reset();
  malloc_trim(0);  // what only a start needs goes back to the system
  return true;
}

bool JoinListeners(StartUp& startUp) {
  pthread_join(startUp.eventServiceListener, nullptr);
  pthread_join(startUp.subscriptionsListener, nullptr);
  return true;
}

enum class Phase {
  kPrepare,     // a step that fails has said why
  kInitialise,  // a line follows on the step's own, and exceptions are caught
  kServe,       // with listeners; a step that fails has said why
};

/// Every step of a start, in its order. The log has been opened before.
constexpr struct {
  Phase phase;
  bool (*run)(StartUp& startUp);  // false: the start has failed
} kSteps[] = {
    {Phase::kPrepare, PrepareFiles},
    {Phase::kPrepare, ConnectToRedis},
    {Phase::kInitialise, ReadSettings},
    {Phase::kInitialise, InitialiseQueues},
    {Phase::kInitialise, InitialiseService},
    {Phase::kInitialise, RestorePersistentProperties},
    {Phase::kServe, StartEventServiceListener},
    {Phase::kServe, StartSubscriptionsListener},
    {Phase::kServe, AwaitListeners},
    {Phase::kServe, LeaveBlockList},
    {Phase::kServe, TellServiceManager},
    {Phase::kServe, CreateDestinations},
    {Phase::kServe, Disconnect},
    {Phase::kServe, JoinListeners},
};

/// Runs the steps of a phase up to the first that fails.
bool Run(Phase phase, StartUp& startUp) {
  return std::ranges::all_of(kSteps, [&](const auto& step) { return step.phase != phase || step.run(startUp); });
}

bool ReportException(StartUp& startUp, const std::exception& error) {
  startUp.redis.reset();
  LogError("Error %s occurs while initializing data.", error.what());
  return false;
}

bool Initialise(StartUp& startUp) {
  try {
    if (Run(Phase::kInitialise, startUp)) return true;
    startUp.redis.reset();
    LogError("Failed to initialize Event Service.");
    return false;
  } catch (const std::logic_error& error) {
    return ReportException(startUp, error);
  } catch (const std::regex_error& error) {
    return ReportException(startUp, error);
  } catch (const std::bad_cast& error) {
    LogError("Error occurs while initialize data: %s", error.what());
    return false;
  }
}

/// Not while it loads its data.
bool RedisAnswers() {
  const RedisContext redis(redisConnectContext());
  return redis && TextOf(SendArguments(redis.get(), {"PING"})) == "PONG";
}

/// With no listener running: tries until everything is as after a start. `pause` is the last one, before and after.
void BringUpAgain(StartUp& startUp, std::chrono::milliseconds served, std::chrono::milliseconds& pause) {
  bool isUp = false;
  while (!isUp) {
    pause = NextPause(pause, std::exchange(served, {}));
    std::this_thread::sleep_for(pause);
    startUp.settings = ServiceSettings();
    isUp = RedisAnswers() && Run(Phase::kPrepare, startUp) && Initialise(startUp);
  }
  LogDebug("The service is connected to Redis again.");
}

}  // namespace

int RunStartUp(const StartUpSteps& steps, ServiceSettings& settings, SubscriptionsState& state) {
  ForgetMaxEventGroupId();
  ForgetLifeCycleSetting();

  const ProcessLog log(settings.paths.configuration);
  StartUp startUp{steps, settings, state};
  if (!Run(Phase::kPrepare, startUp) || !Initialise(startUp)) return kFailed;
  for (std::chrono::milliseconds pause{};;) {
    const auto begin = std::chrono::steady_clock::now();
    if (!Run(Phase::kServe, startUp)) return kFailed;
    if (settings.listenerRecovery != ListenerRecovery::kReconnect) return 0;
    const auto served = std::chrono::steady_clock::now() - begin;
    BringUpAgain(startUp, std::chrono::duration_cast<std::chrono::milliseconds>(served), pause);
  }
}

}  // namespace event_service
