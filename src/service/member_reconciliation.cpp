#include "service/member_reconciliation.h"

#include <algorithm>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/logging.h"
#include "foundation/redis_pipeline.h"
#include "resource_store/resource_editor.h"
#include "resource_store/resource_reader.h"
#include "service/discovery.h"
#include "service/redis_keys.h"
#include "service/subscription_log.h"

namespace event_service {
namespace {

/// The Id that a member's URI ends with; empty for a URI that is not one level below the collection.
std::string_view IdOf(std::string_view uri) {
  if (!uri.starts_with(kSubscriptionsUri)) return {};
  uri.remove_prefix(kSubscriptionsUri.size());
  if (!uri.starts_with('/')) return {};
  uri.remove_prefix(1);
  return uri.find('/') == std::string_view::npos ? uri : std::string_view();
}

/// The fields that decide what becomes of a member; a missing one is empty.
struct Traits {
  std::string_view protocol;
  std::string_view destination;
  std::string_view subscriptionType;
  std::string_view patchValidation;
  std::string_view crudPrefix;
};

void AppendTraitsRead(RedisPipeline& pipeline, std::string_view uri) {
  pipeline.Append({"HMGET", uri, "Protocol", "Destination", "SubscriptionType", "&&PATCHValidation", kCrudPrefixField});
}

Traits TraitsOf(const redisReply* reply) {
  std::vector<std::string_view> texts = ElementsOf(reply);
  texts.resize(5);
  return {texts[0], texts[1], texts[2], texts[3], texts[4]};
}

/// While only the Redfish protocol is served, all other members belong to another service.
bool IsOurs(const Traits& traits, const ServiceSettings& settings) {
  return !settings.protocolOnly || traits.protocol == "\"Redfish\"";
}

bool BelongsIntoFile(const Traits& traits) {
  return !traits.protocol.empty() && !traits.destination.empty() && traits.subscriptionType != "\"SSE\"";
}

/// A creation writes the one field first and the other last.
bool IsHalfCreated(const Traits& traits) { return !traits.patchValidation.empty() && traits.crudPrefix.empty(); }

/// The collection as Redis holds it.
struct Collection {
  std::vector<std::string_view> members;    // URIs in the list's order, each once
  std::vector<std::string_view> strangers;  // URIs below the collection that the list does not name
};

Collection TakeCollection(const redisReply* memberEntries, const redisReply* keys) {
  Collection collection;
  std::set<std::string_view> named;
  for (const std::string_view entry : ElementsOf(memberEntries)) {
    const std::string_view uri = MemberUriOf(entry);
    if (!IdOf(uri).empty() && named.insert(uri).second) collection.members.push_back(uri);
  }
  for (const std::string_view uri : ElementsOf(keys)) {
    if (!IdOf(uri).empty() && !named.contains(uri)) collection.strangers.push_back(uri);
  }
  return collection;
}

/// Rebuilds what memory knows of the members; returns those that the file should hold and does not.
std::vector<std::string_view> TakeMembers(std::span<const std::string_view> uris, std::span<const RedisReply> traits,
                                          const ServiceSettings& settings, SubscriptionsState& state) {
  const std::vector<std::string>& restoredUris = state.db.RestoredUris();
  const std::set<std::string_view> restored(restoredUris.begin(), restoredUris.end());
  std::vector<std::string_view> missing;
  state.syslogTlsDestinationIds.clear();
  for (size_t i = 0; i < uris.size(); ++i) {
    const Traits member = TraitsOf(traits[i].get());
    if (member.protocol == "\"SyslogTLS\"") state.syslogTlsDestinationIds.emplace_back(IdOf(uris[i]));
    if (restored.contains(uris[i])) {
      LogSubscriptionChange(uris[i], "restored", "start-up");
    } else if (BelongsIntoFile(member) && IsOurs(member, settings)) {
      missing.push_back(uris[i]);
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
  const std::vector<RedisReply> listing = pipeline.Execute();
  if (!IsArray(listing[0])) return false;
  const auto [members, strangers] = TakeCollection(listing[0].get(), listing[1].get());

  for (const std::string_view uri : members) pipeline.Append({"HSET", uri, kCrudPrefixField, kEventDestinationPrefix});
  for (const std::string_view uri : members) AppendTraitsRead(pipeline, uri);
  for (const std::string_view uri : strangers) AppendTraitsRead(pipeline, uri);
  const std::vector<RedisReply> replies = pipeline.Execute();
  const std::span all(replies);
  if (!AllIntegers(all.first(members.size()))) return false;

  const std::vector<std::string_view> missing =
      TakeMembers(members, all.subspan(members.size(), members.size()), settings, state);
  WriteBack(redis, missing, TextOf(listing[2]), state.db);

  const std::span strangerTraits = all.last(strangers.size());
  for (size_t i = 0; i < strangers.size(); ++i) {
    const Traits traits = TraitsOf(strangerTraits[i].get());
    if (IsHalfCreated(traits) && IsOurs(traits, settings)) RemoveHalfCreated(redis, strangers[i]);
  }
  return true;
}

}  // namespace event_service
