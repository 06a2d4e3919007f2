#include "requests/value_checks.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace event_service {

std::optional<Fault> CheckText(const Json& value, size_t limit) {
  if (!value.is_string()) return Fault{FaultKind::kType};
  const std::string& text = value.get_ref<const std::string&>();
  if (text.size() > limit) return Fault{FaultKind::kTooLong, limit};
  if (text.find('\0') != std::string::npos) return Fault{FaultKind::kFormat};
  return std::nullopt;
}

std::optional<Fault> CheckLine(const Json& value) {
  if (const std::optional<Fault> fault = CheckText(value)) return fault;
  if (HasControlCharacter(value.get_ref<const std::string&>())) return Fault{FaultKind::kFormat};
  return std::nullopt;
}

bool HasControlCharacter(std::string_view text) {
  return std::ranges::any_of(text, [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; });
}

std::optional<Fault> CheckBoolean(const Json& value) {
  if (value.is_boolean()) return std::nullopt;
  return Fault{FaultKind::kType};
}

std::optional<Fault> CheckInteger(const Json& value, int64_t smallest, int64_t largest) {
  if (!value.is_number()) return Fault{FaultKind::kType};
  if (value.is_number_float() && value.get<double>() != std::trunc(value.get<double>())) return Fault{FaultKind::kType};
  const std::optional<int64_t> number = WholeNumber(value);
  if (number && smallest <= *number && *number <= largest) return std::nullopt;
  return Fault{FaultKind::kOutOfRange};
}

std::optional<Fault> CheckInWords(const Json& value, std::span<const std::string_view> words) {
  if (!value.is_string()) return Fault{FaultKind::kType};
  if (std::ranges::find(words, value.get_ref<const std::string&>()) != words.end()) return std::nullopt;
  return Fault{FaultKind::kNotInList};
}

std::optional<Fault> CheckArray(const Json& value, size_t limit) {
  if (!value.is_array()) return Fault{FaultKind::kType};
  if (value.size() > limit) return Fault{FaultKind::kValue};
  return std::nullopt;
}

std::optional<Fault> CheckStringElement(const Json& element, size_t limit) {
  const std::optional<Fault> fault = CheckText(element, limit);
  if (!fault && LooksLikeMarker(element.get_ref<const std::string&>())) return Fault{FaultKind::kType};
  return fault;
}

std::optional<int64_t> WholeNumber(const Json& value) {
  if (value.is_number_unsigned()) {
    const uint64_t number = value.get<uint64_t>();
    if (number > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return std::nullopt;
    return static_cast<int64_t>(number);
  }
  if (value.is_number_integer()) return value.get<int64_t>();
  if (!value.is_number_float()) return std::nullopt;
  const double number = value.get<double>();
  constexpr double kBeyond = 9223372036854775808.0;  // 2^63
  if (number != std::trunc(number) || number < -kBeyond || number >= kBeyond) return std::nullopt;
  return static_cast<int64_t>(number);
}

}  // namespace event_service
