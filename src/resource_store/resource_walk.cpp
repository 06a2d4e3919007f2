#include "resource_store/resource_walk.h"

#include <algorithm>
#include <utility>

#include "foundation/characters.h"
#include "resource_store/json_text.h"
#include "resource_store/store_log.h"

namespace event_service {
namespace {

// One element more than any array may have tells that there are too many.
constexpr std::string_view kLastBodyElement = "256";
constexpr size_t kMostBodyContainers = 1024;
constexpr size_t kMostBodyTexts = 32768;                // names, values and elements
constexpr size_t kLongestBodyText = size_t{64} * 1024;  // but for strings, which nothing is made of

Json EmptyContainer(ContainerKind kind) {
  return kind == ContainerKind::kObject ? Json::value_t::object : Json::value_t::array;
}

bool IsDecimal(std::string_view text) { return !text.empty() && std::ranges::all_of(text, IsDigit); }

/// True for the target that the writer gives to an object or array in the list at `listKey`.
bool IsElementKey(std::string_view listKey, std::string_view target) {
  const std::string anyElement = ChildKey(listKey, {});
  return target.starts_with(anyElement) && IsDecimal(target.substr(anyElement.size()));
}

/// The string that a text was before it lost its quotes; the text itself when it never had any.
Json StringOfMarkerText(std::string_view stored) {
  Json text = ParseOutsideText('"' + std::string(stored) + '"');
  if (!text.is_string()) text = std::string(stored);
  return text;
}

}  // namespace

std::optional<ContainerKind> TakeResourceType(const redisReply* typeReply, std::string_view key) {
  const std::string_view type = TextOf(typeReply);
  if (type == "hash") return ContainerKind::kObject;
  if (type == "list") return ContainerKind::kArray;
  LogStoreError("Gets resource type failed.", {{kLogResource, key}, {kLogResultCode, type}});
  return std::nullopt;
}

ResourceWalk::ResourceWalk(std::string_view key, const ReadOptions& options, Json* document)
    : options_(options), typeKnown_(options.knownKind.has_value()) {
  const ContainerKind kind = options.knownKind.value_or(ContainerKind::kObject);
  nodes_.push_back({.key = std::string(key), .kind = kind, .value = document});
  visited_.insert(nodes_.front().key);
  if (document != nullptr) *document = EmptyContainer(kind);
}

void ResourceWalk::AskLevel(RedisPipeline& pipeline) {
  AppendCommands(pipeline);
  pipeline.Then([this](Replies replies) { TakeReplies(replies); });
}

void ResourceWalk::AppendCommands(RedisPipeline& pipeline) const {
  if (Done()) return;
  if (!typeKnown_) {
    pipeline.Append({"TYPE", nodes_.front().key});
    return;
  }
  for (size_t i = levelBegin_; i < nodes_.size(); ++i) {
    if (nodes_[i].kind == ContainerKind::kObject) {
      pipeline.Append({"HGETALL", nodes_[i].key});
    } else {
      pipeline.Append({"LRANGE", nodes_[i].key, "0", IsRequestBody() ? kLastBodyElement : "-1"});
    }
  }
}

bool ResourceWalk::TakeReplies(std::span<const RedisReply> replies) {
  if (Done()) return true;
  const auto reply = [&](size_t i) { return i < replies.size() ? replies[i].get() : nullptr; };
  if (!typeKnown_) return TakeType(reply(0));

  const size_t begin = std::exchange(levelBegin_, nodes_.size());
  bool complete = true;
  for (size_t i = begin; i < levelBegin_; ++i) complete &= TakeReply(nodes_[i], reply(i - begin));
  return complete;
}

bool ResourceWalk::ReadLevel(redisContext* redis) {
  RedisPipeline pipeline(redis);
  AppendCommands(pipeline);
  if (!typeKnown_) return TakeReplies(pipeline.Execute());
  // Reply by reply: a large level is never in memory whole.
  size_t index = std::exchange(levelBegin_, nodes_.size());
  pipeline.Execute([&](const RedisReply& reply) { TakeReply(nodes_[index++], reply.get()); });
  return !failed_;
}

bool ResourceWalk::TakeRoot(const redisReply* hashReply) {
  levelBegin_ = 1;
  return TakeReply(nodes_.front(), hashReply);
}

bool ResourceWalk::TakeType(const redisReply* reply) {
  Node& root = nodes_.front();
  const std::optional<ContainerKind> kind = TakeResourceType(reply, root.key);
  typeKnown_ = true;
  if (!kind) {
    failed_ = true;
    levelBegin_ = nodes_.size();
    return false;
  }
  root.kind = *kind;
  if (root.value != nullptr) *root.value = EmptyContainer(*kind);
  return true;
}

bool ResourceWalk::TakeReply(const Node& node, const redisReply* reply) {
  if (reply == nullptr) return Fail("Redis get reply failed!", node);
  const bool isWhole = IsArray(reply) && (node.kind == ContainerKind::kArray || reply->elements % 2 == 0);
  if (!isWhole) return Fail("Gets redis resource failed.", node);
  const std::span items(reply->element, reply->elements);
  if (!std::ranges::all_of(items, [](const redisReply* item) { return IsString(item); })) {
    return Fail("Gets redis resource failed.", node);
  }
  texts_ += items.size();
  if (IsRequestBody() && texts_ > kMostBodyTexts) return Fail("Resource is too large.", node);
  return node.kind == ContainerKind::kObject ? TakeHash(node, items) : TakeList(node, items);
}

bool ResourceWalk::TakeHash(const Node& node, std::span<redisReply* const> items) {
  bool complete = true;
  for (size_t i = 0; i < items.size(); i += 2) {
    const std::string_view name = TextOf(items[i]);
    const std::string_view stored = TextOf(items[i + 1]);
    const bool isBuilt = node.value != nullptr && (node.depth > 1 || IsMemberBuilt(name));
    const auto slot = [&]() -> Json* {
      if (!isBuilt) return nullptr;
      const auto [member, isNew] = node.value->emplace(std::string(name), nullptr);
      if (isNew) return &*member;
      // No hash has a field twice; what was made of the first one may lead to the next level.
      complete = Fail("Gets redis resource failed.", node, name);
      return nullptr;
    };
    if (LooksLikeMarker(name)) {
      if (!options_.withControlFields) continue;
      if (Json* const text = slot()) *text = std::string(stored);
    } else if (!LooksLikeMarker(stored)) {
      complete &= TakeText(node, name, stored, slot());
    } else if (const std::optional<Marker> marker = MarkerOfField(stored)) {
      complete &= TakeMarker(node, name, *marker, slot());
    }
  }
  return complete;
}

bool ResourceWalk::IsMemberBuilt(std::string_view name) const {
  return options_.membersBuilt.empty() || std::ranges::find(options_.membersBuilt, name) != options_.membersBuilt.end();
}

bool ResourceWalk::TakeList(const Node& node, std::span<redisReply* const> items) {
  // No element may move once another level has a pointer to it.
  if (node.value != nullptr) node.value->get_ref<Json::array_t&>().reserve(items.size());
  const auto slot = [&] { return node.value == nullptr ? nullptr : &node.value->emplace_back(nullptr); };

  bool complete = true;
  for (size_t i = 0; i < items.size(); ++i) {
    const std::string index = std::to_string(i);
    const std::string_view stored = TextOf(items[i]);
    if (!LooksLikeMarker(stored)) {
      complete &= TakeText(node, index, stored, slot());
    } else if (const std::optional<Marker> marker = MarkerOfElement(stored); marker && IsFollowed(node, *marker)) {
      complete &= TakeMarker(node, index, *marker, slot());
    } else if (IsRequestBody() && node.value != nullptr) {
      *slot() = StringOfMarkerText(stored);
    }
  }
  return complete;
}

std::optional<Marker> ResourceWalk::MarkerOfField(std::string_view stored) const {
  return IsRequestBody() ? ParseBodyFieldMarker(stored) : ParseFieldMarker(stored);
}

std::optional<Marker> ResourceWalk::MarkerOfElement(std::string_view stored) const {
  return IsRequestBody() ? ParseBodyElementMarker(stored) : ParseElementMarker(stored);
}

bool ResourceWalk::IsFollowed(const Node& list, const Marker& marker) const {
  return !IsRequestBody() || marker.kind == Marker::Kind::kReference || IsElementKey(list.key, marker.target);
}

bool ResourceWalk::TakeMarker(const Node& node, std::string_view name, const Marker& marker, Json* slot) {
  if (node.depth == kMaxNesting) return Fail("Resource is nested too deep.", node, name);
  if (marker.kind == Marker::Kind::kReference) {
    if (slot != nullptr) *slot = Json::object({{"@odata.id", std::string(marker.target)}});
    return true;
  }
  const ContainerKind kind = marker.kind == Marker::Kind::kObject ? ContainerKind::kObject : ContainerKind::kArray;
  if (slot != nullptr) *slot = EmptyContainer(kind);
  if (options_.ownKeysOnly && !IsUnderKey(nodes_.front().key, marker.target)) return true;
  const bool isWanted = node.depth > 1 || options_.onlyMembersOf == nullptr || options_.onlyMembersOf->contains(name);
  if (!isWanted || visited_.contains(marker.target)) return true;
  if (IsRequestBody() && nodes_.size() > kMostBodyContainers) {
    options_.overfullMembers->emplace(node.depth == 1 ? name : nodes_[node.branch].member);
    return true;
  }

  const size_t index = nodes_.size();
  Node child{.key = std::string(marker.target), .kind = kind, .value = slot, .depth = node.depth + 1};
  child.branch = node.depth == 1 ? index : node.branch;
  if (node.depth == 1) child.member = name;
  if (options_.numberTexts != nullptr) child.path = PathOf(node, name);
  nodes_.push_back(std::move(child));  // leaves `node`, an element of the same deque, where it is
  visited_.insert(nodes_.back().key);
  return true;
}

bool ResourceWalk::TakeText(const Node& node, std::string_view name, std::string_view stored, Json* slot) {
  if (slot == nullptr) return true;
  const bool isLong = stored.size() > kLongestBodyText && !stored.starts_with('"');
  if (IsRequestBody() && isLong) return Fail("Resource is too large.", node, name);
  bool exact = true;
  if (!ParseJsonText(stored, *slot, exact)) return Fail("Gets redis resource failed.", node, name);
  if (!NestsWithin(*slot, kMaxNesting - node.depth)) return Fail("Resource is nested too deep.", node, name);
  if (!exact && options_.numberTexts != nullptr) options_.numberTexts->emplace(PathOf(node, name), stored);
  return true;
}

std::string ResourceWalk::PathOf(const Node& node, std::string_view name) {
  return node.path.empty() ? std::string(name) : node.path + '/' + std::string(name);
}

bool ResourceWalk::Fail(std::string_view message, const Node& node, std::string_view name) {
  if (std::exchange(failed_, true)) return false;
  if (name.empty()) {
    LogStoreError(message, {{kLogResource, node.key}});
  } else {
    LogStoreError(message,
                  {{kLogResource, node.key}, {node.kind == ContainerKind::kObject ? kLogFields : kLogElement, name}});
  }
  return false;
}

std::vector<std::string> ResourceWalk::Keys() const {
  std::vector<std::string> keys;
  keys.reserve(nodes_.size());
  for (const Node& node : nodes_) keys.push_back(node.key);
  return keys;
}

std::vector<std::string> ResourceWalk::KeysOfMember(std::string_view name) const {
  std::vector<std::string> keys;
  for (const Node& node : nodes_) {
    if (node.branch != 0 && nodes_[node.branch].member == name) keys.push_back(node.key);
  }
  return keys;
}

}  // namespace event_service
