#include "resource_store/store_log.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace event_service {
namespace {

constexpr size_t kLongestValue = 256;

void AppendValue(std::string& line, std::string_view value) {
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; };
  std::ranges::replace_copy_if(value.substr(0, kLongestValue), std::back_inserter(line), isControl, '?');
}

// One call for the whole line: two threads' lines never mix.
void WriteLine(std::string line) {
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace

void LogStoreError(std::string_view message, std::initializer_list<StoreLogField> context) {
  std::string line = "[ERROR] ";
  line += message;
  for (const StoreLogField& field : context) {
    line += field.label;
    AppendValue(line, field.value);
  }
  WriteLine(std::move(line));
}

void LogStoreInfo(std::string_view message) { WriteLine("[INFO] " + std::string(message)); }

}  // namespace event_service
