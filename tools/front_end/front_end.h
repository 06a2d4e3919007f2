/// What a web front end does with requests and resources, around the sending of one request (requests/request_sender).
///
/// For the tools request and redfish-gateway, the benchmarks and the whole-daemon tests. Connections are found as the
/// daemon finds them.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/redis_commands.h"
#include "requests/request_sender.h"
#include "resource_store/store_encoding.h"

namespace event_service {

/// The channel of the service that owns the resource: the Subscriptions collection and what lies below it, or the
/// EventService.
std::string_view ChannelOf(std::string_view uri);

/// The method as the record names it: a POST is an action below an "/Actions/" and a creation elsewhere.
std::string RecordMethod(std::string_view httpMethod, std::string_view uri);

/// The whole road: store, announce (again while no listener takes it), wait, read, remove. Nothing when Redis fails or
/// when listener or answer does not come in time.
std::optional<FrontEndAnswer> SendRequest(redisContext* redis, const FrontEndRequest& request,
                                          std::chrono::milliseconds patience = std::chrono::seconds(15));

/// The stored resource as a client sees it: without control fields, sensitive texts as null, sensitive arrays and their
/// counts empty, references without the store's prefix. Nothing when there is none or Redis fails; a discarded value
/// when what is stored cannot be read.
std::optional<Json> ReadForClient(redisContext* redis, const std::string& uri);

/// Makes the same of a resource that was read with its control fields.
void ShowToClient(Json& document);

}  // namespace event_service
