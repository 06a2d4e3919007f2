#include "service/member_reconciliation.h"

#include <algorithm>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/logging.h"
#include "foundation/random.h"
#include "foundation/redis_pipeline.h"
#include "resource_store/json_text.h"
#include "resource_store/member_uri.h"
#include "resource_store/resource_editor.h"
#include "resource_store/resource_reader.h"
#include "service/redis_keys.h"
#include "service/subscription_log.h"

namespace event_service {
namespace {

std::string_view IdOf(std::string_view uri) { return MemberIdOf(kSubscriptionsUri, uri); }

using UriSet = std::set<std::string_view>;

/// A URI below the collection, and the fields that decide what becomes of it; a missing one is empty.
struct Candidate {
  explicit Candidate(std::string_view itsUri) : uri(itsUri) {}

  std::string_view uri;
  std::string_view protocol, destination, subscriptionType, allowMethod, patchValidation, crudPrefix;
  RedisReply fields;  // which they are views of
  bool isRead = false;
  enum class Presence { kUnknown, kMissing, kHash } presence = Presence::kUnknown;
};

/// Asks for the fields in a batch; the candidate stays where it is until then.
void AskFields(RedisPipeline& pipeline, Candidate& candidate) {
  pipeline.Ask({"HMGET", candidate.uri, "Protocol", "Destination", "SubscriptionType", kAllowMethodField,
                kPatchValidationField, kCrudPrefixField},
               [&candidate](RedisReply& reply) {
                 candidate.isRead = IsArray(reply) || IsWrongType(reply);
                 candidate.fields = std::move(reply);
                 std::vector<std::string_view> texts = TextsOf(candidate.fields);
                 texts.resize(6);
                 candidate.protocol = texts[0];
                 candidate.destination = texts[1];
                 candidate.subscriptionType = texts[2];
                 candidate.allowMethod = texts[3];
                 candidate.patchValidation = texts[4];
                 candidate.crudPrefix = texts[5];
               });
}

void AskPresence(RedisPipeline& pipeline, Candidate& candidate) {
  pipeline.Ask({"HLEN", candidate.uri}, [&candidate](const RedisReply& length) {
    using enum Candidate::Presence;
    if (IsInteger(length)) candidate.presence = length->integer > 0 ? kHash : kMissing;
    if (IsWrongType(length)) candidate.presence = kMissing;
  });
}

/// While only the Redfish protocol is served, all other members belong to another service.
bool IsOurs(const Candidate& member, const ServiceSettings& settings) {
  return !settings.protocolOnly || member.protocol == "\"Redfish\"";
}

bool BelongsIntoFile(const Candidate& member) {
  return !member.protocol.empty() && !member.destination.empty() && member.subscriptionType != "\"SSE\"";
}

/// Whether a URI that the list does not name belongs to a request that was cut short. A creation writes the first two
/// fields at its beginning and the prefix last, behind the entry in the list; a deletion takes that entry before the
/// keys.
bool IsLeftover(const Candidate& stranger) {
  const bool isBegun = !stranger.allowMethod.empty() || !stranger.patchValidation.empty();
  return stranger.crudPrefix == kEventDestinationPrefix || (isBegun && stranger.crudPrefix.empty());
}

/// The collection as Redis holds it.
class Collection {
 public:
  /// Reads the list, what lies below the collection, and the fields of both; removes the requests of an earlier start.
  /// False when Redis does not tell.
  bool Read(redisContext* redis);

  std::string_view Etag() const { return TextOf(etag_); }
  /// The hashes that the list names, in its order, each once.
  const std::vector<Candidate>& Members() const { return members_; }
  /// What lies below the collection and is not named.
  const std::vector<Candidate>& Strangers() const { return strangers_; }

 private:
  void SortUris();

