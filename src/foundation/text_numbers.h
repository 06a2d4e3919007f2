/// Numbers written as text, converted whole.
#pragma once

#include <charconv>
#include <concepts>
#include <string>
#include <string_view>
#include <system_error>

namespace event_service {

/// Converts an optional sign and decimal digits up to the end of the text. Returns no error and sets `value`, or
/// std::errc::invalid_argument, or std::errc::result_out_of_range; then `value` keeps what it had.
template <std::integral Integer>
std::errc ParseInteger(std::string_view text, Integer& value) {
  const bool hasPlus = text.size() > 1 && text[0] == '+' && text[1] != '-';
  const char* begin = text.data() + (hasPlus ? 1 : 0);
  const char* end = text.data() + text.size();
  Integer parsed{};
  const auto [stop, error] = std::from_chars(begin, end, parsed);
  if (error != std::errc{} && error != std::errc::result_out_of_range) return error;
  if (stop != end) return std::errc::invalid_argument;
  if (error != std::errc{}) return error;
  value = parsed;
  return {};
}

/// All hexadecimal digits of an unsigned number, in capitals: "0000BEEF" for 32 bits.
template <std::unsigned_integral Integer>
std::string HexText(Integer value) {
  std::string text(2 * sizeof value, '0');
  for (auto digit = text.rbegin(); digit != text.rend(); ++digit, value >>= 4) *digit = "0123456789ABCDEF"[value % 16];
  return text;
}

}  // namespace event_service
