#include "service/discovery.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "foundation/logging.h"
#include "foundation/text_numbers.h"
#include "platform/conf_parser/conf_parser.h"
#include "service/redis_keys.h"

namespace event_service {
namespace {

constexpr std::string_view kRegistryKeys = "/redfish/v1/schemas/registries/*.[Jj][Ss][Oo][Nn]";

/// Schemas that describe the protocol itself: no resource has these types.
constexpr std::string_view kNoResourceTypes[] = {
    "odata", "odata-v4", "redfish-schema", "redfish-payload-annotations", "redfish-schema-v1", "redfish-error"};

// The classes of the patterns. "." matches no line end.
bool IsWord(char c) { return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; }
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
bool HasElements(const redisReply* length) { return IsInteger(length) && length->integer > 0; }

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

DiscoveryReads::DiscoveryReads(RedisPipeline& pipeline) : first_(pipeline.Append({"LLEN", kResourceTypesKey})) {
  pipeline.Append({"LRANGE", "&&/redfish/v1/JsonSchemas/Members", "0", "-1"});
  pipeline.Append({"LLEN", kRegistryPrefixesKey});
  pipeline.Append({"KEYS", kRegistryKeys});
}

void DiscoveryReads::Take(std::span<RedisReply> replies) {
  const std::span<RedisReply> own = replies.subspan(first_);
  resourceTypes = {std::move(own[0]), std::move(own[1])};
  registryPrefixes = {std::move(own[2]), std::move(own[3])};
}

void DiscoveryReads::AppendPrefixes(RedisPipeline& pipeline) {
  first_ = pipeline.Size();
  if (HasElements(registryPrefixes.length.get())) return;
  for (const std::string_view key : TextsOf(registryPrefixes.source)) {
    pipeline.Append({"HGET", key, "RegistryPrefix"});
  }
}

void DiscoveryReads::TakePrefixes(std::span<RedisReply> replies) {
  std::ranges::move(replies.subspan(first_), std::back_inserter(registryPrefixes.prefixes));
}

bool InitResourceTypes(redisContext* redis, const ListReads& reads) {
  if (HasElements(reads.length.get())) return true;
  if (!IsArray(reads.source)) {
    LogError("Cannot get the list of schema.");
    return false;
  }
  std::vector<std::string> types;
  for (const std::string_view element : TextsOf(reads.source)) {
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

bool InitRegistryPrefixes(redisContext* redis, const FilePaths& paths, const ListReads& reads) {
  if (getConfigValue(paths.configuration, "EnableFilterRegistryPrefixes", 128) == "false") {
    KeyDelete(redis, kRegistryPrefixesKey);
    return true;
  }
  if (HasElements(reads.length.get())) return true;

  std::vector<std::string> prefixes;
  for (const RedisReply& prefix : reads.prefixes) {
    if (IsString(prefix) && prefix->len > 0) prefixes.emplace_back(TextOf(prefix));
  }
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

std::vector<std::string> SortedOnce(std::span<const std::string_view> texts) {
  std::vector<std::string> sorted(texts.begin(), texts.end());
  SortAndRemoveRepeats(sorted);
  return sorted;
}

}  // namespace event_service