  RedisReply entries_, keys_, etag_, requests_;
  std::vector<Candidate> members_, strangers_;
};

bool Collection::Read(redisContext* redis) {
  const auto into = [](RedisReply& found) { return [&found](RedisReply& reply) { found = std::move(reply); }; };
  RedisPipeline pipeline(redis);
  pipeline.Ask({"LRANGE", kSubscriptionsMembersKey, "0", "-1"}, into(entries_));
  pipeline.Ask({"KEYS", std::string(kSubscriptionsUri) + "/*"}, into(keys_));
  pipeline.Ask({"HGET", kSubscriptionsUri, kEtagField}, into(etag_));
  pipeline.Ask({"KEYS", EscapeGlob(kGenerationPrefix) + "*"}, into(requests_));
  pipeline.Execute();
  if (!IsArray(entries_) || !IsArray(keys_) || IsFailure(etag_)) return false;
  SortUris();
  for (Candidate& member : members_) {
    AskPresence(pipeline, member);
    AskFields(pipeline, member);
  }
  for (Candidate& stranger : strangers_) AskFields(pipeline, stranger);
  // What a start that was killed has left of its requests: headers stand in them.
  for (const std::string_view key : TextsOf(requests_)) pipeline.Append({"UNLINK", key});
  pipeline.Then([this](Replies replies) {
    if (IsArray(requests_) && AllIntegers(replies)) return;
    LogError("Failed to remove the requests of an earlier start.");
  });
  pipeline.Execute();
  using enum Candidate::Presence;
  std::erase_if(members_, [](const Candidate& member) { return member.presence == kMissing; });
  return std::ranges::all_of(strangers_, &Candidate::isRead) &&
         std::ranges::all_of(members_,
                             [](const Candidate& member) { return member.isRead && member.presence == kHash; });
}

void Collection::SortUris() {
  std::set<std::string_view> named;
  for (const std::string_view entry : TextsOf(entries_)) {
    const std::string_view uri = MemberUriOf(entry);
    if (!IdOf(uri).empty() && named.insert(uri).second) members_.emplace_back(uri);
  }
  for (const std::string_view uri : TextsOf(keys_)) {
    if (!IdOf(uri).empty() && !named.contains(uri)) strangers_.emplace_back(uri);
  }
}

/// The etag that the collection has from here on. The loader has set that of the file, which knows nothing of members
/// that only Redis holds: with them, it may once have stood for others.
std::string RenewEtag(RedisPipeline& pipeline, const Collection& collection, const UriSet& restored) {
  const bool isOfFile = std::ranges::all_of(
      collection.Members(), [&restored](const Candidate& member) { return restored.contains(member.uri); });
  if (isOfFile) return std::string(collection.Etag());
  std::string etag = JsonText(NewEtag());
  pipeline.Append({"HSET", kSubscriptionsUri, kEtagField, etag});
  return etag;
}

/// Gives our members what marks them as complete.
void AppendPrefixes(RedisPipeline& pipeline, std::span<const Candidate> members, const ServiceSettings& settings) {
  for (const Candidate& member : members) {
    if (!IsOurs(member, settings)) continue;
    pipeline.Append({"HSET", member.uri, kCrudPrefixField, kEventDestinationPrefix});
  }
}

/// Rebuilds what memory knows of the members; returns those that the file should hold and does not.
std::vector<std::string_view> RememberMembers(std::span<const Candidate> members, const UriSet& restored,
                                              const ServiceSettings& settings, SubscriptionsState& state) {
  std::vector<std::string_view> missing;
  state.syslogTlsDestinationIds.clear();
  // What the file has given Redis is whole, with nothing else below it. A stream is not in the file.
  const auto isSettled = [&](const std::string& uri) {
    return restored.contains(uri) || std::ranges::find(members, uri, &Candidate::uri) == members.end();
  };
  std::erase_if(state.halfChangedUris, isSettled);
  std::erase_if(state.scatteredUris, isSettled);
  for (const Candidate& member : members) {
    if (member.protocol == "\"SyslogTLS\"") state.syslogTlsDestinationIds.emplace_back(IdOf(member.uri));
    if (restored.contains(member.uri)) {
      LogSubscriptionChange(member.uri, "restored", "start-up");
    } else if (BelongsIntoFile(member) && IsOurs(member, settings)) {
      missing.push_back(member.uri);
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

/// The arrays and objects of a leftover may be there without a marker that leads to them.
void RemoveLeftover(redisContext* redis, std::string_view uri) {
  std::vector<std::string> keys = KeyListing(redis, EscapeGlob(ChildKey(uri, {})) + "*");
  keys.emplace_back(uri);
  RedisPipeline pipeline(redis);
  AppendUnlink(pipeline, keys);
  if (!AllIntegers(pipeline.Execute())) {
    LogError("Failed to remove what is left of the subscription %s.", std::string(uri).c_str());
    return;
  }
  LogSubscriptionChange(uri, "deleted as a leftover", "start-up");
}

}  // namespace

bool ReconcileMembers(redisContext* redis, const ServiceSettings& settings, SubscriptionsState& state) {
  Collection collection;
  if (!collection.Read(redis)) return false;
  const std::vector<std::string>& restoredUris = state.db.Start().RestoredUris();
  const UriSet restored(restoredUris.begin(), restoredUris.end());
  RedisPipeline pipeline(redis);
  AppendPrefixes(pipeline, collection.Members(), settings);
  const std::string etag = RenewEtag(pipeline, collection, restored);
  if (!AllIntegers(pipeline.Execute())) return false;
  WriteBack(redis, RememberMembers(collection.Members(), restored, settings, state), etag, state.db);
  for (const Candidate& stranger : collection.Strangers()) {
    // What the file holds is a subscription, however the loader may have named it in the list.
    const bool isInFile = restored.contains(stranger.uri);
    if (!isInFile && IsLeftover(stranger) && IsOurs(stranger, settings)) RemoveLeftover(redis, stranger.uri);
  }
  return true;
}

}  // namespace event_service
