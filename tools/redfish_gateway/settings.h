/// The gateway's settings, from a file of "KEY=value" lines like the daemon's.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace event_service {

struct ListenAddress {
  std::string address;  // an IPv4 or IPv6 address
  uint16_t port = 0;
  bool isSecure = false;
};

struct GatewaySettings {
  std::vector<ListenAddress> listen;
  std::string certificateFile;
  std::string keyFile;
  std::string resourceFolder;  // of the resources that the gateway itself serves
  std::string userName;
  std::string password;
  std::chrono::seconds answerTime{15};  // that the daemon has for an answer
};

/// Nothing, after one log line, for settings with which the gateway must not or cannot run: an address or port that is
/// none, no address at all, an address beyond loopback without TLS and a password of the user's own.
std::optional<GatewaySettings> ReadGatewaySettings(const std::string& file);

}  // namespace event_service
