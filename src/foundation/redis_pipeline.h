/// Several commands in one round trip: what does not depend on an earlier reply travels together.
#pragma once

#include <functional>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/redis_commands.h"

namespace event_service {

/// Collects commands and sends them when Execute is called; commands of a pipeline that is never executed are never
/// sent. Belongs to the thread of its connection, which must outlive it.
class RedisPipeline {
 public:
  explicit RedisPipeline(redisContext* redis);
  ~RedisPipeline();
  RedisPipeline(const RedisPipeline&) = delete;
  RedisPipeline& operator=(const RedisPipeline&) = delete;

  /// Adds one command, word by word, and returns its position among the replies.
  size_t Append(std::initializer_list<std::string_view> arguments);
  size_t Append(std::span<const std::string_view> arguments);

  size_t Size() const { return count_; }

  /// Sends what was appended and reads exactly as many replies, in order; a reply that could not be read is null, and
  /// so are those after it. The pipeline is empty afterwards. Logs nothing.
  std::vector<RedisReply> Execute();

  /// The same, but hands each reply over as it is read: a large answer is never in memory whole. What `take` throws
  /// passes through once every reply has been read.
  void Execute(const std::function<void(RedisReply)>& take);

 private:
  redisContext* redis_;
  std::string commands_;  // in the wire format, and room for more
  size_t used_ = 0;       // of it
  size_t count_ = 0;
};

/// True when every reply is an integer, the answer to a write that succeeded.
bool AllIntegers(std::span<const RedisReply> replies);

}  // namespace event_service
