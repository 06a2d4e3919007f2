/// Who may use the service: the one user of the settings, by Basic authentication or with a session's token.
#pragma once

#include "tools/redfish_gateway/gateway.h"

namespace event_service {

bool IsUser(const GatewaySettings& settings, std::string_view name, std::string_view password);

/// True when the request brings the token of a session or, without a token, the user's name and password.
bool HasCredentials(Gateway& gateway, const HttpRequest& request);

}  // namespace event_service
