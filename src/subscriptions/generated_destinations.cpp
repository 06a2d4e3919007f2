#include "subscriptions/generated_destinations.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/durable_file.h"
#include "foundation/logging.h"
#include "foundation/redis_pipeline.h"
#include "requests/answer.h"
#include "requests/request_sender.h"
#include "resource_store/json_text.h"
#include "resource_store/resource_editor.h"
#include "service/redis_keys.h"
#include "subscriptions/resource/member_uri.h"

namespace event_service {
namespace {

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
  for (const std::string_view entry : TextsOf(entries)) {
    for (const std::string_view name : kIdentity) pipeline.Append({"HGET", MemberUriOf(entry), name});
    pipeline.Then([&identities](Replies texts) {
      Identity& identity = identities.emplace_back();
      for (const RedisReply& text : texts) {
        Json value = ParseOutsideText(TextOf(text));
        identity.push_back(value.is_discarded() ? Json() : std::move(value));
      }
    });
  }
  pipeline.Execute();
  return identities;
}

bool Exists(redisContext* redis, const Json& body, const std::vector<Identity>& members) {
  const auto id = body.find("Id");
  if (id == body.end() || *id == "") return std::ranges::find(members, IdentityOf(body)) != members.end();
  return id->is_string() && KeyExists(redis, MemberUri(id->get_ref<const std::string&>()));
}

/// What became of one body.
struct Outcome {
  enum { kCreated, kRefused, kNotStored, kNotHeard, kNotAnswered } kind;
  std::string reason = {};  // of a refusal: the message's id; the status where that stands alone
};

Outcome Announce(redisContext* redis, const StoredRequest& request, const GenerationLimits& limits) {
  const RedisContext subscriber = ListenForAnswer(request, limits.perAnswer);
  // The listener's thread has just been started: it may not have subscribed yet.
  if (!subscriber || !AnnounceUntilTaken(redis, kSubscriptionsChannel, request, limits.untilHeard)) {
    return {Outcome::kNotHeard};
  }
  if (!AwaitAnswer(subscriber.get(), request, limits.perAnswer)) return {Outcome::kNotAnswered};
  const FrontEndAnswer answer = ReadAnswer(redis, request);
  if (answer.status == kOkRes) return {Outcome::kCreated};
  const bool isExplained = !answer.messages.empty() && !answer.messages.front().id.empty();
  return {Outcome::kRefused, isExplained ? answer.messages.front().id : answer.status};
}

/// Sends the body as a front end sends an administrator's.
Outcome Send(redisContext* redis, const Json& body, const GenerationLimits& limits) {
  const FrontEndRequest creation{.method = "POSTCREATE", .targetUri = std::string(kSubscriptionsUri), .body = body};
  const std::optional<StoredRequest> request = StoreRequest(redis, creation, {.keyPrefix = kGenerationPrefix});
  if (!request) return {Outcome::kNotStored};
  Outcome outcome = Announce(redis, *request, limits);
  RemoveRequest(redis, *request);
  return outcome;
}

/// Takes one body of the file, which is not among the members; a new one joins them. False when nobody takes requests.
bool Create(redisContext* redis, const Json& body, size_t position, const GenerationLimits& limits,
            std::vector<Identity>& members) {
  const Outcome outcome = Send(redis, body, limits);
  switch (outcome.kind) {
    case Outcome::kCreated:
      members.push_back(IdentityOf(body));
      break;
    case Outcome::kRefused:
      LogError("Generated event destination %zu was refused: %s", position, outcome.reason.c_str());
      break;
    case Outcome::kNotStored:
      LogError("Generated event destination %zu could not be stored as a request.", position);
      break;
    case Outcome::kNotAnswered:
      LogError("Generated event destination %zu was not answered.", position);
      break;
    case Outcome::kNotHeard:
      LogError("Nobody takes the generated event destinations from number %zu on.", position);
      return false;
  }
  return true;
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
    if (!Create(redis, body, position, limits, members)) return;
  }
}

}  // namespace event_service
