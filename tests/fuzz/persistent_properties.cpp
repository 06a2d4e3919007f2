// The file of persistent properties.
#include "requests/event_service/persistent_properties.h"

#include <algorithm>

#include "tests/fuzz/fuzz.h"

namespace event_service::fuzz {

void Fuzz(std::string_view input) {
  const PersistentProperties read = ParsePersistentProperties(input);
  const auto lines = static_cast<size_t>(std::ranges::count(input, '\n')) + 1;
  Require(read.values.size() + read.unusableLines.size() <= lines, "a line gives one property at most");
  const PersistentProperties again = ParsePersistentProperties(FormatPersistentProperties(read.values));
  Require(again.unusableLines.empty() && again.values == read.values, "what was read is written and read again");
}

}  // namespace event_service::fuzz
