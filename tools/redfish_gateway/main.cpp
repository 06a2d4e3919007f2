/// redfish-gateway: a front end for machines that have none. Speaks HTTP and HTTPS, keeps each request in Redis as a
/// board's front end does, and holds event streams.
///
/// No arguments. EVENT_SERVICE_ROOT names the sandbox whose Redis and settings are used; REDFISH_REGISTRIES a folder of
/// message registries. Ends with SIGTERM or SIGINT: exit status 0; 1 when it cannot start.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "foundation/file_paths.h"
#include "foundation/logging.h"
#include "tools/redfish_gateway/handlers.h"
#include "tools/redfish_gateway/http_server.h"

namespace event_service {
namespace {

constexpr const char* kSettingsFile = "/usr/local/etc/nginx/redfish-gateway.conf";
constexpr size_t kWorkers = 8;

std::string Environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

// Every connection is a descriptor.
void RaiseFileLimit() {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

/// Blocks the signals that end the process, in every thread that starts from here on.
sigset_t BlockEndSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

/// Finds the server once, before other threads do: the answer is kept without a lock.
bool FindRedis() {
  const std::unique_ptr<RedisConnectionInfo, decltype(&std::free)> info(getRedisConnectionInfo(), std::free);
  if (!info) LogError("It is not known how to reach Redis: its configuration cannot be read.");
  return info != nullptr;
}

HttpAnswer RefuseUnread(const Gateway& gateway, int status) {
  if (status == 503) return Unavailable(gateway);
  return Refuse(gateway, status, status == 413 ? "Base.1.12.UnrecognizedRequestBody" : "Base.1.12.GeneralError");
}

int Run(const GatewaySettings& settings) {
  const sigset_t endSignals = BlockEndSignals();
  WorkerPool workers(kWorkers, {.answer = settings.answerTime});
  EventStreams streams([&](const std::string& uri, const std::function<void()>& done) {
    return workers.Submit([uri, done](FrontEndLink& link) {
      DeleteStreamSubscription(link, uri);
      done();
    });
  });
  Gateway gateway{settings, streams};
  if (!LoadOwnResources(gateway, Environment("REDFISH_REGISTRIES"))) return 1;
  HttpServer server(workers,
                    {
                        [&](FrontEndLink& link, const HttpRequest& http) { return Serve(gateway, link, http); },
                        [&](int status) { return RefuseUnread(gateway, status); },
                        [&] { streams.Wake(); },
                    });
  if (!server.Start(settings)) return 1;
  streams.Start();
  for (const ListenAddress& listen : settings.listen) {
    LogDebug("Serves http%s://%s:%u.", listen.isSecure ? "s" : "", listen.address.c_str(), unsigned{listen.port});
  }
  int signal = 0;
  sigwait(&endSignals, &signal);

  // Workers go last of those that hold a connection: each request that was taken is answered.
  server.Quiesce();
  streams.Stop();
  workers.Stop();
  server.Stop();
  return 0;
}

}  // namespace
}  // namespace event_service

int main() {
  using namespace event_service;
  std::signal(SIGPIPE, SIG_IGN);
  umask(077);
  RaiseFileLimit();
  if (!SetPathsFromEnvironment()) {
    LogError("EVENT_SERVICE_ROOT holds characters that a path of the service may not have.");
    return 1;
  }
  const std::string root = Environment("EVENT_SERVICE_ROOT");
  static Logger logger;
  logger.Initialise(root + kSettingsFile);
  SetLogger(&logger);
  const std::optional<GatewaySettings> settings = ReadGatewaySettings(root + kSettingsFile);
  return settings && FindRedis() ? Run(*settings) : 1;
}
