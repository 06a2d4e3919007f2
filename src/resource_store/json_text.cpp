#include "resource_store/json_text.h"

#include <algorithm>
#include <limits>

namespace event_service {
namespace {

bool TakeDigits(std::string_view& text) {
  const size_t count = std::min(text.find_first_not_of("0123456789"), text.size());
  text.remove_prefix(count);
  return count > 0;
}

bool TakeOne(std::string_view& text, std::string_view characters) {
  if (text.empty() || characters.find(text.front()) == std::string_view::npos) return false;
  text.remove_prefix(1);
  return true;
}

}  // namespace

bool IsJsonNumber(std::string_view text) {
  TakeOne(text, "-");
  if (!TakeOne(text, "0") && !TakeDigits(text)) return false;
  if (TakeOne(text, ".") && !TakeDigits(text)) return false;
  if (TakeOne(text, "eE")) {
    TakeOne(text, "+-");
    if (!TakeDigits(text)) return false;
  }
  return text.empty();
}

bool ParseJsonText(std::string_view text, Json& value, bool& exact) {
  if (text.find('\0') != std::string_view::npos) return false;  // the parser would take it for the end
  value = Json::parse(text, nullptr, false);
  if (value.is_discarded()) {
    if (!IsJsonNumber(text)) return false;
    // The parser refuses what no double can hold; for JSON it is a number like any other.
    value = text.starts_with('-') ? std::numeric_limits<double>::lowest() : std::numeric_limits<double>::max();
  }
  exact = value.is_number_float() ? value.dump() == text : text != "-0";
  return true;
}

}  // namespace event_service
