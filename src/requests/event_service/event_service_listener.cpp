#include "requests/event_service/event_service_listener.h"

#include <cstdio>
#include <utility>

#include "requests/event_service/patch_event_service.h"
#include "requests/event_service/submit_test_event.h"
#include "requests/gates.h"
#include "service/redis_keys.h"

namespace event_service {
namespace {

Answer PatchService(Request& request) { return PatchEventService(request); }

Answer PerformAction(Request& request) {
  if (request.record.targetUri != "/redfish/v1/EventService/Actions/EventService.SubmitTestEvent") {
    return Refuse(kNotFound, "Base.1.12.ActionNotSupported", {request.record.targetUri});
  }
  if (auto refusal = CheckServiceEnabled(request)) return *std::move(refusal);
  return SubmitTestEvent(request);
}

Answer RefuseMethod(Request& request) {
  const RequestRecord& record = request.record;
  return Refuse(kNotAllowed, "ExtendedError.1.2.MethodNotAllowed",
                {record.targetUri, record.method == "POSTCREATE" ? "POST" : record.method});
}

constexpr MethodRoute kRoutes[] = {
    {"PATCH", Publish::kAlways, PatchService},
    {"POSTACTION", Publish::kAlways, PerformAction},
};

/// Why the thread ends goes to standard output, not to the log.
void Say(const char* text) {
  std::puts(text);
  std::fflush(stdout);
}

void Listen(ListenerOpening& opening) {
  const RedisContext subscriber = ConnectRedis();
  if (!subscriber) return Say("Failed to connect to Redis");
  RedisContext redis = ConnectRedis();
  if (!redis) return Say("Failed to connect to Redis");
  const RedisReply reply = SendArguments(subscriber.get(), {"SUBSCRIBE", kEventServiceChannel});
  if (!IsArray(reply)) return Say("Failed to subscribe channel.");
  opening.End();
  UnsettledProperties unsettled;
  ServeRequests(subscriber.get(), {.redis = std::move(redis), .settings = ProcessSettings(), .unsettled = &unsettled},
                kEventServiceRoutes);
}

}  // namespace

const ServiceRoutes kEventServiceRoutes = {"EventService", kRoutes, RefuseMethod};

void* EventServiceListenerThread(void*) {
  RunListener("EventService", Listen);
  return nullptr;
}

}  // namespace event_service
