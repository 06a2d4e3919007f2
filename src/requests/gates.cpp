#include "requests/gates.h"

#include "foundation/logging.h"

namespace event_service {

std::optional<Answer> CheckServiceEnabled(const Request& request) {
  if (request.record.serviceEnabled == "true") return std::nullopt;
  return Refuse(kUnavailable, "ExtendedError.1.2.ServiceDisabled");
}

std::optional<Answer> CheckRedfishProtocol(const Request& request, std::string_view key) {
  if (!request.settings.protocolOnly || HashRead(request.redis, key, "Protocol") == "\"Redfish\"") return std::nullopt;
  LogDebug("Tarn doesn't need to handle the non Redfish protocol event destination.");
  return Refuse(kIgnore, "");
}

}  // namespace event_service
