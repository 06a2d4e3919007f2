#include "requests/request.h"

#include <utility>
#include <vector>

#include "foundation/redis_pipeline.h"
#include "service/redis_keys.h"

namespace event_service {

std::string BodyKeyOf(std::string_view requestKey) { return std::string(requestKey) + "/RequestData"; }

std::optional<Announcement> ParseAnnouncement(std::string_view text) {
  const size_t blank = text.find(' ');
  if (blank == 0 || blank == std::string_view::npos || blank + 1 == text.size()) return std::nullopt;
  return Announcement{std::string(text.substr(0, blank)), std::string(text.substr(blank + 1))};
}

RequestRecord ReadRequestRecord(redisContext* redis, std::string_view requestKey) {
  RequestRecord record;
  RedisPipeline pipeline(redis);
  pipeline.Ask({"HMGET", requestKey, kRequestMethod, kTargetUri, kPrivileges, kRequestData, kReturnChannel, kIsSse},
               [&record](const RedisReply& reply) {
                 const std::vector<std::string_view> texts = TextsOf(reply);
                 auto text = texts.begin();
                 for (std::string* const field : {&record.method, &record.targetUri, &record.privileges,
                                                  &record.requestData, &record.returnChannel, &record.isSse}) {
                   if (text != texts.end()) *field = *text++;
                 }
               });
  pipeline.Ask({"HGET", kEventServiceUri, kServiceEnabled},
               [&record](const RedisReply& reply) { record.serviceEnabled = TextOf(reply); });
  pipeline.Ask({"HGET", kScriptDigests, kLifeCycleScript},
               [&record](const RedisReply& reply) { record.lifeCycleDigest = TextOf(reply); });
  pipeline.Ask({"HGETALL", BodyKeyOf(requestKey)},
               [&record](RedisReply& reply) { record.usualBody = std::move(reply); });
  pipeline.Execute();
  const redisReply* const body = record.usualBody.get();
  const bool isBodyThere = IsWrongType(record.usualBody) || (IsArray(body) && body->elements > 0);
  if (record.requestData.empty() && isBodyThere) record.requestData = BodyKeyOf(requestKey);
  return record;
}

const redisReply* Request::PrefetchedBody() const {
  return record.requestData == BodyKeyOf(announcement.requestKey) ? record.usualBody.get() : nullptr;
}

bool Request::IsFromEventing() const {
  return announcement.responseKey == kFromEventing && (record.method == "DELETE" || record.method == "PATCH");
}

const char* Request::AskedBy() const {
  if (announcement.requestKey.starts_with(kGenerationPrefix)) return "start-up";
  if (announcement.requestKey.starts_with(kEndOfStreamsPrefix)) return "client";
  return IsFromEventing() ? "delivery side" : "client";
}

}  // namespace event_service
