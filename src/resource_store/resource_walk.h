/// A walk through a stored document, level by level: what reading and deleting documents are built on.
///
/// A level is a step of a batch, in which a caller's other commands travel as well:
///
///   Json body;
///   ResourceWalk walk(bodyKey, {.knownKind = ContainerKind::kObject}, &body);
///   RedisPipeline pipeline(redis);
///   pipeline.Ask({"EXISTS", memberUri}, [&](const RedisReply& reply) { ... });   // travels with the first level
///   while (!walk.Done()) {
///     walk.AskLevel(pipeline);
///     pipeline.Execute();
///     if (walk.HasFailed()) return false;
///   }
#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "foundation/redis_commands.h"
#include "foundation/redis_pipeline.h"
#include "resource_store/store_encoding.h"

namespace event_service {

/// Path of a value inside its document ("SNMP/Port", "Ports/2") -> the number's text as it is stored.
using NumberTexts = std::map<std::string, std::string, std::less<>>;

struct ReadOptions {
  /// What the key is known to hold; without it the walk asks first (one round trip more).
  std::optional<ContainerKind> knownKind = {};
  /// Control fields (names that begin with "&&"): left out, or given as strings whatever they look like.
  bool withControlFields = false;
  /// When set, the document is a request's body. Members' markers may have two words as well. An element's marker whose
  /// target is none of the keys that the writer gives to elements of that list is not followed: it can only be a
  /// client's string, which it then comes back as, and so does any other element that begins with "&&". (A member's
  /// marker never is one: strings keep their quotes there.) What a body may cost is bounded: of each list 257 elements
  /// are read, and below the body 1,024 objects and lists; of the body's members those that hold more are named here,
  /// and what lies beyond is left empty.
  std::set<std::string, std::less<>>* overfullMembers = nullptr;
  /// Containers under keys that do not lie under the document's own key are left empty, neither listed nor walked.
  bool ownKeysOnly = false;
  /// When set: of the document's own members, containers are walked only where this object, which must outlive the
  /// walk, has a member of that name; the others are left empty and none of their keys is found. It is looked at when
  /// the first level is taken.
  const Json* onlyMembersOf = nullptr;
  /// When not empty: of the document's own members only these are built. Nobody looks at the values of the others, but
  /// the keys that they lead to are found.
  std::span<const std::string_view> membersBuilt{};
  /// Receives the numbers that Json cannot give back as they are written ("1.50", "-0", more than 64 bits); in the
  /// document stands the nearest number that it can hold.
  NumberTexts* numberTexts = nullptr;
};

/// The kind of container that a reply to TYPE tells; nothing, after logging "[ERROR] Gets resource type failed.", for
/// any other.
std::optional<ContainerKind> TakeResourceType(const redisReply* typeReply, std::string_view key);

/// One walk. Each key is visited once; a marker that leads back to a visited key gives an empty container, and so does
/// a child key that holds nothing.
class ResourceWalk {
 public:
  /// With a `document`, which must outlive the walk and is replaced, every value is built into it; without, only the
  /// keys are found and values are not looked at.
  explicit ResourceWalk(std::string_view key, const ReadOptions& options = {}, Json* document = nullptr);
  ResourceWalk(const ResourceWalk&) = delete;
  ResourceWalk& operator=(const ResourceWalk&) = delete;

  /// True when every level has been taken.
  bool Done() const { return levelBegin_ == nodes_.size(); }

  /// True, after one "[ERROR]" line on standard error for the whole walk, once a reply has been missing or of the wrong
  /// type, a stored value neither marker nor JSON text, or the nesting too deep. A reader stops there; a deletion goes
  /// on with the keys that are left.
  bool HasFailed() const { return failed_; }

  /// A step that reads the next level: TYPE at first unless the kind is known, then one HGETALL or LRANGE for each key.
  /// Nothing when the walk is done. The walk outlives the batch.
  void AskLevel(RedisPipeline& pipeline);

  /// Reads the next level in a batch of its own. False when the walk has failed.
  bool ReadLevel(redisContext* redis);

  /// Takes the first level from an HGETALL reply of the document's key that the caller has fetched. The kind must be
  /// known to be an object.
  bool TakeRoot(const redisReply* hashReply);

  /// The keys found so far that belong to the document, its own first, each once.
  std::vector<std::string> Keys() const;

  /// Those of them that hold what is nested in one member of the document.
  std::vector<std::string> KeysOfMember(std::string_view name) const;

 private:
  struct Node {
    std::string key;
    ContainerKind kind;
    Json* value;           // where it is built; null when only keys are wanted
    size_t depth = 1;      // of the document
    size_t branch = 0;     // the node right below the document that this one hangs from
    std::string member{};  // of a branch: its member name
    std::string path{};    // kept when number texts are wanted
  };

  void AppendCommands(RedisPipeline& pipeline) const;
  bool TakeReplies(std::span<const RedisReply> replies);
  bool TakeType(const redisReply* reply);
  bool TakeReply(const Node& node, const redisReply* reply);
  bool TakeHash(const Node& node, std::span<redisReply* const> items);
  bool IsMemberBuilt(std::string_view name) const;
  bool TakeList(const Node& node, std::span<redisReply* const> items);
  bool TakeMarker(const Node& node, std::string_view name, const Marker& marker, Json* slot);
  bool IsRequestBody() const { return options_.overfullMembers != nullptr; }
  std::optional<Marker> MarkerOfField(std::string_view stored) const;
  std::optional<Marker> MarkerOfElement(std::string_view stored) const;
  bool IsFollowed(const Node& list, const Marker& marker) const;
  bool TakeText(const Node& node, std::string_view name, std::string_view stored, Json* slot);
  bool Fail(std::string_view message, const Node& node, std::string_view name = {});
  static std::string PathOf(const Node& node, std::string_view name);

  ReadOptions options_;
  std::deque<Node> nodes_;                        // in the order of their visit; those from levelBegin_ on are pending
  std::unordered_set<std::string_view> visited_;  // the keys of nodes_
  size_t levelBegin_ = 0;
  size_t texts_ = 0;  // names, values and elements that have been taken
  bool typeKnown_;
  bool failed_ = false;
};

}  // namespace event_service
