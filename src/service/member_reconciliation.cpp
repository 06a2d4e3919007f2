#include "service/member_reconciliation.h"

#include <algorithm>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/logging.h"
#include "foundation/redis_pipeline.h"
#include "resource_store/member_uri.h"
#include "resource_store/resource_editor.h"
#include "resource_store/resource_reader.h"
#include "service/discovery.h"
#include "service/redis_keys.h"
#include "service/subscription_log.h"

namespace event_service {
namespace {

std::string_view IdOf(std::string_view uri) { return MemberIdOf(kSubscriptionsUri, uri); }

/// The fields that decide what becomes of a member; a missing one is empty.
struct Traits {
  std::string_view protocol;
  std::string_view destination;
  std::string_view subscriptionType;
  std::string_view allowMethod;
  std::string_view patchValidation;
  std::string_view crudPrefix;
};

void AppendTraitsRead(RedisPipeline& pipeline, std::string_view uri) {
  pipeline.Append({"HMGET", uri, "Protocol", "Destination", "SubscriptionType", "&&AllowMethod", "&&PATCHValidation",
                   kCrudPrefixField});
}

Traits TraitsOf(const redisReply* reply) {
  std::vector<std::string_view> texts = TextsOf(reply);
  texts.resize(6);
  return {texts[0], texts[1], texts[2], texts[3], texts[4], texts[5]};
}

/// While only the Redfish protocol is served, all other members belong to another service.
bool IsOurs(const Traits& traits, const ServiceSettings& settings) {
  return !settings.protocolOnly || traits.protocol == "\"Redfish\"";
}

bool BelongsIntoFile(const Traits& traits) {
  return !traits.protocol.empty() && !traits.destination.empty() && traits.subscriptionType != "\"SSE\"";
}

/// A creation writes the first two fields at its beginning, "&&AllowMethod" before all others, and the third last.
bool IsHalfCreated(const Traits& traits) {
  const bool isBegun = !traits.allowMethod.empty() || !traits.patchValidation.empty();
  return isBegun && traits.crudPrefix.empty();
}

/// The collection as Redis holds it.
struct Collection {
  std::vector<std::string_view> members;    // URIs in the list's order, each once
  std::vector<std::string_view> strangers;  // URIs below the collection that the list does not name
};

Collection TakeCollection(const redisReply* memberEntries, const redisReply* keys) {
  Collection collection;
  std::set<std::string_view> named;
  for (const std::string_view entry : TextsOf(memberEntries)) {
    const std::string_view uri = MemberUriOf(entry);
    if (!IdOf(uri).empty() && named.insert(uri).second) collection.members.push_back(uri);
  }
  for (const std::string_view uri : TextsOf(keys)) {
    if (!IdOf(uri).empty() && !named.contains(uri)) collection.strangers.push_back(uri);
  }
  return collection;
}

/// A hash that the collection names.
struct Member {
  std::string_view uri;
  Traits traits;
};

/// The members that there are, from two replies for each name: its number of fields, its traits. Nothing when Redis
/// does not tell.
std::optional<std::vector<Member>> TakeMembers(std::span<const std::string_view> uris,
                                               std::span<const RedisReply> replies) {
  std::vector<Member> members;
  for (size_t i = 0; i < uris.size(); ++i) {
    const RedisReply& length = replies[2 * i];
    if (IsWrongType(length)) continue;
    if (!IsInteger(length)) return std::nullopt;
    if (length->integer > 0) members.push_back({uris[i], TraitsOf(replies[2 * i + 1].get())});
  }
  return members;
}

bool CompleteOurs(redisContext* redis, std::span<const Member> members, const ServiceSettings& settings) {
  RedisPipeline pipeline(redis);
  for (const Member& member : members) {
    if (!IsOurs(member.traits, settings)) continue;
    pipeline.Append({"HSET", member.uri, kCrudPrefixField, kEventDestinationPrefix});
  }
  return AllIntegers(pipeline.Execute());
}

/// Rebuilds what memory knows of the members; returns those that the file should hold and does not.
std::vector<std::string_view> RememberMembers(std::span<const Member> members, const ServiceSettings& settings,
                                              SubscriptionsState& state) {
  const std::vector<std::string>& restoredUris = state.db.Start().RestoredUris();
  const std::set<std::string_view> restored(restoredUris.begin(), restoredUris.end());
  std::vector<std::string_view> missing;
  state.syslogTlsDestinationIds.clear();
  state.halfChangedUris.clear();  // Redis holds what the file has given it
  for (const auto& [uri, traits] : members) {
    if (traits.protocol == "\"SyslogTLS\"") state.syslogTlsDestinationIds.emplace_back(IdOf(uri));
    if (restored.contains(uri)) {
      LogSubscriptionChange(uri, "restored", "start-up");
    } else if (BelongsIntoFile(traits) && IsOurs(traits, settings)) {
      missing.push_back(uri);
    }
  }
  return missing;
}

/// Writes members that the file lacks back into it, in one change.
void WriteBack(redisContext* redis, std::span<const std::string_view> uris, std::string_view collectionEtag,
               SubscriptionDb& db) {
  std::vector<Json> documents;
  std::vector<std::string_view> written;
  for (const std::string_view uri : uris) {
    Json document;
    const ReadOptions wholeResource{
        .knownKind = ContainerKind::kObject, .withControlFields = true, .ownKeysOnly = true};
    if (!ReadResource(redis, uri, document, wholeResource)) continue;
    documents.push_back(std::move(document));
    written.push_back(uri);
  }
  // What fails is logged by the file's side; the members stay in Redis until the next start.
  if (!db.WriteBackDbSubscriptions(documents, collectionEtag)) return;
  for (const std::string_view uri : written) LogSubscriptionChange(uri, "written back into the file", "start-up");
}

/// Removes what a creation that was cut short has left: its arrays and objects may be there without a marker that leads
/// to them.
void RemoveHalfCreated(redisContext* redis, std::string_view uri) {
  const std::string below = "&&" + std::string(uri) + "/";
  std::vector<std::string> keys = KeyListing(redis, EscapeGlob(below) + "*");
  keys.emplace_back(uri);
  RedisPipeline pipeline(redis);
  AppendUnlink(pipeline, keys);
  if (!AllIntegers(pipeline.Execute())) {
    LogError("Failed to remove the half-created subscription %s.", std::string(uri).c_str());
    return;
  }
  LogSubscriptionChange(uri, "deleted half-created", "start-up");
}

}  // namespace

bool ReconcileMembers(redisContext* redis, const ServiceSettings& settings, SubscriptionsState& state) {
  RedisPipeline pipeline(redis);
  pipeline.Append({"LRANGE", kSubscriptionsMembersKey, "0", "-1"});
  pipeline.Append({"KEYS", std::string(kSubscriptionsUri) + "/*"});
  pipeline.Append({"HGET", kSubscriptionsUri, "@odata.etag"});
  pipeline.Append({"KEYS", EscapeGlob(kGenerationPrefix) + "*"});
  const std::vector<RedisReply> listing = pipeline.Execute();
  if (!IsArray(listing[0])) return false;
  const auto [uris, strangers] = TakeCollection(listing[0].get(), listing[1].get());

  for (const std::string_view uri : uris) {
    pipeline.Append({"HLEN", uri});
    AppendTraitsRead(pipeline, uri);
  }
  for (const std::string_view uri : strangers) AppendTraitsRead(pipeline, uri);
  const size_t leftovers = pipeline.Size();
  // What a start that was killed has left of its requests: headers stand in them.
  for (const std::string_view key : TextsOf(listing[3])) pipeline.Append({"UNLINK", key});
  const std::vector<RedisReply> replies = pipeline.Execute();
  const std::span all(replies);
  if (!AllIntegers(all.subspan(leftovers))) LogError("Failed to remove the requests of an earlier start.");
  const std::optional<std::vector<Member>> members = TakeMembers(uris, all);
  if (!members || !CompleteOurs(redis, *members, settings)) return false;
  WriteBack(redis, RememberMembers(*members, settings, state), TextOf(listing[2]), state.db);

  const std::span strangerTraits = all.subspan(2 * uris.size());
  for (size_t i = 0; i < strangers.size(); ++i) {
    const Traits traits = TraitsOf(strangerTraits[i].get());
    if (IsHalfCreated(traits) && IsOurs(traits, settings)) RemoveHalfCreated(redis, strangers[i]);
  }
  return true;
}

}  // namespace event_service
