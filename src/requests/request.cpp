#include "requests/request.h"

#include <iterator>
#include <utility>

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
  const struct {
    std::string RequestRecord::*member;
    std::string_view key;
    std::string_view field;
  } fields[] = {
      {&RequestRecord::method, requestKey, kRequestMethod},
      {&RequestRecord::targetUri, requestKey, kTargetUri},
      {&RequestRecord::privileges, requestKey, kPrivileges},
      {&RequestRecord::requestData, requestKey, kRequestData},
      {&RequestRecord::returnChannel, requestKey, kReturnChannel},
      {&RequestRecord::isSse, requestKey, kIsSse},
      {&RequestRecord::serviceEnabled, kEventServiceUri, "ServiceEnabled"},
      {&RequestRecord::lifeCycleDigest, kScriptDigests, kLifeCycleScript},
  };
  RedisPipeline pipeline(redis);
  for (const auto& field : fields) pipeline.Append({"HGET", field.key, field.field});
  pipeline.Append({"HGETALL", BodyKeyOf(requestKey)});
  std::vector<RedisReply> replies = pipeline.Execute();
  RequestRecord record;
  for (size_t i = 0; i < std::size(fields); ++i) {
    if (IsString(replies[i])) record.*fields[i].member = TextOf(replies[i]);
  }
  record.usualBody = std::move(replies.back());
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
