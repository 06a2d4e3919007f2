#include "foundation/redis_pipeline.h"

#include <algorithm>
#include <utility>

namespace event_service {
namespace {

// Small enough for the server to start working while the rest is still being handed over.
constexpr size_t kChunkSize = 16 * 1024;

// The room that the thread's last pipeline has grown, for its next one; more than a usual request needs is given back.
constexpr size_t kMostRoomKept = 16 * 1024;
thread_local std::string room;

/// Sends the text chunk by chunk. The replies wait in the server's buffers meanwhile, so this cannot dead-lock.
bool Send(redisContext* redis, std::string_view commands) {
  while (!commands.empty()) {
    const std::string_view chunk = commands.substr(0, kChunkSize);
    if (redisAppendFormattedCommand(redis, chunk.data(), chunk.size()) != REDIS_OK) return false;
    for (int allSent = 0; allSent == 0;) {
      if (redisBufferWrite(redis, &allSent) != REDIS_OK) return false;
    }
    commands.remove_prefix(chunk.size());
  }
  return true;
}

}  // namespace

RedisPipeline::RedisPipeline(redisContext* redis) : redis_(redis), commands_(std::move(room)) { commands_.clear(); }

RedisPipeline::~RedisPipeline() {
  if (commands_.capacity() <= kMostRoomKept && commands_.capacity() > room.capacity()) room = std::move(commands_);
}

size_t RedisPipeline::Append(std::initializer_list<std::string_view> arguments) {
  return Append(std::span(arguments.begin(), arguments.size()));
}

size_t RedisPipeline::Append(std::span<const std::string_view> arguments) {
  AppendCommand(commands_, arguments);
  return count_++;
}

std::vector<RedisReply> RedisPipeline::Execute() {
  std::vector<RedisReply> replies;
  replies.reserve(count_);
  Execute([&replies](RedisReply reply) { replies.push_back(std::move(reply)); });
  return replies;
}

void RedisPipeline::Execute(const std::function<void(RedisReply)>& take) {
  // A connection that has failed stays failed: nothing is sent to it and nothing is expected from it.
  const bool isSent = redis_->err == 0 && Send(redis_, commands_);
  commands_.clear();
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

}  // namespace event_service
