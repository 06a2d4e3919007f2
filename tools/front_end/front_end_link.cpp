#include "tools/front_end/front_end_link.h"

#include <poll.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "foundation/random.h"
#include "foundation/redis_pipeline.h"
#include "resource_store/resource_reader.h"

namespace event_service {
namespace {

std::string NewReturnChannel() {
  char channel[48];
  std::snprintf(channel, sizeof channel, "&&FrontEnd:%016" PRIX64 "/CHANNEL", KernelNumber());
  return channel;
}

/// The resource that a request is about; an action belongs to the resource above "/Actions/".
std::string_view ResourceOf(std::string_view targetUri) { return targetUri.substr(0, targetUri.find("/Actions/")); }

/// The first entry of a queue: the channel of the service that registered.
std::string FirstText(const RedisReply& reply) {
  return IsArray(reply) && reply->elements > 0 ? std::string(TextOf(reply->element[0])) : std::string();
}

/// Between requests nothing is on its way to us, so that whatever can be read there is the end of the connection.
bool IsUsable(const RedisContext& redis) {
  if (!redis || redis->err != 0) return false;
  pollfd file{redis->fd, POLLIN, 0};
  return poll(&file, 1, 0) == 0;
}

}  // namespace

RedisContext ConnectPatiently(std::chrono::milliseconds patience) {
  const std::unique_ptr<RedisConnectionInfo, decltype(&std::free)> info(getRedisConnectionInfo(), std::free);
  RedisContext redis(info ? connectToRedis(info.get(), 0) : nullptr);
  if (!redis || !LimitWaiting(redis.get(), patience)) return nullptr;
  if (info->password[0] != '\0' && redisAuthentication(redis.get(), info->password) != 0) return nullptr;
  return redis;
}

FrontEndLink::FrontEndLink(FrontEndPatience patience) : patience_(patience) {}

bool FrontEndLink::Connect() {
  if (IsUsable(redis_) && IsUsable(subscriber_)) return true;
  Disconnect();
  redis_ = ConnectPatiently(patience_.reply);
  subscriber_ = ConnectPatiently(patience_.reply);
  if (!redis_ || !subscriber_) return false;
  // A channel that was used before may still bring the answer to a request that was withdrawn.
  returnChannel_ = NewReturnChannel();
  return IsArray(SendArguments(subscriber_.get(), {"SUBSCRIBE", returnChannel_})) &&
         LimitWaiting(subscriber_.get(), patience_.answer);
}

void FrontEndLink::Disconnect() {
  redis_.reset();
  subscriber_.reset();
}

redisContext* FrontEndLink::Redis() {
  if (Connect()) return redis_.get();
  Disconnect();
  return nullptr;
}

std::optional<RequestQueue> FrontEndLink::FindQueue(std::string_view method, std::string_view targetUri,
                                                    ResourceWalk* walk) {
  redisContext* redis = Redis();
  if (redis == nullptr) return std::nullopt;
  const std::string resource(ResourceOf(targetUri));
  const std::string queue = "/" + std::string(method) + "Q";
  RequestQueue found;
  std::string kind;
  const auto takeChannel = [&](const RedisReply& reply) { found.channel = FirstText(reply); };
  RedisPipeline pipeline(redis);
  const auto execute = [&] {
    if (walk != nullptr && !walk->HasFailed()) walk->AskLevel(pipeline);
    pipeline.Execute();
  };
  pipeline.Ask({"SISMEMBER", "&&AccessBlockList", "EventService"},
               [&](const RedisReply& reply) { found.isBlocked = IsInteger(reply) && reply->integer == 1; });
  pipeline.Ask({"LRANGE", "&&" + resource + queue, "0", "0"}, takeChannel);
  pipeline.Ask({"HGET", resource, "&&CRUDprefix"}, [&](const RedisReply& reply) { kind = TextOf(reply); });
  execute();
  if (!kind.empty()) {
    pipeline.Ask({"LRANGE", kind + queue, "0", "0"}, takeChannel);
    execute();
  }
  if (redis->err != 0) return std::nullopt;
  return found;
}

std::optional<FrontEndAnswer> FrontEndLink::Send(const FrontEndRequest& request, std::string_view channel) {
  redisContext* redis = Redis();
  const RequestPlace place{.returnChannel = returnChannel_, .announcedOn = channel};
  const std::optional<StoredRequest> stored = redis == nullptr ? std::nullopt : StoreRequest(redis, request, place);
  if (!stored) return std::nullopt;
  const bool isTaken = stored->isTaken || AnnounceUntilTaken(redis, channel, *stored, patience_.listener);
  if (isTaken && AwaitAnswer(subscriber_.get(), *stored, patience_.answer)) return TakeAnswer(redis, *stored);
  // Without a subscriber the daemon itself removes an answer that comes too late.
  subscriber_.reset();
  RemoveRequest(redis, *stored);
  return std::nullopt;
}

}  // namespace event_service
