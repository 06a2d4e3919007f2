#include "subscriptions/subscriptions_listener.h"

#include <pthread.h>

#include <string>
#include <string_view>

#include "foundation/logging.h"
#include "foundation/redis_commands.h"
#include "requests/gates.h"
#include "requests/listener.h"
#include "service/redis_keys.h"
#include "subscriptions/creation.h"
#include "subscriptions/deletion.h"
#include "subscriptions/get_preparation.h"
#include "subscriptions/patch.h"
#include "subscriptions/resource/event_destination.h"
#include "subscriptions/resource/member_uri.h"
#include "subscriptions/state.h"

namespace event_service {
namespace {

Answer HandlePostCreate(Request& request) {
  if (auto refusal = CheckServiceEnabled(request)) return std::move(*refusal);
  if (auto refusal = CheckRedfishProtocol(request, request.record.requestData)) return std::move(*refusal);
  if (auto refusal = CheckSubscriptionLimit(request)) return std::move(*refusal);
  return CreateEventDestination(request);
}

Answer HandlePostAction(Request& request) {
  const std::string& target = request.record.targetUri;
  const size_t action = target.rfind(kResumeAction);
  if (action == std::string::npos || action + kResumeAction.size() != target.size()) {
    return Refuse(kNotFound, "Base.1.12.ActionNotSupported", {target});
  }
  const std::string member = target.substr(0, action);
  if (auto refusal = CheckServiceEnabled(request)) return std::move(*refusal);
  if (auto refusal = CheckRedfishProtocol(request, member)) return std::move(*refusal);
  return ResumeSubscription(request, member);
}

Answer HandleDelete(Request& request) {
  const std::string& target = request.record.targetUri;
  if (IsUndeletableSubscriptionUri(target)) {
    return Refuse(kFailure, "Base.1.12.ResourceCannotBeDeleted", {}, "URI " + target + " cannot be deleted.");
  }
  // Streams also end when the service is turned off, so no gate stands before them.
  if (target == kEveryStream) return DeleteAllSseSubscriptions(request);
  if (auto refusal = CheckServiceEnabled(request)) return std::move(*refusal);
  if (target.empty()) {
    return Refuse(kException, kOperationFailedMessage, {},
                  "OperationFailed: The target of the DELETE method is empty.");
  }
  if (auto refusal = CheckRedfishProtocol(request, target)) return std::move(*refusal);
  return DeleteEventDestination(request);
}

Answer HandlePatch(Request& request) {
  const std::string& target = request.record.targetUri;
  if (target.empty()) {
    return Refuse(kException, kOperationFailedMessage, {}, "OperationFailed: The target of the PATCH method is empty.");
  }
  if (auto refusal = CheckServiceEnabled(request)) return std::move(*refusal);
  if (request.IsFromEventing()) return ApplyDeliveryState(request);
  if (auto refusal = CheckRedfishProtocol(request, target)) return std::move(*refusal);
  return PatchEventDestination(request);
}

Answer HandleGet(Request& request) {
  if (auto refusal = CheckRedfishProtocol(request, request.record.targetUri)) return std::move(*refusal);
  PrepareGet(request);
  return NoAnswer();
}

Answer HandleHead(Request& /*request*/) { return NoAnswer(); }

Answer RefuseMethod(Request& request) {
  return Refuse(kNotAllowed, "ExtendedError.1.2.MethodNotAllowed", {request.record.targetUri, request.record.method});
}

constexpr MethodRoute kRoutes[] = {
    {"POSTCREATE", Publish::kAlways, HandlePostCreate},
    {"POSTACTION", Publish::kAlways, HandlePostAction},
    {"DELETE", Publish::kUnlessFromEventing, HandleDelete},
    {"PATCH", Publish::kUnlessFromEventing, HandlePatch, /*deletesBody=*/true},
    {"GET", Publish::kAlways, HandleGet},
    {"HEAD", Publish::kAlways, HandleHead},
};

void Listen(ListenerOpening& opening) {
  const RedisContext subscriber = ConnectRedis();
  if (!subscriber) {
    LogError("Failed to connect to Redis.");
    return;
  }
  if (!IsArray(SendArguments(subscriber.get(), {"SUBSCRIBE", kSubscriptionsChannel}))) {
    LogError("Failed to subscribe channel.");
    return;
  }
  opening.End();
  // A subscribed connection takes no other commands.
  RedisContext redis = ConnectRedis();
  if (!redis) {
    LogError("Failed to connect to Redis.");
    return;
  }
  ServeRequests(subscriber.get(),
                {.redis = std::move(redis), .settings = ProcessSettings(), .subscriptions = &ProcessSubscriptions()},
                {"Subscriptions", kRoutes, RefuseMethod});
}

}  // namespace

void* SubscriptionsListenerThread(void* /*unused*/) {
  RunListener("Subscriptions", Listen);
  pthread_exit(nullptr);
}

}  // namespace event_service
