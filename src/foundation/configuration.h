/// The settings that the daemon reads from its configuration file: each has one row here and is read in one way.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace event_service {

/// The platform's reader has two functions; boards with a reader of their own rely on which key goes through which.
enum class SettingReader { kConfigValue, kPropertyValue };

/// What reading needs.
struct SettingKey {
  const char* name;
  size_t limit;  // a value of so many bytes counts as absent
  SettingReader reader;
};

/// docs/operations.md shows the rows as they stand here, which a test checks.
struct Setting {
  SettingKey key;
  const char* values;
  const char* meaning;
  const char* fallback;  // without the key, or with any other value
};

inline constexpr Setting kSettings[] = {
    {{"SupportRedfishProtocolOnly", 128, SettingReader::kConfigValue},
     "true",
     "subscriptions of other protocols are left to another service, SMTP is not set up",
     "all protocols are served"},
    {{"GenerateResourceEvent", 128, SettingReader::kConfigValue}, "false", "no life-cycle events", "events are raised"},
    {{"EnableFilterRegistryPrefixes", 128, SettingReader::kConfigValue},
     "false",
     "no RegistryPrefixes are offered, and their list is deleted at every startup",
     "the list is offered"},
    {{"DefaultRetryPolicy", 64, SettingReader::kPropertyValue},
     "one of TerminateAfterRetries, SuspendRetries, RetryForever, RetryForeverWithBackoff; quotes are tolerated",
     "for subscriptions that name none",
     "TerminateAfterRetries"},
    {{"MaxCountOfEventSubscriptions", 64, SettingReader::kPropertyValue},
     "1 to 200, digits without leading zeros",
     "the largest number of subscriptions",
     "100"},
    {{"ListenerRecovery", 128, SettingReader::kConfigValue},
     "exit, reconnect",
     "what follows when a listener loses Redis, see \"When Redis goes away\"",
     "the listener ends, the other one goes on"},
    {{"SSLSoftware", 128, SettingReader::kConfigValue},
     "text",
     "for outgoing connections, kept in single quotes",
     "an empty pair of quotes"},
    {{"SSLOption", 128, SettingReader::kConfigValue}, "text", "the same", "nothing"},
    {{"LOG_FILE", 128, SettingReader::kPropertyValue}, "path", "the log", "every line goes to standard error"},
    {{"LOG_FILE_BAK", 128, SettingReader::kPropertyValue},
     "path",
     "where the previous run's log is moved at startup, over an older one",
     "the previous log is emptied"},
    {{"LOG_FILE_SIZE", 128, SettingReader::kPropertyValue},
     "bytes",
     "a log of this size or more is moved aside before the next line",
     "never: 0, negative, absent"},
    {{"LOG_LEVEL", 128, SettingReader::kPropertyValue}, "error", "debug lines are left out", "debug lines are written"},
    {{"LOG_SYSTEM", 128, SettingReader::kPropertyValue},
     "name of a process",
     "when it runs at startup, every line goes to standard error and no other LOG_ key is read",
     "the other keys count"},
};

/// The key of a row; a name without one does not compile.
consteval SettingKey SettingNamed(std::string_view name) {
  for (const Setting& setting : kSettings) {
    if (setting.key.name == name) return setting.key;
  }
  throw "there is no such setting";
}

/// The value in the configuration file; empty when it is absent, too long, or the file cannot be read. Logs nothing.
std::string ReadSetting(const std::string& configurationFile, const SettingKey& key);

}  // namespace event_service
