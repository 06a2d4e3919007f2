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

void AppendMaximumRead(RedisPipeline& pipeline) { pipeline.Append({"HGET", "webDefaultValue", "MAX_EVENT_GROUP_ID"}); }

void SettleMaximum(const RedisReply& reply) {
  // The other listener may have found it meanwhile.
  int32_t notReadYet = kNotReadYet;
  knownMaximum.compare_exchange_strong(notReadYet, ParseMaximum(IsString(reply) ? TextOf(reply) : std::string_view()));
}

/// What a draw gives: from the counter's reply and, where the maximum was not known when they were asked for, its own.
uint32_t SettleDraw(redisContext* redis, Replies replies) {
  const RedisReply& counter = replies.front();
  long long drawn = IsInteger(counter) ? counter->integer : 0;
  if (drawn < 1) {
    LogError("Failed to increase the counter %s", kCounterField.data());
    SetCounter(redis, "1");
    drawn = 1;
  }
  // Not known now, so it was not when the draw was sent: the reading stands behind it.
  if (knownMaximum.load() == kNotReadYet) SettleMaximum(replies.back());
  const int32_t maximum = knownMaximum.load();
  if (drawn < maximum) return static_cast<uint32_t>(drawn);
  // The maximum is handed out when it is reached, and also when it was lowered below the counter.
  SetCounter(redis, "0");
  return static_cast<uint32_t>(maximum);
}

}  // namespace

int32_t MaxEventGroupId(redisContext* redis) {
  if (knownMaximum.load() == kNotReadYet) {
    RedisPipeline pipeline(redis);
    AppendMaximumRead(pipeline);
    SettleMaximum(pipeline.Execute().front());
  }
  return knownMaximum.load();
}

void ForgetMaxEventGroupId() { knownMaximum.store(kNotReadYet); }

void DrawEventGroupId(redisContext* redis, RedisPipeline& pipeline, uint32_t& id) {
  const size_t before = pipeline.Append({"HINCRBY", kEventServiceUri, kCounterField, "1"});
  if (knownMaximum.load() == kNotReadYet) AppendMaximumRead(pipeline);
  // What a caller has appended without a step of its own stands before them.
  const size_t commands = pipeline.Size() - before;
  pipeline.Then([=, &id](Replies replies) { id = SettleDraw(redis, replies.last(commands)); });
}

uint32_t NextEventGroupId(redisContext* redis) {
  uint32_t id = 0;
  RedisPipeline pipeline(redis);
  DrawEventGroupId(redis, pipeline, id);
  pipeline.Execute();
  return id;
}

}  // namespace event_service
