#include "service/event_group_id.h"

#include <atomic>
#include <limits>
#include <system_error>

#include "foundation/logging.h"
#include "foundation/text_numbers.h"
#include "service/redis_keys.h"

namespace event_service {
namespace {

constexpr std::string_view kCounterField = "&&EVENT_GROUP_ID_COUNTER";
constexpr int32_t kNotReadYet = std::numeric_limits<int32_t>::max();

// Either listener may fill it in: both find the same value.
std::atomic<int32_t> knownMaximum{kNotReadYet};

/// The configured maximum; kNotReadYet, after a logged line, for a text that is none.
int32_t ParseMaximum(std::string_view text) {
  if (text.find('.') != std::string_view::npos) return kNotReadYet;  // a fraction is passed over in silence
  int32_t maximum = kNotReadYet;
  const std::errc error = ParseInteger(text, maximum);
  if (error == std::errc::invalid_argument) {
    LogError("[Exception]: Max EventGroupId value type error %s", std::make_error_code(error).message().c_str());
  } else if (error == std::errc::result_out_of_range) {
    LogError("[Exception]: Max EventGroupId value out of range %s", std::make_error_code(error).message().c_str());
  } else if (error != std::errc{}) {
    LogError("[Exception]: Max EventGroupId value error");
  } else if (maximum < 1) {
    LogError("[Exception]: the default max value was set to invalid value");
  } else {
    return maximum;
  }
  return kNotReadYet;
}

void SetCounter(redisContext* redis, std::string_view value) {
  if (!HashWrite(redis, kEventServiceUri, kCounterField, value)) {
    LogError("Failed to reset the EventGroupId counter");
  }
}

}  // namespace

int32_t MaxEventGroupId(redisContext* redis) {
  if (knownMaximum.load() == kNotReadYet) {
    RedisPipeline pipeline(redis);
    AppendMaxEventGroupIdRead(pipeline);
    SettleMaxEventGroupId(pipeline.Execute().front().get());
  }
  return knownMaximum.load();
}

size_t AppendMaxEventGroupIdRead(RedisPipeline& pipeline) {
  return pipeline.Append({"HGET", "webDefaultValue", "MAX_EVENT_GROUP_ID"});
}

void SettleMaxEventGroupId(const redisReply* reply) {
  // The other listener may have found it meanwhile.
  int32_t notReadYet = kNotReadYet;
  knownMaximum.compare_exchange_strong(notReadYet, ParseMaximum(IsString(reply) ? TextOf(reply) : std::string_view()));
}

void ForgetMaxEventGroupId() { knownMaximum.store(kNotReadYet); }

size_t AppendEventGroupIdDraw(RedisPipeline& pipeline) {
  return pipeline.Append({"HINCRBY", kEventServiceUri, kCounterField, "1"});
}

uint32_t SettleEventGroupId(redisContext* redis, const redisReply* drawReply) {
  long long drawn = IsInteger(drawReply) ? drawReply->integer : 0;
  if (drawn < 1) {
    LogError("Failed to increase the counter %s", kCounterField.data());
    SetCounter(redis, "1");
    drawn = 1;
  }
  const int32_t maximum = MaxEventGroupId(redis);
  if (drawn < maximum) return static_cast<uint32_t>(drawn);
  // The maximum is handed out when it is reached, and also when it was lowered below the counter.
  SetCounter(redis, "0");
  return static_cast<uint32_t>(maximum);
}

uint32_t NextEventGroupId(redisContext* redis) {
  RedisPipeline pipeline(redis);
  AppendEventGroupIdDraw(pipeline);
  const std::vector<RedisReply> replies = pipeline.Execute();
  return SettleEventGroupId(redis, replies.front().get());
}

}  // namespace event_service
