/// The other end of the request protocol: keeps a request in Redis, announces it, waits for the answer and reads it.
///
/// Startup sends requests of its own in this way, and so do the front ends among the tools. The keys are those that
/// docs/protocol.md describes.
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
  std::vector<std::string> keys = {};  // all that were written
  bool isTaken = false;                // a listener has heard the announcement that went with them
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

/// Where a request is kept, answered and announced.
struct RequestPlace {
  std::string_view keyPrefix = "&&Request:";  // a random number follows
  std::string_view returnChannel = {};        // empty: one of the request's own
  std::string_view announcedOn = {};          // empty: it is announced later
};

/// Keeps the request under fresh keys, all of it or nothing, and announces it in the same transaction where the place
/// says so. Nothing when a write fails. One round trip, two for a body with objects inside arrays.
std::optional<StoredRequest> StoreRequest(redisContext* redis, const FrontEndRequest& request,
                                          const RequestPlace& place = {});

/// A connection on which the answer will come. Reading from it fails after `patience`; null when it cannot be opened.
RedisContext ListenForAnswer(const StoredRequest& stored, std::chrono::milliseconds patience);

/// Announces a stored request. True when a listener took the announcement.
bool AnnounceRequest(redisContext* redis, std::string_view channel, const StoredRequest& stored);

/// Announces it again and again until a listener takes it or `patience` is over: the service may be starting.
bool AnnounceUntilTaken(redisContext* redis, std::string_view channel, const StoredRequest& stored,
                        std::chrono::milliseconds patience);

/// Waits on a subscribed connection for the answer's message. False when it does not come in time.
bool AwaitAnswer(redisContext* subscriber, const StoredRequest& stored, std::chrono::milliseconds patience);

/// What the daemon left under the response key, empty where it left nothing. One round trip, two for an answer with
/// several messages.
FrontEndAnswer ReadAnswer(redisContext* redis, const StoredRequest& stored);

/// The same, and removes every key of the request and of the answer on the way.
FrontEndAnswer TakeAnswer(redisContext* redis, const StoredRequest& stored);

/// Removes every key of a request whose answer nobody reads, the answer's included. Two round trips.
void RemoveRequest(redisContext* redis, const StoredRequest& stored);

}  // namespace event_service
