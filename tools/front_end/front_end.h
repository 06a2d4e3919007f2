/// The web front end's side of a request: keeps the request in Redis, announces it, waits for the answer and reads it.
///
/// For the tools request and redfish-gateway, the benchmarks and the whole-daemon tests. The keys are those that
/// docs/protocol.md describes; connections are found as the daemon finds them.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/redis_commands.h"
#include "resource_store/store_encoding.h"

namespace event_service {

/// One request as a client made it.
struct FrontEndRequest {
  std::string method;  // as the record names it: "PATCH", "POSTCREATE", "POSTACTION", "DELETE", "GET", "HEAD"
  std::string targetUri;
  std::optional<Json> body;
  std::string privileges = "ConfigureManager";
  std::string sseChannel = {};  // not empty: the request opens a stream of server-sent events
};

/// Where a request lies in Redis. Every key begins with the request key.
struct StoredRequest {
  std::string requestKey;
  std::string responseKey;
  std::string returnChannel;
};

struct FrontEndMessage {
  std::string id;
  std::vector<std::string> args;
  std::vector<std::string> relatedProperties;  // "#/Context"
};

struct FrontEndAnswer {
  std::string status;  // empty: none was written, as for GET
  std::vector<FrontEndMessage> messages;
  std::string body;      // JSON text; empty: none
  std::string location;  // of the created resource; empty: none
};

/// The channel of the service that owns the resource: the Subscriptions collection and what lies below it, or the
/// EventService.
std::string_view ChannelOf(std::string_view uri);

/// The method as the record names it: a POST is an action below an "/Actions/" and a creation elsewhere.
std::string RecordMethod(std::string_view httpMethod, std::string_view uri);

/// Keeps the request under fresh keys; the answer comes on `returnChannel`, or on a channel of its own. Nothing when a
/// write fails. One round trip, three for a body with objects inside arrays.
std::optional<StoredRequest> StoreRequest(redisContext* redis, const FrontEndRequest& request,
                                          std::string_view returnChannel = {});

/// Announces a stored request. True when a listener took the announcement.
bool AnnounceRequest(redisContext* redis, std::string_view channel, const StoredRequest& stored);

/// Announces it again and again until a listener takes it or `patience` is over: the service may be starting.
bool AnnounceUntilTaken(redisContext* redis, std::string_view channel, const StoredRequest& stored,
                        std::chrono::milliseconds patience);

/// Waits on a subscribed connection for the answer's message. False when it does not come in time.
bool AwaitAnswer(redisContext* subscriber, const StoredRequest& stored, std::chrono::milliseconds patience);

/// What the daemon left under the response key, empty where it left nothing.
FrontEndAnswer ReadAnswer(redisContext* redis, const StoredRequest& stored);

/// Removes every key of the request, the answer's included.
void RemoveRequest(redisContext* redis, const StoredRequest& stored);

/// The whole road: store, announce (again while no listener takes it), wait, read, remove. Nothing when Redis fails or
/// when listener or answer does not come in time.
std::optional<FrontEndAnswer> SendRequest(redisContext* redis, const FrontEndRequest& request,
                                          std::chrono::milliseconds patience = std::chrono::seconds(15));

/// The stored resource as a client sees it: without control fields, sensitive texts as null and sensitive arrays empty,
/// references without the store's prefix. Nothing when there is none or Redis fails; a discarded value when what is
/// stored cannot be read.
std::optional<Json> ReadForClient(redisContext* redis, const std::string& uri);

}  // namespace event_service
