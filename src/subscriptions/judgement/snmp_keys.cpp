#include "subscriptions/judgement/snmp_keys.h"

#include <algorithm>

#include "foundation/characters.h"

namespace event_service {
namespace {

bool IsPrintable(char c) { return c >= ' ' && c <= '~'; }

bool IsHexDigit(char c) { return IsDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

bool IsPassphrase(std::string_view text) { return !text.empty() && std::ranges::all_of(text, IsPrintable); }

bool IsHexKey(std::string_view digits, size_t fewest, size_t most) {
  return digits.size() >= fewest && digits.size() <= most && std::ranges::all_of(digits, IsHexDigit);
}

/// The published patterns take any printable text, so that their "Hex:" branch never refuses anything; what they mean
/// is that the prefix decides.
bool IsKey(std::string_view text, size_t fewestDigits, size_t mostDigits) {
  constexpr std::string_view kHex = "Hex:";
  constexpr std::string_view kPassphrase = "Passphrase:";
  if (text.starts_with(kHex)) return IsHexKey(text.substr(kHex.size()), fewestDigits, mostDigits);
  if (text.starts_with(kPassphrase)) return IsPassphrase(text.substr(kPassphrase.size()));
  return IsPassphrase(text);
}

}  // namespace

bool IsSnmpAuthenticationKey(std::string_view text) { return IsKey(text, 24, 96); }

bool IsSnmpEncryptionKey(std::string_view text) { return IsKey(text, 16, 64); }

}  // namespace event_service
