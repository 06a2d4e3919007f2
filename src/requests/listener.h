/// The loop of a listener, from receive to publish, written once for both services.
#pragma once

#include <chrono>
#include <cstddef>
#include <span>
#include <string_view>

#include "foundation/redis_commands.h"
#include "requests/answer.h"
#include "requests/request.h"

namespace event_service {

/// What becomes of a request after its handler.
enum class Publish {
  kAlways,
  kUnlessFromEventing,  // a request of the delivery side is not answered; the daemon deletes its keys
};

struct MethodRoute {
  std::string_view method;
  Publish publish;
  Answer (*handle)(Request& request);
  bool deletesBody = false;  // of a delivery side's request: also "<request key>/RequestData"
};

/// A connection of redisConnectContext, owned.
inline RedisContext ConnectRedis() { return RedisContext(redisConnectContext()); }

/// How far a listener's thread has come: it says so once, when Redis has confirmed its subscription or, at the latest,
/// when this object's life ends with the thread.
class ListenerOpening {
 public:
  ListenerOpening() = default;
  ListenerOpening(const ListenerOpening&) = delete;
  ListenerOpening& operator=(const ListenerOpening&) = delete;
  ~ListenerOpening() { End(); }
  void End();

 private:
  bool hasEnded_ = false;
};

/// The body of a listener's thread: `listen` opens the connections and serves. When it has come to its end, whatever
/// the reason, the setting "ListenerRecovery" tells what follows: nothing; one line and the end of the process with
/// status 255; or the end of the other listener, for startup to connect again.
void RunListener(const char* name, void (*listen)(ListenerOpening& opening));

/// Forgets the listeners that have ended. Called when none runs, before threads are started.
void ExpectListeners();

/// Waits until the openings of so many listeners have ended since then. False when that takes longer than `patience`.
bool AwaitListeners(size_t count, std::chrono::milliseconds patience);

/// One service's requests: its routes, and what answers any other method.
struct ServiceRoutes {
  const char* name;  // for the log
  std::span<const MethodRoute> routes;
  Answer (*otherMethod)(Request& request);
};

/// What a listener works with besides its subscription.
struct ListenerResources {
  RedisContext redis;  // for commands
  const ServiceSettings& settings;
  SubscriptionsState* subscriptions = nullptr;  // null on the EventService side
  UnsettledProperties* unsettled = nullptr;     // null on the Subscriptions side
};

/// Serves the announcements that arrive on `subscriber`, one after the other, until its connection fails. Without a
/// recovery that leaves one line, and so does a command connection that fails; requests are then still taken, and not
/// answered. With one, a command connection that fails ends the serving as well; only to reconnect, one that is closed
/// while no request is being served is opened again. Lets no exception of a request out.
void ServeRequests(redisContext* subscriber, ListenerResources resources, const ServiceRoutes& service);

}  // namespace event_service
