#include "platform/conf_parser/conf_parser.h"

#include <cstring>
#include <fstream>
#include <optional>
#include <string_view>

namespace {

std::string_view WithoutBlanks(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

/// The value of `key` if the line assigns one.
std::optional<std::string_view> ValueInLine(std::string_view line, std::string_view separator, std::string_view key) {
  if (line.starts_with('#')) return std::nullopt;
  const size_t end = line.find(separator);
  if (end == std::string_view::npos || WithoutBlanks(line.substr(0, end)) != key) return std::nullopt;
  return WithoutBlanks(line.substr(end + separator.size()));
}

std::optional<std::string> ReadValue(const std::string& file, std::string_view separator, std::string_view key) {
  if (separator.empty() || key.empty()) return std::nullopt;
  std::optional<std::string> value;
  std::ifstream input(file);
  for (std::string line; std::getline(input, line);) {
    if (const auto found = ValueInLine(line, separator, key)) value = *found;
  }
  return value;
}

}  // namespace

std::string getConfigValue(const std::string& file, const std::string& key, size_t limit) {
  std::optional<std::string> value = ReadValue(file, "=", key);
  return value && value->size() < limit ? *value : std::string();
}

int getPropertyValue(const char* file, const char* separator, const char* key, char* buffer, size_t size) {
  if (buffer == nullptr || size == 0) return -1;
  buffer[0] = '\0';
  if (file == nullptr || separator == nullptr || key == nullptr) return -1;
  const std::optional<std::string> value = ReadValue(file, separator, key);
  if (!value || value->size() >= size) return -1;
  std::memcpy(buffer, value->c_str(), value->size() + 1);
  return 0;
}
