#include "foundation/redis_pipeline.h"

#include <algorithm>
#include <utility>

#include "foundation/logging.h"

namespace event_service {
namespace {

// The buffer of the thread's last pipeline, for its next one; one larger than a usual request needs is released.
constexpr size_t kMostRoomKept = 16 * 1024;
thread_local std::string room;

}  // namespace

RedisPipeline::RedisPipeline(redisContext* redis) : redis_(redis), commands_(std::move(room)) { room.clear(); }

RedisPipeline::~RedisPipeline() {
  if (commands_.size() <= kMostRoomKept && commands_.size() > room.size()) room = std::move(commands_);
}

size_t RedisPipeline::Append(std::initializer_list<std::string_view> arguments) {
  return Append(std::span(arguments.begin(), arguments.size()));
}

size_t RedisPipeline::Append(std::span<const std::string_view> arguments) {
  const size_t end = used_ + CommandRoom(arguments);
  if (commands_.size() < end) commands_.resize(std::max(end, 2 * commands_.size()));
  used_ = static_cast<size_t>(PutCommand(commands_.data() + used_, arguments) - commands_.data());
  return count_++;
}

void RedisPipeline::Then(std::function<void(Replies)> take) {
  constexpr size_t kUsualSteps = 8;
  if (steps_.empty()) steps_.reserve(kUsualSteps);
  steps_.push_back({count_, std::move(take), condition_});
}

std::vector<RedisReply> RedisPipeline::Execute() {
  // Taken first: a step may fill this pipeline anew.
  const std::vector<Step> steps = std::exchange(steps_, {});
  condition_ = nullptr;
  std::vector<RedisReply> replies;
  replies.reserve(count_);
  Execute([&replies](RedisReply reply) { replies.push_back(std::move(reply)); });
  size_t begin = 0;
  for (const Step& step : steps) {
    const bool isWanted = step.condition == nullptr || *step.condition;
    if (isWanted) step.take(Replies(replies).subspan(begin, step.end - begin));
    begin = step.end;
  }
  return replies;
}

void RedisPipeline::Execute(const std::function<void(RedisReply)>& take) {
  // A connection that has failed stays failed: nothing is sent to it and nothing is expected from it.
  const bool isSent = redis_->err == 0 && SendText(redis_, std::string_view(commands_).substr(0, used_));
  used_ = 0;
  size_t left = std::exchange(count_, 0);
  const auto next = [&] {
    --left;
    return isSent ? ReadReply(redis_) : nullptr;
  };
  try {
    while (left > 0) take(next());
  } catch (...) {
    // Replies that nobody has read would be taken for those of the next commands.
    while (left > 0) next();
    throw;
  }
}

bool AllIntegers(std::span<const RedisReply> replies) {
  return std::ranges::all_of(replies, [](const RedisReply& reply) { return IsInteger(reply); });
}

bool WasCarriedOut(const RedisReply& exec) {
  if (!IsArray(exec)) return false;
  return std::ranges::all_of(std::span(exec->element, exec->elements),
                             [](const redisReply* reply) { return IsInteger(reply) || TextOf(reply) == "OK"; });
}

bool HashBatchWrite(redisContext* redis, const HashBatch& batch) {
  RedisPipeline pipeline(redis);
  for (const auto& [key, fields] : batch) {
    for (const auto& [field, value] : fields) pipeline.Append({"HSET", key, field, value});
  }
  const std::vector<RedisReply> replies = pipeline.Execute();
  // From the first failed read on every reply is missing, so it is enough to look at the last.
  if (!replies.empty() && !replies.back()) LogError("Failed to get reply from database.");
  return AllIntegers(replies);
}

bool ListBatchAppend(redisContext* redis, std::string_view key, std::span<const std::string> values) {
  RedisPipeline pipeline(redis);
  for (const std::string& value : values) pipeline.Append({"RPUSH", key, value});
  const std::vector<RedisReply> replies = pipeline.Execute();
  if (replies.empty() || replies.back()) return true;
  LogError("Failed to get reply from database.");
  return false;
}

}  // namespace event_service
