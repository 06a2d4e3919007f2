/// What the gateway is made of besides the HTTP server, and the way of one request through it.
#pragma once

#include <chrono>
#include <map>
#include <shared_mutex>
#include <string>

#include "tools/front_end/front_end_link.h"
#include "tools/redfish_gateway/event_streams.h"
#include "tools/redfish_gateway/http_message.h"
#include "tools/redfish_gateway/prepared_resources.h"
#include "tools/redfish_gateway/registries.h"
#include "tools/redfish_gateway/request_body.h"
#include "tools/redfish_gateway/sessions.h"
#include "tools/redfish_gateway/settings.h"
#include "tools/redfish_gateway/uri.h"

namespace event_service {

struct Gateway {
  const GatewaySettings& settings;
  EventStreams& streams;
  Registries registries = {};
  std::map<std::string, Json> ownResources = {};  // by path
  std::string metadata = {};
  Sessions sessions{};
  PreparedResources prepared = {};
  /// Held alone from the check of a precondition to the end of the change that it guards, shared by all other changes.
  std::shared_timed_mutex changes = {};
};

/// Reads the resources that the gateway itself serves, and the registries. False, after one log line, when a file is
/// missing or damaged.
bool LoadOwnResources(Gateway& gateway, const std::string& registryFolder);

/// One request on its way. Handlers get it, and give the answer.
struct Call {
  Gateway& gateway;
  FrontEndLink& link;
  const HttpRequest& http;
  RequestTarget target;

  std::string LastSegment() const { return target.path.substr(target.path.rfind('/') + 1); }
};

/// Answers one request. Any thread, with a link of its own.
HttpAnswer Serve(Gateway& gateway, FrontEndLink& link, const HttpRequest& request);

HttpAnswer Refuse(const Gateway& gateway, int status, std::string_view messageId, std::vector<std::string> args = {});
HttpAnswer RefuseAll(const Gateway& gateway, int status, const std::vector<FrontEndMessage>& messages);
HttpAnswer Refuse(const Gateway& gateway, const BodyFault& fault);
/// 503: for when the daemon or Redis does not answer.
HttpAnswer Unavailable(const Gateway& gateway);
HttpAnswer NotFound(const Call& call);

}  // namespace event_service
