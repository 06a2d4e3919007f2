/// A front end's standing connection to Redis, for programs that send many requests and outlive both Redis and daemon.
///
/// A link belongs to one thread. It connects when it is needed and connects anew after a failure; nothing on it waits
/// longer than it was allowed to.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "resource_store/resource_walk.h"
#include "tools/front_end/front_end.h"

namespace event_service {

/// A connection on which no reply is waited for longer than `patience`; null when the server cannot be reached. The
/// first lookup of the server (getRedisConnectionInfo) has been made before other threads run.
RedisContext ConnectPatiently(std::chrono::milliseconds patience);

struct FrontEndPatience {
  std::chrono::milliseconds reply = std::chrono::seconds(3);     // of Redis
  std::chrono::milliseconds listener = std::chrono::seconds(1);  // until the daemon takes an announcement
  std::chrono::milliseconds answer = std::chrono::seconds(15);   // of the daemon
};

/// Who takes a request.
struct RequestQueue {
  bool isBlocked = false;  // the service that owns the resource is not ready
  std::string channel;     // empty: nobody has registered for this method
};

class FrontEndLink {
 public:
  explicit FrontEndLink(FrontEndPatience patience = {});

  /// The connection for commands, opened where there is none; null when Redis cannot be reached.
  redisContext* Redis();

  /// The channel on which a request for this method is announced, from the queue of the resource or of its kind
  /// ("&&CRUDprefix"). Nothing when Redis fails. One round trip, two for members of a collection; each takes a level of
  /// `walk` with it, where there is one.
  std::optional<RequestQueue> FindQueue(std::string_view method, std::string_view targetUri,
                                        ResourceWalk* walk = nullptr);

  /// Stores, announces, waits, reads, removes. Nothing when Redis fails or the daemon does not answer in time; the
  /// request is withdrawn then, so that it is not carried out once nobody waits any more.
  std::optional<FrontEndAnswer> Send(const FrontEndRequest& request, std::string_view channel);

 private:
  bool Connect();
  void Disconnect();

  FrontEndPatience patience_;
  std::string returnChannel_;
  RedisContext redis_;
  RedisContext subscriber_;  // subscribed to the return channel
};

}  // namespace event_service
