#include "tools/resource_loader/collection_loader.h"

#include <algorithm>
#include <map>
#include <set>
#include <span>
#include <vector>

#include "foundation/redis_pipeline.h"
#include "resource_store/resource_editor.h"
#include "resource_store/resource_writer.h"

namespace event_service {
namespace {

/// What Redis holds of the collection before it is loaded.
struct PresentState {
  std::vector<std::string> entries;     // of the list of members
  std::vector<std::string> nestedKeys;  // all that lie below the collection's key
};

std::vector<std::string> CopiesOf(std::span<const std::string_view> texts) { return {texts.begin(), texts.end()}; }

std::string ReadPresentState(redisContext* redis, std::string_view collectionUri, PresentState& present) {
  RedisPipeline pipeline(redis);
  pipeline.Append({"TYPE", collectionUri});
  pipeline.Append({"LRANGE", MembersKey(collectionUri), "0", "-1"});
  pipeline.Append({"KEYS", EscapeGlob(ChildKey(collectionUri, "")) + "*"});
  const std::vector<RedisReply> replies = pipeline.Execute();
  const std::string_view type = TextOf(replies[0]);
  if (type != "hash" && type != "none") return "the collection's key does not hold a hash";
  if (!IsArray(replies[1])) return "the list of members cannot be read";
  if (!IsArray(replies[2])) return "the keys of the collection cannot be listed";
  present = {CopiesOf(TextsOf(replies[1])), CopiesOf(TextsOf(replies[2]))};
  return {};
}

/// The keys that the file's members and properties replace. A key below the collection's belongs to what its first
/// segment names: "&&<collection>/<Id>/..." to a member, "&&<collection>/<Name>..." to a property of the collection.
std::vector<std::string> ReplacedKeys(const PresentState& present, const CollectionFile& file,
                                      std::string_view collectionUri) {
  std::vector<std::string> keys;
  std::set<std::string, std::less<>> ids;
  for (const CollectionFile::Member& member : file.members) {
    keys.push_back(member.uri);
    ids.insert(member.uri.substr(collectionUri.size() + 1));
  }
  const size_t prefixLength = ChildKey(collectionUri, "").size();
  for (const std::string& key : present.nestedKeys) {
    const std::string_view rest = std::string_view(key).substr(prefixLength);
    const size_t slash = rest.find('/');
    const std::string_view first = rest.substr(0, slash);
    const bool isMembers = slash != std::string_view::npos && ids.contains(first);
    if (isMembers || file.properties.contains(first)) keys.push_back(key);
  }
  return keys;
}

/// Lists each of the file's members once: one that is missing is added, one that stands there twice, in whatever form,
/// is reduced. Returns the resulting length of the list.
size_t AppendEntries(RedisPipeline& pipeline, const PresentState& present, const CollectionFile& file,
                     std::string_view collectionUri) {
  std::map<std::string_view, size_t> times;
  for (const std::string& entry : present.entries) ++times[MemberUriOf(entry)];
  size_t length = present.entries.size();
  for (const CollectionFile::Member& member : file.members) {
    const size_t listed = times[member.uri];
    if (listed == 1) continue;
    if (listed > 1) AppendMemberRemoval(pipeline, collectionUri, member.uri);
    pipeline.Append({"RPUSH", MembersKey(collectionUri), MemberEntry(member.uri)});
    length = length - listed + 1;
  }
  return length;
}

bool NeedsSequenceIds(const CollectionFile& file) {
  if (event_service::NeedsSequenceIds(file.properties)) return true;
  return std::ranges::any_of(file.members, [](const CollectionFile::Member& member) {
    return event_service::NeedsSequenceIds(member.document);
  });
}

}  // namespace

LoadFault LoadCollection(redisContext* redis, const CollectionFile& file, std::string_view collectionUri) {
  PresentState present;
  if (const std::string fault = ReadPresentState(redis, collectionUri, present); !fault.empty()) return {fault};

  const bool takesIds = NeedsSequenceIds(file);
  int64_t sequence = takesIds ? NextSequenceId(redis) : kNoSequence;
  if (takesIds && sequence < 0) return {"no sequence id can be had"};

  RedisPipeline pipeline(redis);
  pipeline.Append({"MULTI"});
  AppendUnlink(pipeline, ReplacedKeys(present, file, collectionUri));
  bool fits = AppendDocument(pipeline, collectionUri, file.properties, sequence);
  for (const CollectionFile::Member& member : file.members) {
    fits = fits && AppendDocument(pipeline, member.uri, member.document, sequence);
  }
  if (!fits) return {"a document cannot be stored", true};
  const size_t count = AppendEntries(pipeline, present, file, collectionUri);
  std::string entriesKey = MembersKey(collectionUri);
  pipeline.Append({"HSET", collectionUri, "Members", BuildMarker(false, Json::array(), entriesKey, "Members")});
  pipeline.Append({"HSET", collectionUri, "Members@odata.count", std::to_string(count)});
  if (takesIds) AppendSequenceStore(pipeline, sequence);
  pipeline.Append({"EXEC"});
  const std::vector<RedisReply> replies = pipeline.Execute();
  return {WasCarriedOut(replies.back()) ? "" : "Redis did not take the data"};
}

}  // namespace event_service
