#include "tools/redfish_gateway/authentication.h"

#include <cstdint>
#include <optional>

namespace event_service {
namespace {

constexpr std::string_view kBasic = "Basic ";

std::optional<std::string> DecodeBase64(std::string_view text) {
  constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string decoded;
  uint32_t bits = 0;
  int count = 0;
  while (text.ends_with('=')) text.remove_suffix(1);
  for (const char c : text) {
    const size_t digit = kDigits.find(c);
    if (digit == std::string_view::npos) return std::nullopt;
    bits = bits << 6 | static_cast<uint32_t>(digit);
    count += 6;
    if (count < 8) continue;
    count -= 8;
    decoded += static_cast<char>(bits >> count & 0xff);
  }
  return decoded;
}

}  // namespace

bool IsUser(const GatewaySettings& settings, std::string_view name, std::string_view password) {
  // Both are compared, so that the time does not tell which one is wrong.
  const bool isName = EqualSecrets(name, settings.userName);
  const bool isPassword = EqualSecrets(password, settings.password);
  return isName && isPassword;
}

bool HasCredentials(Gateway& gateway, const HttpRequest& request) {
  const std::string_view token = request.Header("X-Auth-Token");
  if (!token.empty()) return gateway.sessions.Use(token);
  const std::string_view given = request.Header("Authorization");
  if (!EqualIgnoringCase(given.substr(0, kBasic.size()), kBasic)) return false;
  const std::optional<std::string> pair = DecodeBase64(given.substr(kBasic.size()));
  const size_t colon = pair ? pair->find(':') : std::string::npos;
  if (colon == std::string::npos) return false;
  return IsUser(gateway.settings, std::string_view(*pair).substr(0, colon), std::string_view(*pair).substr(colon + 1));
}

}  // namespace event_service
