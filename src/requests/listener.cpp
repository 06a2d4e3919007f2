#include "requests/listener.h"

#include <algorithm>
#include <exception>
#include <utility>

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

/// Also after an exception: replies that nobody has read must not be taken for those of the next commands.
void Reconnect(ListenerResources& resources) {
  if (RedisContext fresh = resources.reconnect()) resources.redis = std::move(fresh);
}

/// Redis closes idle clients when it is told to, but no subscribers. Nothing has been done yet when the record's read
/// shows it, so the read can simply be made again.
RequestRecord ReadRecord(ListenerResources& resources, const std::string& requestKey) {
  if (std::optional<RequestRecord> record = ReadRequestRecord(resources.redis.get(), requestKey)) return *record;
  Reconnect(resources);
  return ReadRequestRecord(resources.redis.get(), requestKey).value_or(RequestRecord());
}

const MethodRoute* FindRoute(const ServiceRoutes& service, std::string_view method) {
  const auto route = std::ranges::find(service.routes, method, &MethodRoute::method);
  return route == service.routes.end() ? nullptr : &*route;
}

Answer Handle(ListenerResources& resources, const ServiceRoutes& service, const MethodRoute* route,
              Request& request) try {
  return route != nullptr ? route->handle(request) : service.otherMethod(request);
} catch (const std::exception& error) {
  Reconnect(resources);
  return Refuse(kException, kOperationFailedMessage, {}, std::string("OperationFailed: ") + error.what());
}

void DeleteRequest(redisContext* redis, const std::string& requestKey, bool withBody) {
  // What is nested in the body lies under keys of its own.
  const bool isBodyDeleted = !withBody || DeleteResource(redis, requestKey + "/RequestData");
  if (!KeyDelete(redis, requestKey) || !isBodyDeleted) LogError("Failed to delete a request of the event delivery.");
}

void ServeOne(ListenerResources& resources, const ServiceRoutes& service, ResponseWriter& writer,
              const Announcement& announcement) {
  RequestRecord record = ReadRecord(resources, announcement.requestKey);
  Request request{resources.redis.get(), announcement, std::move(record), resources.settings, resources.subscriptions};
  const MethodRoute* const route = FindRoute(service, request.record.method);
  const Answer answer = Handle(resources, service, route, request);
  redisContext* const redis = resources.redis.get();
  if (!answer.logText.empty()) LogError("%s", answer.logText.c_str());
  if (route != nullptr && route->publish == Publish::kUnlessFromEventing && request.IsFromEventing()) {
    DeleteRequest(redis, announcement.requestKey, route->deletesBody);
    return;
  }
  RedisPipeline pipeline(redis);
  writer.Append(pipeline, announcement.responseKey, answer);
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
      Reconnect(resources);
    }
  }
}

}  // namespace event_service
