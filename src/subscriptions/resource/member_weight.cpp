#include "subscriptions/resource/member_weight.h"

#include <algorithm>
#include <span>

#include "resource_store/json_text.h"

namespace event_service {
namespace {

constexpr size_t kMostBytes = 64 * 1024;

/// A container's brackets, and the commas between its entries.
size_t WeightOfFrame(size_t entries) { return entries == 0 ? 2 : entries + 1; }

/// A member's name in its quotes, and the colon.
size_t WeightOfName(std::string_view name) { return name.size() + 3; }

// Recursion: documents nest within kMaxNesting.
size_t Weight(const Json& value) {
  if (!value.is_structured()) return JsonTextSize(value);
  size_t weight = WeightOfFrame(value.size());
  if (const auto* const object = value.get_ptr<const Json::object_t*>()) {
    for (const auto& [name, member] : *object) weight += WeightOfName(name) + Weight(member);
  } else {
    for (const Json& element : value.get_ref<const Json::array_t&>()) weight += Weight(element);
  }
  return weight;
}

// The same for stored containers: texts weigh what they are, markers what they lead to. Each key is weighed once;
// one of another type weighs nothing.
constexpr std::string_view kWeighScript = R"lua(
local seen = {}
local weigh

local function weighEntry(stored, markerForm)
  if stored:sub(1, 2) ~= '&&' then return #stored end
  local kind, target = stored:match(markerForm)
  if kind == 'ObjectRef' then return #target + #'{"@odata.id":""}' end
  if kind == 'Object' or kind == 'Array' then return weigh(kind, target) end
end

local function weighList(key)
  local total, entries = 0, 0
  for _, stored in ipairs(redis.pcall('LRANGE', key, 0, -1)) do
    local weight = weighEntry(stored, '^&&(%a+) ([^ ]+)$')
    if weight then total, entries = total + weight, entries + 1 end
  end
  return total, entries
end

local function weighHash(key, visit)
  local fields = redis.pcall('HGETALL', key)
  for i = 1, #fields, 2 do
    local name = fields[i]
    local weight = name:sub(1, 2) ~= '&&' and weighEntry(fields[i + 1], '^&&(%a+) [^ ]+ ([^ ]+)$')
    if weight then visit(name, weight) end
  end
end

weigh = function(kind, key)
  if seen[key] then return 2 end
  seen[key] = true
  local total, entries = 0, 0
  if kind == 'Array' then
    total, entries = weighList(key)
  else
    weighHash(key, function(name, weight) total, entries = total + #name + 3 + weight, entries + 1 end)
  end
  return entries == 0 and 2 or total + entries + 1
end

local weights = {}
weighHash(KEYS[1], function(name, weight)
  weights[#weights + 1] = name
  weights[#weights + 1] = weight
end)
return weights
)lua";

std::optional<PropertyWeights> WeightsIn(const RedisReply& reply) {
  if (!IsArray(reply)) return std::nullopt;
  PropertyWeights weights;
  const std::span<redisReply* const> items(reply->element, reply->elements);
  for (size_t i = 0; i + 1 < items.size(); i += 2) {
    if (!IsInteger(items[i + 1])) return std::nullopt;
    weights.emplace(TextOf(items[i]), static_cast<size_t>(items[i + 1]->integer));
  }
  return weights;
}

}  // namespace

PropertyWeights WeightsOf(const Json& properties) {
  PropertyWeights weights;
  for (const auto& [name, value] : properties.items()) {
    if (!LooksLikeMarker(name)) weights.emplace(name, Weight(value));
  }
  return weights;
}

void AskWeights(RedisPipeline& pipeline, std::string_view uri, std::optional<PropertyWeights>& weights) {
  pipeline.Ask({"EVAL", kWeighScript, "1", uri}, [&weights](const RedisReply& reply) { weights = WeightsIn(reply); });
}

std::optional<std::string> TooHeavyProperty(const PropertyWeights& weights) {
  size_t total = WeightOfFrame(weights.size());
  for (const auto& [name, weight] : weights) total += WeightOfName(name) + weight;
  if (total <= kMostBytes) return std::nullopt;
  return std::ranges::max_element(weights, {}, &PropertyWeights::value_type::second)->first;
}

std::optional<std::string> TooHeavyProperty(const Json& member) {
  size_t entries = 0;
  size_t total = 0;
  for (const auto& [name, value] : member.get_ref<const Json::object_t&>()) {
    if (LooksLikeMarker(name)) continue;
    ++entries;
    total += WeightOfName(name) + Weight(value);
  }
  if (total + WeightOfFrame(entries) <= kMostBytes) return std::nullopt;  // as nearly always
  return TooHeavyProperty(WeightsOf(member));
}

}  // namespace event_service
