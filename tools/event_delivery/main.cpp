/// event-delivery: sends queued events to their subscribers over HTTP and HTTPS and publishes them to event streams.
/// For machines that have no delivery of their own; it finds Redis and the configuration as the service does.
///
/// Ends with SIGTERM or SIGINT: status 0. Status 1: another one serves this Redis; 2: the start failed.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/signalfd.h>

#include <algorithm>
#include <csignal>
#include <exception>

#include "foundation/file_paths.h"
#include "foundation/logging.h"
#include "foundation/text_numbers.h"
#include "platform/conf_parser/conf_parser.h"
#include "tools/event_delivery/delivery.h"

namespace event_service {
namespace {

constexpr int kAlreadyRunning = 1;
constexpr int kCannotStart = 2;

/// A descriptor that can be read when the program is asked to end.
int StopDescriptor() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  return signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

/// Two deliveries on one Redis would send the same events. The lock is on the server's configuration file, which stands
/// for it, and goes with the process.
bool IsTheOnlyOne() {
  const int file = open(ProcessPaths().redisConfiguration.c_str(), O_RDONLY | O_CLOEXEC);
  return file < 0 || flock(file, LOCK_EX | LOCK_NB) == 0;
}

HttpSender::Settings ReadSettings() {
  constexpr uint32_t kLongestTimeout = 600;
  HttpSender::Settings settings;
  const std::string& file = ProcessPaths().configuration;
  uint32_t seconds = 0;
  if (ParseInteger(getConfigValue(file, "DeliveryTimeoutSeconds", 128), seconds) == std::errc{} && seconds > 0) {
    settings.timeout = std::chrono::seconds(std::min(seconds, kLongestTimeout));
  }
  settings.caFile = getConfigValue(file, "DeliveryCaFile", 4096);
  return settings;
}

int Run() {
  if (!SetPathsFromEnvironment()) {
    LogError("EVENT_SERVICE_ROOT holds characters that a path of the service may not have.");
    return kCannotStart;
  }
  if (!IsTheOnlyOne()) {
    LogError("Another event-delivery serves this Redis.");
    return kAlreadyRunning;
  }
  std::signal(SIGPIPE, SIG_IGN);
  const int stop = StopDescriptor();
  Delivery delivery(ReadSettings());
  LogDebug(
      "Delivers events to Redfish destinations and event streams; metric reports, heartbeats, SNMP, SMTP and syslog "
      "are left to others.");
  delivery.Run(stop);
  return 0;
}

}  // namespace
}  // namespace event_service

int main() {
  try {
    return event_service::Run();
  } catch (const std::exception& error) {
    event_service::LogError("The event delivery ended: %s", error.what());
    return event_service::kCannotStart;
  }
}
