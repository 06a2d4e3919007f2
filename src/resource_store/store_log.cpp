#include "resource_store/store_log.h"

#include <cstdio>
#include <string>
#include <utility>

#include "foundation/logging.h"

namespace event_service {
namespace {

constexpr size_t kLongestValue = 256;

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
    line += Printable(field.value.substr(0, kLongestValue));
  }
  WriteLine(std::move(line));
}

void LogStoreInfo(std::string_view message) { WriteLine("[INFO] " + std::string(message)); }

}  // namespace event_service
