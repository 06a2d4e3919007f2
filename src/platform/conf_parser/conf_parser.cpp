#include "platform/conf_parser/conf_parser.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string_view>

namespace {

constexpr size_t kLargestFile = size_t{1024} * 1024;

/// The text of a file, cut at kLargestFile; empty for anything but a regular file. Opening a FIFO does not wait.
std::string ReadText(const std::string& path) {
  const int file = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (file < 0) return {};
  std::string text;
  struct stat status;
  const bool isRegular = fstat(file, &status) == 0 && S_ISREG(status.st_mode);
  char part[4096];
  for (ssize_t count = 1; isRegular && count > 0 && text.size() < kLargestFile;) {
    count = read(file, part, sizeof part);
    if (count > 0) text.append(part, static_cast<size_t>(count));
  }
  close(file);
  return text;
}

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
  const std::string text = ReadText(file);
  for (std::string_view rest = text; !rest.empty();) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    if (const auto found = ValueInLine(line, separator, key)) value = *found;
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
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
