/// Several commands in one round trip: what does not depend on an earlier reply travels together.
///
/// A step of a batch says in one place what it asks and what becomes of the reply:
///
///   RedisPipeline pipeline(redis);
///   pipeline.Append({"HSET", uri, "Context", text});
///   pipeline.Append({"HSET", uri, "Name", name});
///   pipeline.Then([&](Replies replies) { isWritten = AllIntegers(replies); });
///   pipeline.Ask({"HGET", uri, "@odata.etag"}, [&](RedisReply& reply) { etag = TextOf(reply); });
///   pipeline.Execute();
#pragma once

#include <functional>
#include <initializer_list>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/redis_commands.h"

namespace event_service {

/// The replies of one step. A null one could not be read. A step may move them out.
using Replies = std::span<RedisReply>;

/// Collects commands and sends them when Execute is called; commands of a pipeline that is never executed are never
/// sent. Belongs to the thread of its connection, which must outlive it.
class RedisPipeline {
 public:
  /// `redis` is not null and the calling thread's; with a failed connection every reply is null.
  explicit RedisPipeline(redisContext* redis);
  ~RedisPipeline();
  RedisPipeline(const RedisPipeline&) = delete;
  RedisPipeline& operator=(const RedisPipeline&) = delete;

  /// Adds one command, word by word, and returns its position among the replies.
  size_t Append(std::initializer_list<std::string_view> arguments);
  size_t Append(std::span<const std::string_view> arguments);

  /// The number of commands that Execute will send.
  size_t Size() const { return count_; }

  /// Ends a step: `take` gets the replies to what was appended since the step before it. Execute calls the steps in
  /// their order once every reply has been read, so that a step may send commands of its own. A step without a command
  /// is called as well.
  void Then(std::function<void(Replies)> take);

  /// The steps from here on are passed over, without a line, unless this is true when their turn comes.
  void OnlyIf(const bool& condition) { condition_ = &condition; }

  /// A step of one command: `take` gets the reply to it.
  template <typename Take>
  void Ask(std::initializer_list<std::string_view> arguments, Take take) {
    Append(arguments);
    Then([take = std::move(take)](Replies replies) { take(replies.back()); });
  }

  /// Sends what was appended, reads exactly as many replies, in order, and runs the steps; a reply that could not be
  /// read is null, and so are those after it. The pipeline is empty afterwards. Logs nothing.
  std::vector<RedisReply> Execute();

  /// For a batch without steps: hands each reply over as it is read, so that a large answer is never in memory whole.
  /// What `take` throws passes through once every reply has been read.
  void Execute(const std::function<void(RedisReply)>& take);

 private:
  redisContext* redis_;
  std::string commands_;  // a buffer of commands in the wire format
  size_t used_ = 0;       // bytes of it
  size_t count_ = 0;

  struct Step {
    size_t end;  // behind its last command
    std::function<void(Replies)> take;
    const bool* condition;
  };
  std::vector<Step> steps_;
  const bool* condition_ = nullptr;
};

/// True when every reply is an integer, the answer to a write that succeeded.
bool AllIntegers(std::span<const RedisReply> replies);

/// True when a transaction was carried out and each of its commands, which are writes, was answered like one. `exec`
/// is the reply to EXEC.
bool WasCarriedOut(const RedisReply& exec);

/// Keys, their fields and the values to write.
using HashBatch = std::map<std::string, std::map<std::string, std::string>>;

/// Writes every field of the batch in one pipeline. True when every reply is an integer. Reads every reply whatever
/// happens before it; the first that cannot be read logs "Failed to get reply from database.".
bool HashBatchWrite(redisContext* redis, const HashBatch& batch);

/// Appends the values to a list in one pipeline, in order. False, after logging "Failed to get reply from database.",
/// when a reply cannot be read; error replies are not looked at.
bool ListBatchAppend(redisContext* redis, std::string_view key, std::span<const std::string> values);

}  // namespace event_service
