#include "tools/redfish_gateway/settings.h"

#include <arpa/inet.h>

#include "foundation/logging.h"
#include "foundation/text_numbers.h"
#include "platform/conf_parser/conf_parser.h"

namespace event_service {
namespace {

constexpr size_t kLongestValue = 1024;
constexpr const char* kDefaultPassword = "sandbox";

struct Listener {
  const char* addressKey;
  const char* portKey;
  bool isSecure;
};
constexpr Listener kListeners[] = {{"HTTP_ADDRESS", "HTTP_PORT", false}, {"HTTPS_ADDRESS", "HTTPS_PORT", true}};

bool IsAddress(const std::string& text) {
  in6_addr ignored;
  return inet_pton(AF_INET, text.c_str(), &ignored) == 1 || inet_pton(AF_INET6, text.c_str(), &ignored) == 1;
}

bool IsLoopback(const std::string& address) { return address.starts_with("127.") || address == "::1"; }

bool MayListen(const ListenAddress& listen, bool isPortRead, bool hasOwnPassword) {
  const char* address = listen.address.c_str();
  if (!IsAddress(listen.address)) {
    LogError("%s is no address to listen on.", address);
  } else if (!isPortRead || listen.port == 0) {
    LogError("The port for %s is no number from 1 to 65535.", address);
  } else if (!IsLoopback(listen.address) && !listen.isSecure) {
    LogError("Beyond loopback only HTTPS is served, not HTTP on %s.", address);
  } else if (!IsLoopback(listen.address) && !hasOwnPassword) {
    LogError("To serve %s, beyond loopback, set a PASSWORD of your own.", address);
  } else {
    return true;
  }
  return false;
}

}  // namespace

std::optional<GatewaySettings> ReadGatewaySettings(const std::string& file) {
  const auto value = [&](const char* key) { return getConfigValue(file, key, kLongestValue); };
  const std::string password = value("PASSWORD");
  GatewaySettings settings{.listen = {},
                           .certificateFile = value("CERTIFICATE"),
                           .keyFile = value("PRIVATE_KEY"),
                           .resourceFolder = value("RESOURCES"),
                           .userName = value("USER_NAME"),
                           .password = password.empty() ? kDefaultPassword : password};
  if (settings.userName.empty()) settings.userName = "admin";
  int seconds = 0;
  if (ParseInteger(value("ANSWER_SECONDS"), seconds) == std::errc() && seconds >= 1 && seconds <= 3600) {
    settings.answerTime = std::chrono::seconds(seconds);
  }
  for (const Listener& listener : kListeners) {
    ListenAddress listen{.address = value(listener.addressKey), .port = 0, .isSecure = listener.isSecure};
    if (listen.address.empty()) continue;
    const bool isPortRead = ParseInteger(value(listener.portKey), listen.port) == std::errc();
    if (!MayListen(listen, isPortRead, !password.empty())) return std::nullopt;
    settings.listen.push_back(listen);
  }
  if (!settings.listen.empty()) return settings;
  LogError("%s names no address to listen on.", file.c_str());
  return std::nullopt;
}

}  // namespace event_service
