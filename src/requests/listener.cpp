#include "requests/listener.h"

#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <utility>

#include "foundation/logging.h"
#include "requests/response_writer.h"
#include "resource_store/store_encoding.h"

namespace event_service {
namespace {

// A request that has touched more memory than this (1 MiB) gives it back.
constexpr long kPagesOfALargeRequest = 256;

/// What the listeners tell start-up.
struct {
  std::mutex mutex;
  std::condition_variable hasEnded;
  size_t ended = 0;  // openings that nobody has waited for
} openings;

/// The pages that this thread has touched anew, ever.
long TouchedPages() {
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  return usage.ru_minflt;
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

/// Whatever the types of the keys, and whether or not markers lead to what is nested.
void DeleteRequest(redisContext* redis, const std::string& requestKey, bool withBody) {
  RedisPipeline pipeline(redis);
  const std::string bodyKey = BodyKeyOf(requestKey);
  if (withBody) {
    for (const std::string& key : KeyListing(redis, EscapeGlob(ChildKey(bodyKey, {})) + "*")) {
      pipeline.Append({"DEL", key});
    }
    pipeline.Append({"DEL", bodyKey});
  }
  pipeline.Append({"DEL", requestKey});
  if (!AllIntegers(pipeline.Execute())) LogError("Failed to delete a request of the event delivery.");
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

void ServeMessage(const ListenerResources& resources, const ServiceRoutes& service, ResponseWriter& writer,
                  const redisReply& message) try {
  if (const auto announcement = ParseAnnouncement(TextOf(message.element[2]))) {
    ServeOne(resources, service, writer, *announcement);
  } else {
    LogError("Request data format is incorrect.");
  }
} catch (const std::exception& error) {
  LogError("A request could not be answered: %s", error.what());
}

}  // namespace

void ListenerOpening::End() {
  if (std::exchange(hasEnded_, true)) return;
  const std::lock_guard guard(openings.mutex);
  ++openings.ended;
  openings.hasEnded.notify_all();
}

bool AwaitListeners(size_t count, std::chrono::milliseconds patience) {
  std::unique_lock guard(openings.mutex);
  if (!openings.hasEnded.wait_for(guard, patience, [count] { return openings.ended >= count; })) return false;
  openings.ended -= count;
  return true;
}

void ServeRequests(redisContext* subscriber, ListenerResources resources, const ServiceRoutes& service) {
  ResponseWriter writer;
  bool canAnswer = true;
  long touched = TouchedPages();
  while (RedisReply message = ReadReply(subscriber)) {
    if (IsArray(message) && message->elements == 3) ServeMessage(resources, service, writer, *message);
    message.reset();
    if (canAnswer && resources.redis->err != 0) {
      canAnswer = false;
      LogError("The command connection of the %s listener failed: requests are not answered any more.", service.name);
    }
    if (TouchedPages() - touched > kPagesOfALargeRequest) {
      for (redisContext* connection : {subscriber, resources.redis.get()}) ReleaseReplyRoom(connection);
      malloc_trim(0);
    }
    touched = TouchedPages();
  }
  LogError("The %s listener ended: the connection of its channel failed.", service.name);
}

}  // namespace event_service
