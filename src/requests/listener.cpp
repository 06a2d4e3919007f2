#include "requests/listener.h"

#include <algorithm>
#include <exception>

#include "foundation/logging.h"
#include "requests/response_writer.h"
#include "resource_store/resource_editor.h"

namespace event_service {
namespace {

/// Waits for the next message; nothing when the subscription's connection failed.
RedisReply ReadMessage(redisContext* subscriber) {
  void* reply = nullptr;
  if (redisGetReply(subscriber, &reply) != REDIS_OK) return nullptr;
  return RedisReply(static_cast<redisReply*>(reply));
}

const MethodRoute* FindRoute(const ServiceRoutes& service, std::string_view method) {
  const auto route = std::ranges::find(service.routes, method, &MethodRoute::method);
  return route == service.routes.end() ? nullptr : &*route;
}

/// Every reply to what was sent has been read before an exception gets here: the connection is in step.
Answer Handle(const ServiceRoutes& service, const MethodRoute* route, Request& request) try {
  return route != nullptr ? route->handle(request) : service.otherMethod(request);
} catch (const std::exception& error) {
  return Refuse(kException, kOperationFailedMessage, {}, std::string("OperationFailed: ") + error.what());
}

void DeleteRequest(redisContext* redis, const std::string& requestKey, bool withBody) {
  // What is nested in the body lies under keys of its own.
  const bool isBodyDeleted = !withBody || DeleteResource(redis, requestKey + "/RequestData");
  if (!KeyDelete(redis, requestKey) || !isBodyDeleted) LogError("Failed to delete a request of the event delivery.");
}

void ServeOne(const ListenerResources& resources, const ServiceRoutes& service, ResponseWriter& writer,
              const Announcement& announcement) {
  redisContext* const redis = resources.redis.get();
  Request request{redis,
                  announcement,
                  ReadRequestRecord(redis, announcement.requestKey),
                  resources.settings,
                  resources.subscriptions,
                  resources.unsettled};
  const MethodRoute* const route = FindRoute(service, request.record.method);
  const Answer answer = Handle(service, route, request);
  if (!answer.logText.empty()) LogError("%s", answer.logText.c_str());
  if (route != nullptr && route->publish == Publish::kUnlessFromEventing && request.IsFromEventing()) {
    DeleteRequest(redis, announcement.requestKey, route->deletesBody);
    return;
  }
  RedisPipeline pipeline(redis);
  if (announcement.responseKey != kFromEventing) writer.Append(pipeline, announcement.responseKey, answer);
  if (!PublishAnswer(redis, pipeline, announcement.requestKey, announcement.responseKey,
                     request.record.returnChannel)) {
    LogError("Failed to publish data.");
  }
}

}  // namespace

void ServeRequests(redisContext* subscriber, ListenerResources resources, const ServiceRoutes& service) {
  ResponseWriter writer;
  while (const RedisReply message = ReadMessage(subscriber)) {
    if (!IsArray(message) || message->elements != 3) continue;
    try {
      if (const auto announcement = ParseAnnouncement(TextOf(message->element[2]))) {
        ServeOne(resources, service, writer, *announcement);
      } else {
        LogError("Request data format is incorrect.");
      }
    } catch (const std::exception& error) {
      LogError("A request could not be answered: %s", error.what());
    }
  }
}

}  // namespace event_service
