#include "requests/request_sender.h"

#include <cinttypes>
#include <cstdio>
#include <thread>
#include <utility>

#include "foundation/random.h"
#include "foundation/redis_pipeline.h"
#include "requests/answer.h"
#include "requests/request.h"
#include "requests/response_writer.h"
#include "resource_store/resource_writer.h"

namespace event_service {
namespace {

constexpr std::chrono::milliseconds kPauseBetweenAnnouncements{10};

// Of one length, so that no request key begins with another one.
std::string NewRequestKey(std::string_view prefix) {
  char number[sizeof "0123456789ABCDEF"];
  std::snprintf(number, sizeof number, "%016" PRIX64, KernelNumber());
  return std::string(prefix) + number;
}

std::vector<std::string> StringsOf(const RedisReply& reply) {
  const std::vector<std::string_view> texts = TextsOf(reply);
  return {texts.begin(), texts.end()};
}

std::vector<FrontEndMessage> ReadMessages(redisContext* redis, const std::vector<std::string>& entryKeys) {
  std::vector<FrontEndMessage> messages(entryKeys.size());
  RedisPipeline pipeline(redis);
  auto message = messages.begin();
  for (const std::string& entry : entryKeys) {
    pipeline.Ask({"HGET", entry, kMessageId}, [message](const RedisReply& id) { message->id = TextOf(id); });
    pipeline.Ask({"LRANGE", EntryListKey(entry, kMessageArgs), "0", "-1"},
                 [message](const RedisReply& list) { message->args = StringsOf(list); });
    pipeline.Ask({"LRANGE", EntryListKey(entry, kRelatedProperties), "0", "-1"},
                 [message](const RedisReply& list) { message->relatedProperties = StringsOf(list); });
    ++message;
  }
  pipeline.Execute();
  return messages;
}

}  // namespace

std::optional<StoredRequest> StoreRequest(redisContext* redis, const FrontEndRequest& request,
                                          const RequestPlace& place) {
  const std::string key = NewRequestKey(place.keyPrefix);
  StoredRequest stored{.requestKey = key, .responseKey = key + "/Response", .returnChannel = key + "/CHANNEL"};
  if (!place.returnChannel.empty()) stored.returnChannel = place.returnChannel;
  stored.keys = {key};
  RedisPipeline pipeline(redis);
  const auto field = [&](std::string_view name, std::string_view value) {
    pipeline.Append({"HSET", key, name, value});
  };
  const bool needsIds = request.body && NeedsSequenceIds(*request.body);
  int64_t sequence = needsIds ? NextSequenceId(redis) : kNoSequence;
  if (needsIds && sequence == kNoSequence) return std::nullopt;
  if (request.body) {
    const std::string bodyKey = BodyKeyOf(key);
    const std::vector<std::string> bodyKeys = DocumentKeys(bodyKey, *request.body, sequence);
    stored.keys.insert(stored.keys.end(), bodyKeys.begin(), bodyKeys.end());
    if (!AppendDocument(pipeline, bodyKey, *request.body, sequence)) return std::nullopt;
    field(kRequestData, bodyKey);
  }
  field(kRequestMethod, request.method);
  field(kTargetUri, request.targetUri);
  field(kReturnChannel, stored.returnChannel);
  field(kPrivileges, request.privileges);
  if (!request.sseChannel.empty()) {
    field(kIsSse, "true");
    field(kSseChannel, request.sseChannel);
  }
  const bool isWritten = AllIntegers(pipeline.Execute()) && (!needsIds || StoreSequenceId(redis, sequence));
  if (isWritten) return stored;
  RemoveRequest(redis, stored);
  return std::nullopt;
}

RedisContext ListenForAnswer(const StoredRequest& stored, std::chrono::milliseconds patience) {
  RedisContext subscriber(redisConnectContext());
  if (!subscriber || !LimitWaiting(subscriber.get(), patience)) return nullptr;
  if (!IsArray(SendArguments(subscriber.get(), {"SUBSCRIBE", stored.returnChannel}))) return nullptr;
  return subscriber;
}

bool AnnounceRequest(redisContext* redis, std::string_view channel, const StoredRequest& stored) {
  const std::string announcement = stored.requestKey + " " + stored.responseKey;
  const RedisReply reply = SendArguments(redis, {"PUBLISH", channel, announcement});
  return IsInteger(reply) && reply->integer > 0;
}

bool AnnounceUntilTaken(redisContext* redis, std::string_view channel, const StoredRequest& stored,
                        std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (redis->err == 0) {
    if (AnnounceRequest(redis, channel, stored)) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(kPauseBetweenAnnouncements);
  }
  return false;
}

bool AwaitAnswer(redisContext* subscriber, const StoredRequest& stored, std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (std::chrono::steady_clock::now() < deadline) {
    const RedisReply message = ReadReply(subscriber);
    if (!IsArray(message) || message->elements != 3) return false;
    if (TextOf(message->element[2]) == stored.responseKey) return true;
  }
  return false;
}

FrontEndAnswer ReadAnswer(redisContext* redis, const StoredRequest& stored) {
  FrontEndAnswer answer;
  std::vector<std::string> entryKeys;
  RedisPipeline pipeline(redis);
  pipeline.Ask({"HGET", stored.responseKey, kReturnStatus},
               [&](const RedisReply& status) { answer.status = TextOf(status); });
  pipeline.Ask({"HGET", AnswerBodyKey(stored.responseKey), kRawJson},
               [&](const RedisReply& body) { answer.body = TextOf(body); });
  pipeline.Ask({"HGET", stored.requestKey, kLocation},
               [&](const RedisReply& location) { answer.location = TextOf(location); });
  pipeline.Ask({"LRANGE", MessageListKey(stored.responseKey), "0", "-1"},
               [&](const RedisReply& list) { entryKeys = StringsOf(list); });
  pipeline.Execute();
  answer.messages = ReadMessages(redis, entryKeys);
  return answer;
}

void RemoveRequest(redisContext* redis, const StoredRequest& stored) {
  std::vector<std::string> keys = stored.keys;
  const std::string messages = MessageListKey(stored.responseKey);
  keys.insert(keys.end(), {stored.responseKey, AnswerBodyKey(stored.responseKey), messages});
  const RedisReply entries = SendArguments(redis, {"LRANGE", messages, "0", "-1"});
  for (const std::string_view entry : TextsOf(entries)) {
    keys.insert(keys.end(),
                {std::string(entry), EntryListKey(entry, kMessageArgs), EntryListKey(entry, kRelatedProperties)});
  }
  RedisPipeline pipeline(redis);
  AppendUnlink(pipeline, keys);
  pipeline.Execute();
}

}  // namespace event_service
