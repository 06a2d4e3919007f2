/// The file that keeps what clients have changed of the EventService, so that it outlives the loss of Redis: lines
/// "Name=JSON text", such as SMTP/Port=25. The password stands in it encrypted.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "foundation/redis_commands.h"
#include "requests/event_service/service_properties.h"
#include "service/settings.h"

namespace event_service {

struct PersistentProperties {
  ServiceValues values;               // of two lines for one property the later counts
  std::vector<size_t> unusableLines;  // numbers from 1
};

/// The content of the file, line by line; a line without "=", of an unknown property or with an unacceptable value is
/// unusable.
PersistentProperties ParsePersistentProperties(std::string_view text);
/// The content of the file for these values, sorted by name.
std::string FormatPersistentProperties(const ServiceValues& values);

/// Adds the changed values to the file. False after a logged line; the file then stays as it was.
[[nodiscard]] bool SavePersistentProperties(const std::string& file, const ServiceValues& changed);

/// At startup: writes the file's values into Redis where they differ. True also without a file; lines that cannot be
/// used are logged and passed over. False after one logged line.
bool RestorePersistentProperties(redisContext* redis, const ServiceSettings& settings);

}  // namespace event_service
