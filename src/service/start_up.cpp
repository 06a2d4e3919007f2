#include "service/start_up.h"

#include <malloc.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <regex>
#include <stdexcept>
#include <typeinfo>
#include <utility>

#include "foundation/logging.h"
#include "foundation/service_manager.h"
#include "platform/conf_parser/conf_parser.h"
#include "service/event_group_id.h"
#include "service/event_service_init.h"
#include "service/life_cycle_event.h"
#include "service/queue_init.h"
#include "service/redis_keys.h"

namespace event_service {
namespace {

constexpr int kFailed = -1;
constexpr std::chrono::seconds kListenerPatience{5};

/// Makes the log file the process's log until the end of start-up's scope, or until Close.
class ProcessLog {
 public:
  explicit ProcessLog(const std::string& configurationFile) {
    // It outlives start-up: a listener may be in the middle of a line when start-up gives up.
    static Logger logger;
    logger = Logger();
    logger.Initialise(configurationFile);
    SetLogger(&logger);
    if (logger.IsEnabled()) LogDebug("Event Service log is starting ...");
  }
  ProcessLog(const ProcessLog&) = delete;
  ProcessLog& operator=(const ProcessLog&) = delete;
  ~ProcessLog() { Close(); }
  void Close() { SetLogger(nullptr); }
};

/// Queues, service and persistent properties. False when one of the first two failed.
bool Initialise(const StartUpSteps& steps, redisContext* redis, ServiceSettings& settings, SubscriptionsState& state) {
  settings.protocolOnly = getConfigValue(settings.paths.configuration, "SupportRedfishProtocolOnly", 128) == "true";
  if (!InitQueues(redis, settings) || !EventServiceInit(redis, settings, state)) return false;
  // A failure has been logged; the service works with the properties as they are.
  [[maybe_unused]] const bool restored = steps.restorePersistentProperties(redis, settings);
  return true;
}

int ReportException(RedisContext redis, const std::exception& error) {
  redis.reset();
  LogError("Error %s occurs while initializing data.", error.what());
  return kFailed;
}

}  // namespace

int RunStartUp(const StartUpSteps& steps, ServiceSettings& settings, SubscriptionsState& state) {
  ForgetMaxEventGroupId();
  ForgetLifeCycleSetting();

  ProcessLog log(settings.paths.configuration);
  if (!state.db.Start().PrepareFiles()) return kFailed;

  RedisContext redis(redisConnectContext());
  if (!redis) {
    LogError("Failed to connect to Redis.");
    return kFailed;
  }

  try {
    if (!Initialise(steps, redis.get(), settings, state)) {
      redis.reset();
      LogError("Failed to initialize Event Service.");
      return kFailed;
    }
  } catch (const std::logic_error& error) {
    return ReportException(std::move(redis), error);
  } catch (const std::regex_error& error) {
    return ReportException(std::move(redis), error);
  } catch (const std::bad_cast& error) {
    LogError("Error occurs while initialize data: %s", error.what());
    return kFailed;
  }

  pthread_t eventServiceListener;
  if (steps.createThread(&eventServiceListener, nullptr, steps.eventServiceListener, nullptr) != 0) {
    LogError("Failed to create thread for subscribing PATCH channel.");
    log.Close();
    return kFailed;
  }
  pthread_t subscriptionsListener;
  if (steps.createThread(&subscriptionsListener, nullptr, steps.subscriptionsListener, nullptr) != 0) {
    LogError("Create thread for subscribe failed.");
    log.Close();
    return kFailed;
  }

  if (!steps.awaitListeners(kListenerPatience)) {
    LogError("A listener does not hear its channel yet; the service is ready without it.");
  }
  // The front end hands over requests from here on.
  if (!IsInteger(SendArguments(redis.get(), {"SREM", "&&AccessBlockList", "EventService"}))) {
    LogError("EventService is ready, but fail to remove it from the block list.");
  }
  if (!TellServiceManagerReady()) {
    LogError("Failed to tell the service manager that the service is ready: %s.", std::strerror(errno));
  }
  try {
    steps.createGeneratedDestinations(redis.get(), settings);
  } catch (const std::exception& error) {
    LogError("The generated event destinations were given up: %s", error.what());
  }

  redis.reset();
  malloc_trim(0);  // what only a start needs goes back to the system
  pthread_join(eventServiceListener, nullptr);
  pthread_join(subscriptionsListener, nullptr);
  return 0;
}

}  // namespace event_service
