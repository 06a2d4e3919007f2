#include "subscriptions/generated_destinations.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "foundation/durable_file.h"
#include "foundation/logging.h"
#include "foundation/random.h"
#include "foundation/redis_pipeline.h"
#include "requests/answer.h"
#include "requests/request.h"
#include "resource_store/json_text.h"
#include "resource_store/resource_editor.h"
#include "resource_store/resource_writer.h"
#include "service/redis_keys.h"
#include "subscriptions/resource/member_uri.h"

namespace event_service {
namespace {

constexpr std::string_view kAdministrator = "ConfigureManager";
constexpr std::chrono::milliseconds kPauseBetweenAnnouncements{20};
// By these a body without an Id is recognised.
constexpr std::string_view kIdentity[] = {"Destination", "Protocol", "Context"};

/// The creation bodies of the file: an array, or an object whose "Members" is one.
std::vector<Json> ReadBodies(const std::string& path) {
  const std::optional<std::string> text = ReadWholeFile(path);
  if (!text && errno == ENOENT) return {};
  Json document = text ? ParseOutsideText(*text) : Json();
  if (document.is_object() && document.contains("Members")) document = Json(std::move(document["Members"]));
  if (!document.is_array()) {
    LogError("The file of generated event destinations %s cannot be read.", path.c_str());
    return {};
  }
  return std::move(document.get_ref<Json::array_t&>());
}

using Identity = std::vector<Json>;  // the values of kIdentity; null for a missing one

Identity IdentityOf(const Json& body) {
  Identity identity;
  for (const std::string_view name : kIdentity) identity.push_back(body.value(name, Json()));
  return identity;
}

std::vector<Identity> IdentitiesOfMembers(redisContext* redis) {
  std::vector<Identity> identities;
  const RedisReply entries = SendArguments(redis, {"LRANGE", kSubscriptionsMembersKey, "0", "-1"});
  if (!IsArray(entries)) return identities;
  RedisPipeline pipeline(redis);
  for (const redisReply* entry : std::span(entries->element, entries->elements)) {
    for (const std::string_view name : kIdentity) pipeline.Append({"HGET", MemberUriOf(TextOf(entry)), name});
  }
  const std::vector<RedisReply> replies = pipeline.Execute();
  for (size_t i = 0; i < replies.size(); i += std::size(kIdentity)) {
    Identity identity;
    for (size_t j = 0; j < std::size(kIdentity); ++j) {
      Json value = ParseOutsideText(TextOf(replies[i + j]));
      identity.push_back(value.is_discarded() ? Json() : std::move(value));
    }
    identities.push_back(std::move(identity));
  }
  return identities;
}

bool Exists(redisContext* redis, const Json& body, const std::vector<Identity>& members) {
  const auto id = body.find("Id");
  if (id == body.end() || *id == "") return std::ranges::find(members, IdentityOf(body)) != members.end();
  return id->is_string() && KeyExists(redis, MemberUri(id->get_ref<const std::string&>()));
}

/// One request as a front end makes it; its keys go with it.
class GenerationRequest {
 public:
  enum class Outcome { kAnswered, kNotStored, kNotHeard, kNotAnswered };

  explicit GenerationRequest(redisContext* redis)
      : redis_(redis), key_(std::string(kGenerationPrefix) + std::to_string(RandomNumber())) {}
  GenerationRequest(const GenerationRequest&) = delete;
  GenerationRequest& operator=(const GenerationRequest&) = delete;
  ~GenerationRequest();

  Outcome Send(const Json& body, const GenerationLimits& limits);

  const std::string& Status() const { return status_; }
  /// Why it was refused: the message's id; the status where that stands alone.
  const std::string& Reason() const { return messageId_.empty() ? status_ : messageId_; }

 private:
  bool Store(const Json& body);
  RedisContext Listen(std::chrono::milliseconds patience) const;
  bool Announce(std::chrono::milliseconds patience);
  void ReadAnswer();

  std::string ResponseKey() const { return key_ + "/Response"; }
  std::string ReturnChannel() const { return key_ + "/CHANNEL"; }

