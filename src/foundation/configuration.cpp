#include "foundation/configuration.h"

#include <algorithm>

#include "platform/conf_parser/conf_parser.h"

namespace event_service {

std::string ReadSetting(const std::string& configurationFile, const SettingKey& key) {
  if (key.reader == SettingReader::kConfigValue) return getConfigValue(configurationFile, key.name, key.limit);
  std::string value(key.limit, '\0');
  if (getPropertyValue(configurationFile.c_str(), "=", key.name, value.data(), value.size()) != 0) return {};
  value.resize(std::min(value.find('\0'), value.size()));
  return value;
}

}  // namespace event_service
