/// What is stored of a subscription, asked for and changed in steps of a batch.
#pragma once

#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/redis_pipeline.h"
#include "requests/answer.h"
#include "resource_store/resource_walk.h"

namespace event_service {

/// "NOT_FOUND" for a target that does not exist.
Answer MemberMissing(std::string_view uri);

/// The reads of one batch about one member. Lives until the batch has been executed.
class MemberReads {
 public:
  MemberReads(RedisPipeline& pipeline, std::string_view uri) : pipeline_(pipeline), uri_(uri) {}

  /// Asks whether there is such a member: a key that holds anything but a hash is none, and stays.
  void AskWhetherThere();
  /// Asks that and, for `walk`, what its first level is.
  void AskFirstLevel(ResourceWalk& walk);
  /// Asks for the text of a field; it stays empty when there is none.
  void AskField(std::string_view key, std::string_view field, std::string& text);
  /// `take` gets the reply unless that is a failure.
  void Ask(std::initializer_list<std::string_view> command, std::function<void(const RedisReply&)> take);

  bool IsMissing() const { return isMissing_; }
  bool HasFailed() const { return hasFailed_; }
  /// For a member that is missing or that Redis does not tell about; nothing when all has been read.
  std::optional<Answer> Refusal() const;

 private:
  RedisPipeline& pipeline_;
  std::string_view uri_;
  bool isMissing_ = false;
  bool hasFailed_ = false;
};

/// An etag that cannot be set does not stop a change; it is logged.
void LogEtagFailure(std::string_view uri);

/// Gives a resource a new etag; `isSet` tells whether it has it. `uri` lives until the batch has been executed.
void SetEtag(RedisPipeline& pipeline, std::string_view uri, std::string_view etag, bool& isSet);

/// Gives the collection a new etag. `stored` is what it has then, for the file.
void RenewCollectionEtag(RedisPipeline& pipeline, std::string& stored);

}  // namespace event_service
