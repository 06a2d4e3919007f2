#include "requests/listener.h"

#include <malloc.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <exception>
#include <mutex>
#include <utility>
#include <vector>

#include "foundation/logging.h"
#include "requests/response_writer.h"
#include "resource_store/store_encoding.h"

namespace event_service {
namespace {

// A request that has touched more memory than this (1 MiB) gives it back.
constexpr long kPagesOfALargeRequest = 256;

/// What the listeners tell startup and each other.
struct {
  std::mutex mutex;
  std::condition_variable hasOpened;
  size_t opened = 0;          // openings that have ended
  std::vector<int> channels;  // the sockets that are being served
  bool isLost = false;        // a listener has lost Redis: none is to serve
} listeners;

/// A channel that is being served, which the loss of the other listener ends.
class ServedChannel {
 public:
  explicit ServedChannel(int socket) : socket_(socket) {
    const std::lock_guard guard(listeners.mutex);
    listeners.channels.push_back(socket);
    if (listeners.isLost) shutdown(socket, SHUT_RDWR);
  }
  ServedChannel(const ServedChannel&) = delete;
  ServedChannel& operator=(const ServedChannel&) = delete;
  ~ServedChannel() {
    const std::lock_guard guard(listeners.mutex);
    std::erase(listeners.channels, socket_);
  }

 private:
  int socket_;
};

/// True for the first listener that is lost.
bool IsFirstLoss() {
  const std::lock_guard guard(listeners.mutex);
  return !std::exchange(listeners.isLost, true);
}

void StopListeners() {
  const std::lock_guard guard(listeners.mutex);
  for (const int socket : listeners.channels) shutdown(socket, SHUT_RDWR);
}

/// Waits for something to read on the channel's connection. Nothing can come on the other one but its end; false when
/// it has.
bool AwaitMessage(const redisContext& subscriber, const redisContext& commands) {
  const bool hasCome = subscriber.reader->pos < subscriber.reader->len;
  pollfd ends[] = {{commands.fd, POLLIN, 0}, {subscriber.fd, POLLIN, 0}};
  while (poll(ends, std::size(ends), hasCome ? 0 : -1) < 0 && errno == EINTR) continue;
  return ends[0].revents == 0;
}

/// Null when the listener cannot go on.
RedisReply NextMessage(redisContext* subscriber, ListenerResources& resources, const char* listener) {
  const ListenerRecovery recovery = resources.settings.listenerRecovery;
  while (recovery != ListenerRecovery::kNone && !AwaitMessage(*subscriber, *resources.redis)) {
    if (recovery == ListenerRecovery::kExit) return nullptr;
    resources.redis = ConnectRedis();
    if (!resources.redis || TextOf(SendArguments(resources.redis.get(), {"PING"})) != "PONG") return nullptr;
    LimitReplies(resources.redis.get());
    LogError("The command connection of the %s listener was closed and is opened again.", listener);
  }
  return ReadReply(subscriber);
}

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
  const std::lock_guard guard(listeners.mutex);
  ++listeners.opened;
  listeners.hasOpened.notify_all();
}

void ExpectListeners() {
  const std::lock_guard guard(listeners.mutex);
  listeners.opened = 0;
  listeners.isLost = false;
}

bool AwaitListeners(size_t count, std::chrono::milliseconds patience) {
  std::unique_lock guard(listeners.mutex);
  return listeners.hasOpened.wait_for(guard, patience, [count] { return listeners.opened >= count; });
}

void RunListener(const char* name, void (*listen)(ListenerOpening& opening)) {
  ListenerOpening opening;
  try {
    listen(opening);
  } catch (const std::exception& error) {
    LogError("The %s listener ended: %s", name, error.what());
  }
  const AfterLoss action = ActionAfterLoss(ProcessSettings().listenerRecovery, LostConnection::kChannel);
  if (action == AfterLoss::kEndListener || !IsFirstLoss()) return;
  if (action == AfterLoss::kEndProcess) {
    LogError("The %s listener has lost Redis: the process ends.", name);
    std::fflush(nullptr);
    _exit(255);  // the other listener may be running: nothing that it uses is destroyed
  }
  LogError("The %s listener has lost Redis: the service connects again.", name);
  StopListeners();
}

void ServeRequests(redisContext* subscriber, ListenerResources resources, const ServiceRoutes& service) {
  const ServedChannel served(subscriber->fd);
  LimitReplies(resources.redis.get());
  ResponseWriter writer;
  bool canAnswer = true;
  long touched = TouchedPages();
  const auto after = [&](LostConnection lost) { return ActionAfterLoss(resources.settings.listenerRecovery, lost); };
  while (RedisReply message = NextMessage(subscriber, resources, service.name)) {
    if (IsArray(message) && message->elements == 3) ServeMessage(resources, service, writer, *message);
    message.reset();
    if (canAnswer && resources.redis->err != 0) {
      if (after(LostConnection::kCommands) != AfterLoss::kServeOn) return;
      canAnswer = false;
      LogError("The command connection of the %s listener failed: requests are not answered any more.", service.name);
    }
    const long touchedBefore = std::exchange(touched, TouchedPages());
    if (touched - touchedBefore > kPagesOfALargeRequest) {
      for (redisContext* connection : {subscriber, resources.redis.get()}) ReleaseReplyRoom(connection);
      malloc_trim(0);
    }
  }
  if (after(LostConnection::kChannel) == AfterLoss::kEndListener) {
    LogError("The %s listener ended: the connection of its channel failed.", service.name);
  }
}

}  // namespace event_service
