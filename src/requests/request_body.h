/// The body of a request, read as the front end stored it: a hash of JSON texts, nested values under keys of their own.
#pragma once

#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "foundation/redis_pipeline.h"
#include "resource_store/resource_walk.h"

namespace event_service {

/// Reads a body level by level. Each is a step of a batch, in which a handler's other commands travel as well:
///
///   RequestBody body(request.record.requestData);
///   RedisPipeline pipeline(redis);
///   while (!body.IsComplete()) {
///     body.AskLevel(pipeline);
///     pipeline.Execute();
///     if (body.HasFailed()) return DatabaseError("...");
///   }
///
/// A field may point to any key: only the front end writes such markers, since strings keep their quotes there. An
/// element of a list may be a client's string, so only markers to the list's own keys are followed from there.
class RequestBody {
 public:
  /// `key` is where the body is stored; an empty key stands for an empty body.
  explicit RequestBody(std::string_view key);

  /// Takes the first level from an HGETALL reply of the body's key that the caller has fetched. False when it fails.
  bool TakeRoot(const redisReply* hashReply);

  bool IsComplete() const { return walk_.Done(); }

  /// True, as ResourceWalk says it, after a failed command or a stored text that is no JSON. A key that does not exist
  /// held an empty body.
  bool HasFailed() const { return walk_.HasFailed(); }

  /// A step that reads the next level; nothing when the body is complete. The body outlives the batch.
  void AskLevel(RedisPipeline& pipeline);

  /// Reads the levels that are left, in batches of `pipeline`. False when the body could not be read.
  bool ReadRest(RedisPipeline& pipeline);

  /// What the client sent, without control fields and annotations; valid once the body is complete. A member that holds
  /// more than a body may is an OverfullValue, which every check refuses.
  const Json& Document() const { return document_; }
  Json TakeDocument() && { return std::move(document_); }
  /// The numbers in it that Json cannot give back as they were written.
  const NumberTexts& Numbers() const { return numbers_; }

 private:
  void Finish();

  Json document_;
  NumberTexts numbers_;
  std::set<std::string, std::less<>> overfullMembers_;
  ResourceWalk walk_;  // builds the three above
};

}  // namespace event_service
