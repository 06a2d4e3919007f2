#include "tools/front_end/front_end.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <thread>

#include "foundation/random.h"
#include "foundation/redis_pipeline.h"
#include "resource_store/resource_reader.h"
#include "resource_store/resource_writer.h"

namespace event_service {
namespace {

constexpr std::string_view kSubscriptions = "/redfish/v1/EventService/Subscriptions";
constexpr std::string_view kSubscriptionsChannel = "&&/redfish/v1/EventService/Subscriptions/CHANNEL";
constexpr std::string_view kEventServiceChannel = "&&/redfish/v1/EventService/CHANNEL";

// Of one length, so that no request key begins with another one.
std::string NewRequestKey() {
  char key[64];
  std::snprintf(key, sizeof key, "&&Request:%08" PRIX32 "%08" PRIX32, RandomNumber(), RandomNumber());
  return key;
}

std::vector<std::string> Texts(const RedisReply& reply) {
  std::vector<std::string> texts;
  if (!IsArray(reply)) return texts;
  for (size_t i = 0; i < reply->elements; ++i) texts.emplace_back(TextOf(reply->element[i]));
  return texts;
}

std::vector<FrontEndMessage> ReadMessages(redisContext* redis, const std::vector<std::string>& entryKeys) {
  RedisPipeline pipeline(redis);
  for (const std::string& entry : entryKeys) {
    pipeline.Append({"HGET", entry, "&&MessageId"});
    pipeline.Append({"LRANGE", entry + "/MessageArgs", "0", "-1"});
    pipeline.Append({"LRANGE", entry + "/RelatedProperties", "0", "-1"});
  }
  const std::vector<RedisReply> replies = pipeline.Execute();
  std::vector<FrontEndMessage> messages;
  for (size_t i = 0; i < replies.size(); i += 3) {
    messages.push_back({std::string(TextOf(replies[i])), Texts(replies[i + 1]), Texts(replies[i + 2])});
  }
  return messages;
}

// A connection that listens on `channel`; reading from it fails after `patience`.
RedisContext Listen(const std::string& channel, std::chrono::milliseconds patience) {
  RedisContext subscriber(redisConnectContext());
  if (!subscriber || !LimitWaiting(subscriber.get(), patience)) return nullptr;
  if (!IsArray(SendArguments(subscriber.get(), {"SUBSCRIBE", channel}))) return nullptr;
  return subscriber;
}

void Hide(Json& document, std::string_view path) {
  Json* value = &document;
  while (!path.empty()) {
    const size_t slash = path.find('/');
    const auto member = value->find(std::string(path.substr(0, slash)));
    if (member == value->end()) return;
    value = &*member;
    path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
  }
  if (value->is_string()) *value = nullptr;
  if (value->is_array()) *value = Json::array();
}

// The reader bounds the depth of what it returns, and so the recursion.
void StripReferencePrefixes(Json& value) {
  if (value.is_object()) {
    const auto id = value.find("@odata.id");
    if (id != value.end() && id->is_string() && id->get_ref<const std::string&>().starts_with("&&/")) {
      *id = id->get_ref<const std::string&>().substr(2);
    }
  }
  if (value.is_structured()) {
    for (Json& member : value) StripReferencePrefixes(member);
  }
}

}  // namespace

std::string_view ChannelOf(std::string_view uri) {
  const bool below =
      uri.starts_with(kSubscriptions) && (uri.size() == kSubscriptions.size() || uri[kSubscriptions.size()] == '/');
  return below || uri == "SSE-ALL" ? kSubscriptionsChannel : kEventServiceChannel;
}

std::string RecordMethod(std::string_view httpMethod, std::string_view uri) {
  if (httpMethod != "POST") return std::string(httpMethod);
  return uri.find("/Actions/") == std::string_view::npos ? "POSTCREATE" : "POSTACTION";
}

std::optional<StoredRequest> StoreRequest(redisContext* redis, const FrontEndRequest& request,
                                          std::string_view returnChannel) {
  StoredRequest stored;
  stored.requestKey = NewRequestKey();
  stored.responseKey = stored.requestKey + "/Response";
  stored.returnChannel = returnChannel.empty() ? stored.requestKey + "/CHANNEL" : std::string(returnChannel);
  const std::string bodyKey = stored.requestKey + "/RequestData";
  const bool needsIds = request.body && NeedsSequenceIds(*request.body);
  int64_t sequence = needsIds ? NextSequenceId(redis) : kNoSequence;
  if (needsIds && sequence == kNoSequence) return std::nullopt;

  RedisPipeline pipeline(redis);
  const auto field = [&](std::string_view name, std::string_view value) {
    pipeline.Append({"HSET", stored.requestKey, name, value});
  };
  if (request.body && !AppendDocument(pipeline, bodyKey, *request.body, sequence)) return std::nullopt;
  field("&&RequestMethod", request.method);
  field("&&TargetURI", request.targetUri);
  field("&&ReturnChannel", stored.returnChannel);
  field("&&Privileges", request.privileges);
  if (request.body) field("&&RequestData", bodyKey);
  if (!request.sseChannel.empty()) {
    field("&&IsSSE", "true");
    field("&&SSE-CHANNEL", request.sseChannel);
  }
  const bool isWritten = AllIntegers(pipeline.Execute()) && (!needsIds || StoreSequenceId(redis, sequence));
  if (isWritten) return stored;
  RemoveRequest(redis, stored);
  return std::nullopt;
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
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
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
  RedisPipeline pipeline(redis);
  pipeline.Append({"HGET", stored.responseKey, "&&ReturnStatus"});
  pipeline.Append({"HGET", stored.responseKey + "/ResponseData", "&&RawJSON"});
  pipeline.Append({"HGET", stored.requestKey, "&&Location"});
  pipeline.Append({"LRANGE", stored.responseKey + "/ExtendedInfo", "0", "-1"});
  const std::vector<RedisReply> replies = pipeline.Execute();
  FrontEndAnswer answer{
      std::string(TextOf(replies[0])), {}, std::string(TextOf(replies[1])), std::string(TextOf(replies[2]))};
  answer.messages = ReadMessages(redis, Texts(replies[3]));
  return answer;
}

void RemoveRequest(redisContext* redis, const StoredRequest& stored) {
  for (const std::string& key : KeyListing(redis, EscapeGlob(stored.requestKey) + "*")) KeyDelete(redis, key);
}

std::optional<FrontEndAnswer> SendRequest(redisContext* redis, const FrontEndRequest& request,
                                          std::chrono::milliseconds patience) {
  const std::optional<StoredRequest> stored = StoreRequest(redis, request);
  if (!stored) return std::nullopt;
  std::optional<FrontEndAnswer> answer;
  const RedisContext subscriber = Listen(stored->returnChannel, patience);
  if (subscriber && AnnounceUntilTaken(redis, ChannelOf(request.targetUri), *stored, patience) &&
      AwaitAnswer(subscriber.get(), *stored, patience)) {
    answer = ReadAnswer(redis, *stored);
  }
  RemoveRequest(redis, *stored);
  return answer;
}

std::optional<Json> ReadForClient(redisContext* redis, const std::string& uri) {
  RedisPipeline pipeline(redis);
  pipeline.Append({"HGETALL", uri});
  pipeline.Append({"HGET", uri, "&&SensitiveData"});
  const std::vector<RedisReply> replies = pipeline.Execute();
  if (!IsArray(replies[0]) || replies[0]->elements == 0) return std::nullopt;
  Json document;
  if (!ReadResource(redis, uri, replies[0].get(), document)) return Json(Json::value_t::discarded);
  const std::string_view sensitive = TextOf(replies[1]);
  for (size_t begin = 0; begin < sensitive.size();) {
    const size_t end = std::min(sensitive.find(',', begin), sensitive.size());
    Hide(document, sensitive.substr(begin, end - begin));
    begin = end + 1;
  }
  StripReferencePrefixes(document);
  return document;
}

}  // namespace event_service
