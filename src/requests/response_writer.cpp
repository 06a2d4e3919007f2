#include "requests/response_writer.h"

#include <algorithm>
#include <set>
#include <span>

#include "foundation/logging.h"

namespace event_service {
namespace {

/// Appends a list below the entry and the entry's field that leads to it; nothing for an empty list.
void AppendList(RedisPipeline& pipeline, const std::string& entryKey, std::string_view name,
                const std::vector<std::string>& elements, std::string_view prefix) {
  if (elements.empty()) return;
  const std::string listKey = EntryListKey(entryKey, name);
  pipeline.Append({"HSET", entryKey, "&&" + std::string(name), listKey});
  for (const std::string& element : elements) {
    pipeline.Append({"RPUSH", listKey, std::string(prefix) + element});
  }
}

void AppendEntry(RedisPipeline& pipeline, const std::string& listKey, unsigned number, const Message& message) {
  const std::string entryKey = listKey + '/' + std::to_string(number);
  pipeline.Append({"RPUSH", listKey, entryKey});
  if (message.id.empty()) return;
  pipeline.Append({"HSET", entryKey, kMessageId, message.id});
  AppendList(pipeline, entryKey, kMessageArgs, message.args, "");
  AppendList(pipeline, entryKey, kRelatedProperties, message.relatedProperties, "#/");
}

void AppendListing(RedisPipeline& pipeline, std::string_view prefix, std::string_view key, std::string_view suffix) {
  pipeline.Append({"keys", std::string(prefix) + EscapeGlob(key) + std::string(suffix)});
}

/// The keys that a request nobody waits for has left, as far as Redis names them. Without a record any text may have
/// been announced, also the beginning of other services' keys: then only what lies below it belongs to it for sure.
std::set<std::string> KeysOfRequest(redisContext* redis, std::string_view requestKey) {
  const bool isRecord = TextOf(SendArguments(redis, {"TYPE", requestKey})) == "hash";
  const std::string_view below = isRecord && requestKey.ends_with('/') ? "*" : "/*";
  RedisPipeline pipeline(redis);
  if (isRecord) AppendListing(pipeline, "", requestKey, "*");
  AppendListing(pipeline, "", requestKey, below);
  if (!requestKey.starts_with("&&")) AppendListing(pipeline, "&&", requestKey, below);
  std::set<std::string> keys;
  for (const RedisReply& listing : pipeline.Execute()) {
    for (const std::string_view key : TextsOf(listing)) keys.emplace(key);
  }
  return keys;
}

void RemoveRequest(redisContext* redis, std::string_view requestKey) {
  RedisPipeline pipeline(redis);
  for (const std::string& key : KeysOfRequest(redis, requestKey)) pipeline.Append({"del", key});
  const std::vector<RedisReply> replies = pipeline.Execute();
  if (!replies.empty() && !replies.back()) LogError("Failed to get reply from database.");
}

}  // namespace

std::string AnswerBodyKey(std::string_view responseKey) { return std::string(responseKey) + "/ResponseData"; }
std::string MessageListKey(std::string_view responseKey) { return std::string(responseKey) + "/ExtendedInfo"; }
std::string EntryListKey(std::string_view entryKey, std::string_view name) {
  return std::string(entryKey) + '/' + std::string(name);
}

void ResponseWriter::Append(RedisPipeline& pipeline, std::string_view responseKey, const Answer& answer) {
  const std::string key(responseKey);
  if (!answer.status.empty()) pipeline.Append({"HSET", key, kReturnStatus, answer.status});
  if (!answer.body.empty()) {
    const std::string bodyKey = AnswerBodyKey(key);
    pipeline.Append({"HSET", key, "&&ResponseData", bodyKey});
    pipeline.Append({"HSET", bodyKey, kRawJson, answer.body});
  }
  if (answer.messages.empty()) return;
  const std::string listKey = MessageListKey(key);
  pipeline.Append({"HSET", key, "&&ExtendedInfo", listKey});
  if (key != lastResponseKey_) {
    lastResponseKey_ = key;
    counter_ = 0;
  }
  const size_t count = std::min(answer.messages.size(), kMostMessages);
  for (const Message& message : std::span(answer.messages).first(count)) {
    AppendEntry(pipeline, listKey, ++counter_, message);
  }
}

bool PublishAnswer(redisContext* redis, RedisPipeline& pipeline, std::string_view requestKey,
                   std::string_view responseKey, std::string_view returnChannel) {
  bool isHeard = false;
  if (!returnChannel.empty()) {
    pipeline.Ask({"PUBLISH", returnChannel, responseKey},
                 [&isHeard](const RedisReply& hearers) { isHeard = IsInteger(hearers) && hearers->integer >= 1; });
  }
  pipeline.Execute();
  if (!isHeard) RemoveRequest(redis, requestKey);
  return isHeard;
}

}  // namespace event_service
