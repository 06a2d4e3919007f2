#include "service/discovery.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <utility>

#include "foundation/characters.h"
#include "foundation/logging.h"
#include "service/redis_keys.h"

namespace event_service {
namespace {

constexpr std::string_view kRegistryKeys = "/redfish/v1/schemas/registries/*.[Jj][Ss][Oo][Nn]";

/// Schemas that describe the protocol itself: no resource has these types.
constexpr std::string_view kNoResourceTypes[] = {
    "odata", "odata-v4", "redfish-schema", "redfish-payload-annotations", "redfish-schema-v1", "redfish-error"};

// The classes of the patterns. "." matches no line end.
bool IsWord(char c) { return IsAlphanumeric(c) || c == '_'; }
constexpr std::string_view kLineEnds = "\r\n";

/// Takes the longest run of such characters off the front of `text`; false when there is none.
template <bool (*belongs)(char)>
bool TakeSome(std::string_view& text) {
  size_t length = 0;
  while (length < text.size() && belongs(text[length])) ++length;
  text.remove_prefix(length);
  return length > 0;
}

bool TakeDot(std::string_view& text) {
  if (!text.starts_with('.')) return false;
  text.remove_prefix(1);
  return true;
}

void SortAndRemoveRepeats(std::vector<std::string>& texts) {
  std::ranges::sort(texts);
  texts.erase(std::unique(texts.begin(), texts.end()), texts.end());
}

/// Only a length above 0 says that the list is there; a failed one does not.
bool HasElements(const RedisReply& length) { return IsInteger(length) && length->integer > 0; }

/// The bits of the prefixes in this order, which may stand in quotes: 1, 2, 4, ... up to the largest 32-bit value,
/// which the 32nd and all later ones get. A prefix that comes again keeps its first bit.
RegistryPrefixBits MakeRegistryPrefixBits(const std::vector<std::string_view>& prefixes) {
  RegistryPrefixBits bits;
  for (size_t i = 0; i < prefixes.size(); ++i) {
    const int32_t bit = i < 31 ? int32_t{1} << i : std::numeric_limits<int32_t>::max();
    bits.emplace(WithoutQuotes(prefixes[i]), bit);
  }
  return bits;
}

}  // namespace

std::optional<std::string_view> SchemaNameOf(std::string_view element) {
  const size_t firstLineEnd = element.find_first_of(kLineEnds);
  const size_t lastLineEnd = element.find_last_of(kLineEnds);
  // From the last "/" backwards: what follows the dot may hold further ones.
  size_t slash = element.rfind('/');
  for (; slash != std::string_view::npos; slash = slash == 0 ? std::string_view::npos : element.rfind('/', slash - 1)) {
    const size_t end = std::min(element.find_first_of("/.", slash + 1), element.size());
    const bool isWholeSegment = end == element.size() || element[end] == '.';
    const bool dotsMatch =
        firstLineEnd >= slash && (lastLineEnd == std::string_view::npos || lastLineEnd < end);  // no line end in them
    if (end > slash + 1 && isWholeSegment && dotsMatch) return element.substr(slash + 1, end - slash - 1);
  }
  return std::nullopt;
}

std::optional<std::string> MessageIdOf(std::string_view key) {
  constexpr std::string_view kFolder = "&&/redfish/v1/schemas/registries/";
  constexpr std::string_view kMessages = "/Messages";  // with the "/" behind it
  if (!key.starts_with(kFolder)) return std::nullopt;

  std::string_view rest = key.substr(kFolder.size());
  if (!TakeSome<IsWord>(rest) || !TakeDot(rest)) return std::nullopt;
  if (!TakeSome<IsDigit>(rest) || !TakeDot(rest) || !TakeSome<IsDigit>(rest)) return std::nullopt;
  const std::string_view registryAndVersion(key.begin() + kFolder.size(), rest.begin());

  const size_t slash = rest.rfind('/');
  if (slash == std::string_view::npos) return std::nullopt;
  const std::string_view name = rest.substr(slash + 1);
  std::string_view between = rest.substr(0, slash);
  if (!between.ends_with(kMessages)) return std::nullopt;
  between.remove_suffix(kMessages.size());
  if (between.find('\n') != std::string_view::npos || between.find('\r') != std::string_view::npos) return std::nullopt;

  std::string_view afterName = name;
  if (!TakeSome<IsWord>(afterName) || !afterName.empty()) return std::nullopt;

  std::string id;
  id.reserve(registryAndVersion.size() + name.size() + 3);
  id.append("\"").append(registryAndVersion).append(".").append(name).append("\"");
  return id;
}

void FilterLists::Ask(RedisPipeline& pipeline) {
  pipeline.Ask({"LLEN", kResourceTypesKey},
               [this](const RedisReply& reply) { hasResourceTypes_ = HasElements(reply); });
  pipeline.Ask({"LRANGE", "&&/redfish/v1/JsonSchemas/Members", "0", "-1"},
               [this](RedisReply& reply) { schemas_ = std::move(reply); });
  pipeline.Ask({"LLEN", kRegistryPrefixesKey},
               [this](const RedisReply& reply) { hasRegistryPrefixes_ = HasElements(reply); });
  pipeline.Ask({"KEYS", kRegistryKeys}, [this](RedisReply& reply) { registryKeys_ = std::move(reply); });
}

void FilterLists::AskPrefixes(RedisPipeline& pipeline) {
  if (hasRegistryPrefixes_) return;
  for (const std::string_view key : TextsOf(registryKeys_)) {
    pipeline.Ask({"HGET", key, "RegistryPrefix"}, [this](const RedisReply& prefix) {
      if (IsString(prefix) && prefix->len > 0) prefixes_.emplace_back(TextOf(prefix));
    });
  }
}

bool FilterLists::Fill(redisContext* redis, const ServiceSettings& settings) const {
  return FillResourceTypes(redis) && FillRegistryPrefixes(redis, settings);
}

bool FilterLists::FillResourceTypes(redisContext* redis) const {
  if (hasResourceTypes_) return true;
  if (!IsArray(schemas_)) {
    LogError("Cannot get the list of schema.");
    return false;
  }
  std::vector<std::string> types;
  for (const std::string_view element : TextsOf(schemas_)) {
    const std::optional<std::string_view> name = SchemaNameOf(element);
    if (!name || std::ranges::find(kNoResourceTypes, *name) != std::end(kNoResourceTypes)) continue;
    types.push_back('"' + std::string(*name) + '"');
  }
  SortAndRemoveRepeats(types);
  if (types.empty()) {
    LogError("Cannot find any defined ResourceTypes.");
    return false;
  }
  return ListBatchAppend(redis, kResourceTypesKey, types);
}

bool FilterLists::FillRegistryPrefixes(redisContext* redis, const ServiceSettings& settings) const {
  if (!settings.offersRegistryPrefixes) {
    KeyDelete(redis, kRegistryPrefixesKey);
    return true;
  }
  if (hasRegistryPrefixes_) return true;
  std::vector<std::string> prefixes = prefixes_;
  SortAndRemoveRepeats(prefixes);
  if (prefixes.empty()) {
    LogError("Cannot find any defined RegistryPrefix.");
    return false;
  }
  return ListBatchAppend(redis, kRegistryPrefixesKey, prefixes);
}

void InitMessageIds(const redisReply* messageKeys, AllowedValuesTable& allowedValues) {
  const std::vector<std::string_view> keys = TextsOf(messageKeys);
  std::vector<std::string> ids;
  ids.reserve(keys.size());
  for (const std::string_view key : keys) {
    if (std::optional<std::string> id = MessageIdOf(key)) ids.push_back(*std::move(id));
  }
  SortAndRemoveRepeats(ids);
  if (ids.empty()) {
    LogError("Cannot find any defined MessageId.");
    return;
  }
  allowedValues["MessageIds"] = std::move(ids);
}

void AskDiscovered(RedisPipeline& pipeline, Discovered& discovered) {
  const auto into = [](RedisReply& found) { return [&found](RedisReply& reply) { found = std::move(reply); }; };
  pipeline.Ask({"KEYS", kMessageKeys}, into(discovered.messageKeys));
  pipeline.Ask({"LRANGE", kResourceTypesKey, "0", "-1"}, into(discovered.resourceTypes));
  pipeline.Ask({"LRANGE", kRegistryPrefixesKey, "0", "-1"}, into(discovered.registryPrefixes));
  pipeline.Ask({"HGET", kEventServiceUri, "SubordinateResourcesSupported"}, into(discovered.subordinateResources));
  pipeline.Ask({"HGET", kEventServiceUri, "IncludeOriginOfConditionSupported"}, into(discovered.originOfCondition));
}

void TakeDiscovered(const Discovered& discovered, ServiceSettings& settings, SubscriptionsState& state) {
  InitMessageIds(discovered.messageKeys.get(), settings.allowedValues);
  const std::vector<std::string_view> prefixesInOrder = TextsOf(discovered.registryPrefixes);
  state.registryPrefixBits = MakeRegistryPrefixBits(prefixesInOrder);
  settings.allowedValues["ResourceTypes"] = SortedOnce(TextsOf(discovered.resourceTypes));
  settings.allowedValues["RegistryPrefixes"] = SortedOnce(prefixesInOrder);
  settings.subordinateResourcesSupported = TextOf(discovered.subordinateResources) == "true";
  settings.includeOriginOfConditionSupported = TextOf(discovered.originOfCondition) == "true";
}

std::vector<std::string> SortedOnce(std::span<const std::string_view> texts) {
  std::vector<std::string> sorted(texts.begin(), texts.end());
  SortAndRemoveRepeats(sorted);
  return sorted;
}

}  // namespace event_service
