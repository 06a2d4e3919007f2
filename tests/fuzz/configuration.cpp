// The configuration file: a key in the first line, then the file.
#include "platform/conf_parser/conf_parser.h"

#include <algorithm>
#include <cstring>

#include "tests/fuzz/fuzz.h"

namespace event_service::fuzz {

void Fuzz(std::string_view input) {
  constexpr size_t kLimit = 64;
  const std::string key(TakeLine(input));
  const std::string& path = Sandbox().Paths().configuration;
  WriteFile(path, input);
  const std::string value = getConfigValue(path, key, kLimit);
  Require(value.size() < kLimit && value.find('\n') == std::string::npos, "a value is a part of a line");
  Require(value.find_first_not_of(" \t\r") == 0 || value.empty(), "without blanks around it");
  char buffer[kLimit];
  const int status = getPropertyValue(path.c_str(), "=", key.c_str(), buffer, sizeof buffer);
  const bool isCut = key.find('\0') != std::string::npos;
  Require(isCut || std::strcmp(buffer, value.c_str()) == 0, "both functions find the same");
  Require(status == 0 || buffer[0] == '\0', "and nothing together with a failure");

  const bool isName = !key.empty() && key.find_first_of("#= \t\r") == std::string::npos;
  if (!isName) return;
  WriteFile(path, std::string(input) + "\n " + key + " = last \n");
  Require(getConfigValue(path, key, kLimit) == "last", "the last of two equal keys counts");
}

}  // namespace event_service::fuzz
