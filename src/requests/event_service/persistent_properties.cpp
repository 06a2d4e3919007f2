#include "requests/event_service/persistent_properties.h"

#include <algorithm>
#include <cerrno>
#include <optional>

#include "foundation/durable_file.h"
#include "foundation/logging.h"
#include "resource_store/json_text.h"

namespace event_service {
namespace {

// Several times what all properties together can become; each line that cannot be used costs one in the log.
constexpr size_t kLargestText = size_t{64} * 1024;

/// The whole file, empty when there is none; nothing when it cannot be read.
std::optional<std::string> ReadKeptText(const std::string& path) {
  std::optional<std::string> text = ReadOwnFile(path, kLargestText);
  if (!text && errno == ENOENT) return "";
  return text;
}

bool TakeLine(std::string_view line, ServiceValues& values) {
  const size_t equals = line.find('=');
  if (equals == std::string_view::npos) return false;
  const std::string_view path = line.substr(0, equals);
  Json value = ParseOutsideText(line.substr(equals + 1));
  if (value.is_discarded() || !AcceptKeptValue(path, value)) return false;
  values.insert_or_assign(std::string(path), std::move(value));
  return true;
}

}  // namespace

PersistentProperties ParsePersistentProperties(std::string_view text) {
  PersistentProperties properties;
  for (size_t number = 1; !text.empty(); ++number) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    if (!line.empty() && !TakeLine(line, properties.values)) properties.unusableLines.push_back(number);
  }
  return properties;
}

std::string FormatPersistentProperties(const ServiceValues& values) {
  std::string text;
  for (const auto& [path, value] : values) text.append(path).append("=").append(value.dump()).append("\n");
  return text;
}

bool SavePersistentProperties(const std::string& file, const ServiceValues& changed) {
  const std::optional<std::string> text = ReadKeptText(file);
  if (!text) {
    LogError("Failed to read the persistent properties; the change is not kept.");
    return false;
  }
  ServiceValues values = ParsePersistentProperties(*text).values;
  for (const auto& [path, value] : changed) values.insert_or_assign(path, value);
  if (ReplaceFile(file, FormatPersistentProperties(values))) return true;
  LogError("Failed to write the persistent properties; the change is not kept.");
  return false;
}

bool RestorePersistentProperties(redisContext* redis, const ServiceSettings& settings) {
  const std::optional<std::string> text = ReadKeptText(settings.paths.persistentProperties);
  if (!text) {
    LogError("Failed to read the persistent properties.");
    return false;
  }
  PersistentProperties properties = ParsePersistentProperties(*text);
  for (const size_t line : properties.unusableLines) {
    LogError("Line %zu of the persistent properties is passed over: not a known property with a valid value.", line);
  }
  // While SMTP is not served its lines stay in the file.
  if (settings.protocolOnly) std::erase_if(properties.values, [](const auto& v) { return IsSmtpPath(v.first); });
  if (properties.values.empty()) return true;

  std::optional<StoredService> stored;
  RedisPipeline pipeline(redis);
  ReadStoredService(pipeline, stored);
  pipeline.Execute();
  if (!stored) {
    LogError("Failed to read the EventService for its persistent properties.");
    return false;
  }
  const ServiceValues changed = ChangedValues(properties.values, *stored);
  ServiceWrites writes;
  WriteServiceValues(pipeline, changed, writes);
  bool isEtagWritten = true;
  // Startup sets the password to null; writing it back changes nothing that a client sees.
  if (changed.size() > changed.count(kSmtpPassword)) WriteServiceEtag(pipeline, isEtagWritten);
  pipeline.Execute();
  if (writes.areComplete && isEtagWritten) return true;
  LogError("Failed to write the persistent properties into the database.");
  return false;
}

}  // namespace event_service
