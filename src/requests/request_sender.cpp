#include "requests/request_sender.h"

#include <thread>
#include <utility>

#include "foundation/random.h"
#include "foundation/redis_pipeline.h"
#include "foundation/text_numbers.h"
#include "requests/answer.h"
#include "requests/request.h"
#include "requests/response_writer.h"
#include "resource_store/resource_writer.h"

namespace event_service {
namespace {

constexpr std::chrono::milliseconds kPauseBetweenAnnouncements{10};

// Of one length, so that no request key begins with another one.
std::string NewRequestKey(std::string_view prefix) { return std::string(prefix) + HexText(KernelNumber()); }

std::vector<std::string> StringsOf(const RedisReply& reply) {
  const std::vector<std::string_view> texts = TextsOf(reply);
  return {texts.begin(), texts.end()};
}

std::string AnnouncementOf(const StoredRequest& stored) { return stored.requestKey + " " + stored.responseKey; }

/// Steps that read one entry of an answer.
void AskMessage(RedisPipeline& pipeline, const std::string& entry, FrontEndMessage& message) {
  pipeline.Ask({"HGET", entry, kMessageId}, [&message](const RedisReply& id) { message.id = TextOf(id); });
  pipeline.Ask({"LRANGE", EntryListKey(entry, kMessageArgs), "0", "-1"},
               [&message](const RedisReply& list) { message.args = StringsOf(list); });
  pipeline.Ask({"LRANGE", EntryListKey(entry, kRelatedProperties), "0", "-1"},
               [&message](const RedisReply& list) { message.relatedProperties = StringsOf(list); });
}

void AddKeysOfEntry(std::vector<std::string>& keys, std::string_view entry) {
  keys.insert(keys.end(),
              {std::string(entry), EntryListKey(entry, kMessageArgs), EntryListKey(entry, kRelatedProperties)});
}

/// The keys of a request and its answer, but for those of the answer's entries.
std::vector<std::string> KeysOf(const StoredRequest& stored) {
  std::vector<std::string> keys = stored.keys;
  keys.insert(keys.end(), {stored.responseKey, AnswerBodyKey(stored.responseKey), MessageListKey(stored.responseKey)});
  return keys;
}

FrontEndAnswer Read(redisContext* redis, const StoredRequest& stored, bool isRemoved) {
  FrontEndAnswer answer;
  std::vector<std::string> entries;
  FrontEndMessage first;
  const std::string list = MessageListKey(stored.responseKey), firstEntry = list + "/1";
  RedisPipeline pipeline(redis);
  pipeline.Ask({"HGET", stored.responseKey, kReturnStatus},
               [&](const RedisReply& status) { answer.status = TextOf(status); });
  pipeline.Ask({"HGET", AnswerBodyKey(stored.responseKey), kRawJson},
               [&](const RedisReply& body) { answer.body = TextOf(body); });
  pipeline.Ask({"HGET", stored.requestKey, kLocation},
               [&](const RedisReply& location) { answer.location = TextOf(location); });
  pipeline.Ask({"LRANGE", list, "0", "-1"}, [&](const RedisReply& reply) { entries = StringsOf(reply); });
  // Most answers have one message at most.
  AskMessage(pipeline, firstEntry, first);
  std::vector<std::string> removed = KeysOf(stored);
  AddKeysOfEntry(removed, firstEntry);
  if (isRemoved) AppendUnlink(pipeline, removed);
  pipeline.Execute();

  removed.clear();
  answer.messages.resize(entries.size());
  for (size_t i = 0; i < entries.size(); ++i) {
    if (entries[i] == firstEntry) {
      answer.messages[i] = first;
    } else {
      AskMessage(pipeline, entries[i], answer.messages[i]);
      AddKeysOfEntry(removed, entries[i]);
    }
  }
  if (isRemoved) AppendUnlink(pipeline, removed);
  pipeline.Execute();
  return answer;
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
  pipeline.Append({"MULTI"});
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
  if (needsIds) AppendSequenceStore(pipeline, sequence);
  if (!place.announcedOn.empty()) pipeline.Append({"PUBLISH", place.announcedOn, AnnouncementOf(stored)});
  pipeline.Append({"EXEC"});
  const std::vector<RedisReply> replies = pipeline.Execute();
  const RedisReply& exec = replies.back();
  if (WasCarriedOut(exec) && exec->elements > 0) {
    stored.isTaken = !place.announcedOn.empty() && exec->element[exec->elements - 1]->integer > 0;
    return stored;
  }
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
  const RedisReply reply = SendArguments(redis, {"PUBLISH", channel, AnnouncementOf(stored)});
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

FrontEndAnswer ReadAnswer(redisContext* redis, const StoredRequest& stored) { return Read(redis, stored, false); }

FrontEndAnswer TakeAnswer(redisContext* redis, const StoredRequest& stored) { return Read(redis, stored, true); }

void RemoveRequest(redisContext* redis, const StoredRequest& stored) {
  std::vector<std::string> keys = KeysOf(stored);
  const RedisReply entries = SendArguments(redis, {"LRANGE", MessageListKey(stored.responseKey), "0", "-1"});
  for (const std::string_view entry : TextsOf(entries)) AddKeysOfEntry(keys, entry);
  RedisPipeline pipeline(redis);
  AppendUnlink(pipeline, keys);
  pipeline.Execute();
}

}  // namespace event_service
