#include "foundation/configuration.h"

#include "platform/conf_parser/conf_parser.h"

namespace event_service {

std::string ReadSetting(const std::string& configurationFile, const SettingKey& key) {
  if (key.reader == SettingReader::kConfigValue) return getConfigValue(configurationFile, key.name, key.limit);
  std::string value(key.limit, '\0');
  const bool found = getPropertyValue(configurationFile.c_str(), "=", key.name, value.data(), value.size()) == 0;
  return found ? value.c_str() : std::string();
}

}  // namespace event_service