  redisContext* redis_;
  std::string key_;
  std::string status_;
  std::string messageId_;
};

GenerationRequest::~GenerationRequest() {
  RedisPipeline pipeline(redis_);
  AppendUnlink(pipeline, KeyListing(redis_, EscapeGlob(key_) + "*"));
  pipeline.Execute();
}

GenerationRequest::Outcome GenerationRequest::Send(const Json& body, const GenerationLimits& limits) {
  if (!Store(body)) return Outcome::kNotStored;
  const RedisContext subscriber = Listen(limits.perAnswer);
  if (!subscriber || !Announce(limits.untilHeard)) return Outcome::kNotHeard;
  void* message = nullptr;
  if (redisGetReply(subscriber.get(), &message) != REDIS_OK) return Outcome::kNotAnswered;
  freeReplyObject(message);
  ReadAnswer();
  return Outcome::kAnswered;
}

bool GenerationRequest::Store(const Json& body) {
  const std::string bodyKey = key_ + "/RequestData";
  const HashBatch record = {{key_,
                             {{std::string(kRequestMethod), "POSTCREATE"},
                              {std::string(kTargetUri), std::string(kSubscriptionsUri)},
                              {std::string(kPrivileges), std::string(kAdministrator)},
                              {std::string(kRequestData), bodyKey},
                              {std::string(kReturnChannel), ReturnChannel()}}}};
  return WriteResource(redis_, bodyKey, body) && HashBatchWrite(redis_, record);
}

/// A connection that waits for the answer; reading from it fails after `patience`.
RedisContext GenerationRequest::Listen(std::chrono::milliseconds patience) const {
  RedisContext subscriber(redisConnectContext());
  if (!subscriber || !LimitWaiting(subscriber.get(), patience)) return nullptr;
  if (!IsArray(SendArguments(subscriber.get(), {"SUBSCRIBE", ReturnChannel()}))) return nullptr;
  return subscriber;
}

/// The listener's thread has just been started: it may not have subscribed yet.
bool GenerationRequest::Announce(std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  const std::string announcement = key_ + ' ' + ResponseKey();
  for (;;) {
    const RedisReply receivers = SendArguments(redis_, {"PUBLISH", kSubscriptionsChannel, announcement});
    if (!IsInteger(receivers)) return false;
    if (receivers->integer > 0) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(kPauseBetweenAnnouncements);
  }
}

void GenerationRequest::ReadAnswer() {
  RedisPipeline pipeline(redis_);
  pipeline.Append({"HGET", ResponseKey(), kReturnStatus});
  pipeline.Append({"HGET", ResponseKey() + "/ExtendedInfo/1", "&&MessageId"});
  const std::vector<RedisReply> replies = pipeline.Execute();
  status_ = TextOf(replies[0]);
  messageId_ = TextOf(replies[1]);
}

}  // namespace

void CreateGeneratedDestinations(redisContext* redis, const ServiceSettings& settings) {
  CreateGeneratedDestinations(redis, settings, {});
}

void CreateGeneratedDestinations(redisContext* redis, const ServiceSettings& settings, const GenerationLimits& limits) {
  const std::vector<Json> bodies = ReadBodies(settings.paths.generatedDestinations);
  if (bodies.empty()) return;
  std::vector<Identity> members = IdentitiesOfMembers(redis);
  for (size_t position = 1; position <= bodies.size(); ++position) {
    const Json& body = bodies[position - 1];
    if (!body.is_object()) {
      LogError("Generated event destination %zu is no JSON object.", position);
      continue;
    }
    if (Exists(redis, body, members)) continue;
    GenerationRequest request(redis);
    switch (request.Send(body, limits)) {
      case GenerationRequest::Outcome::kNotStored:
        LogError("Generated event destination %zu could not be stored as a request.", position);
        break;
      case GenerationRequest::Outcome::kNotHeard:
        LogError("Nobody takes the generated event destinations from number %zu on.", position);
        return;
      case GenerationRequest::Outcome::kNotAnswered:
        LogError("Generated event destination %zu was not answered.", position);
        break;
      case GenerationRequest::Outcome::kAnswered:
        if (request.Status() == kOkRes) {
          members.push_back(IdentityOf(body));
        } else {
          LogError("Generated event destination %zu was refused: %s", position, request.Reason().c_str());
        }
        break;
    }
  }
}

}  // namespace event_service
