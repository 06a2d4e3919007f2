/// The loop of a listener, from receive to publish, written once for both services.
#pragma once

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

/// One service's requests: its routes, and what answers any other method.
struct ServiceRoutes {
  std::span<const MethodRoute> routes;
  Answer (*otherMethod)(Request& request);
};

/// What a listener works with besides its subscription.
struct ListenerResources {
  RedisContext redis;  // for commands; one that breaks stays broken
  const ServiceSettings& settings;
  SubscriptionsState* subscriptions = nullptr;  // null on the EventService side
  UnsettledProperties* unsettled = nullptr;     // null on the Subscriptions side
};

/// Serves the announcements that arrive on `subscriber`, one after the other, until its connection fails. Lets no
/// exception of a request out.
void ServeRequests(redisContext* subscriber, ListenerResources resources, const ServiceRoutes& service);

}  // namespace event_service
