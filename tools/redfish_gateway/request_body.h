/// The body of a request as JSON, or what is wrong with it.
#pragma once

#include <span>
#include <variant>
#include <vector>

#include "tools/front_end/front_end.h"
#include "tools/redfish_gateway/http_message.h"

namespace event_service {

struct BodyFault {
  int status;
  FrontEndMessage message;
};

/// The body as a JSON object. A body of another media type is a fault (415), and so is one that is no JSON object or
/// names a property twice (400). No body at all is an empty object where `mayBeMissing`.
std::variant<Json, BodyFault> ReadBody(const HttpRequest& request, bool mayBeMissing);

/// A message for each of the required properties that a creation's body lacks.
std::vector<FrontEndMessage> MissingProperties(const Json& body, std::span<const char* const> required);

}  // namespace event_service
