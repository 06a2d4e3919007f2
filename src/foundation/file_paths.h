/// Every fixed path of the daemon, in one place.
///
/// The defaults are the product's. A root (environment variable EVENT_SERVICE_ROOT, read once in main) moves all of
/// them below another folder, which sandbox, tests and benchmarks use. /proc and /dev are never moved.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace event_service {

struct FilePaths {
  std::string configuration = "/usr/local/etc/nginx/eventingMode.conf";
  std::string redisConfiguration = "/etc/redis/redis.conf";
  std::string databaseFile = "/var/nginx/EventSubscriptionInfo.json";
  std::string plainDatabaseFile = "/var/nginx/EventSubscriptionInfo.tmp.json";
  std::string passwordFile = "/var/nginx/subscription_db.key";
  std::string defaultDatabaseFile = "/usr/local/share/tarn_default_sdata/v1/EventService/Subscriptions/index.json";
  std::string persistentProperties = "/var/nginx/EventPersistentProp.conf";
  std::string generatedDestinations = "/var/nginx/GenerateEventDestinations.json";
  std::string resourceLoader = "/usr/bin/ResourceLoader";
  std::string startUpMapScript = "/usr/bin/InitUriAndSubscriptionMap.lua";
  std::string headerValidatorModule = "/usr/local/nginx/lua/RequestHttpHeaderValidator";  // without ".lua"
  std::string syslogCertificates = "/etc/certs/rsyslog/";
  std::string systemCertificates = "/etc/default/obmc/cert/";
  std::string openssl = "/usr/bin/openssl";  // under a root the system's own serves when the root holds none
};

/// The product's paths below `root`; an empty root gives the product's paths themselves. Nothing when the root holds a
/// character that a shell would need quoted: the paths become part of shell commands.
std::optional<FilePaths> MakeFilePaths(std::string_view root);

/// The paths of this process: the product's until SetProcessPaths is called.
const FilePaths& ProcessPaths();

/// Called once, by main, before any other thread runs (by tests between their cases).
void SetProcessPaths(FilePaths paths);

/// For tools: sets them below what EVENT_SERVICE_ROOT names. False when it holds a character that would need quoting.
bool SetPathsFromEnvironment();

}  // namespace event_service
