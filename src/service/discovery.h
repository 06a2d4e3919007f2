/// What the service finds in Redis when it starts: the resource types, registry prefixes and message ids that clients
/// may filter by, from the schemas and registries that other services have loaded. Main thread, before the listeners
/// run.
///
/// The lists of types and prefixes are written once and kept for as long as Redis keeps them; the message ids are
/// collected at every start.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/redis_commands.h"
#include "foundation/redis_pipeline.h"
#include "service/settings.h"

namespace event_service {

/// The schema that an element of the schema collection names: its last path segment up to the first dot. Nothing for an
/// element without one. "&&ObjectRef &&/redfish/v1/JsonSchemas/Event.v1_7_0" gives "Event".
/// The pattern is "^.*/([^/\.]+)(\..*)?".
std::optional<std::string_view> SchemaNameOf(std::string_view element);

/// The message id, in quotes, that the key of a registry's message stands for; nothing for any other key. The third
/// part of the version is dropped: "&&/redfish/v1/schemas/registries/Base.1.12.1.json/Messages/Success" gives
/// "\"Base.1.12.Success\"".
/// The pattern is "^&&/redfish/v1/schemas/registries/(\w+)\.(\d+\.\d+).*/Messages/(\w+)".
std::optional<std::string> MessageIdOf(std::string_view key);

/// What a list is made from: its length as it stands, and where its elements come from.
struct ListReads {
  RedisReply length;
  RedisReply source;
  std::vector<RedisReply> prefixes{};  // of the registries that `source` names
};

/// The reads for both lists, appended to a pipeline and taken out of its replies again: they travel together, and with
/// what else the pipeline holds.
class DiscoveryReads {
 public:
  explicit DiscoveryReads(RedisPipeline& pipeline);
  void Take(std::span<RedisReply> replies);

  /// In a second batch: the prefixes of all registries, unless the list is there already.
  void AppendPrefixes(RedisPipeline& pipeline);
  void TakePrefixes(std::span<RedisReply> replies);

  ListReads resourceTypes;
  ListReads registryPrefixes;

 private:
  size_t first_;  // of what was appended last
};

/// Fills the list "ResourceTypes" of the EventService unless it has elements. False, after a logged line, when the
/// schemas could not be read, none is left, or the connection breaks.
bool InitResourceTypes(redisContext* redis, const ListReads& reads);

/// Fills the list "RegistryPrefixes" of the EventService unless it has elements; removes it when the configuration says
/// "EnableFilterRegistryPrefixes=false". False, after a logged line, when there is none or the connection breaks.
bool InitRegistryPrefixes(redisContext* redis, const FilePaths& paths, const ListReads& reads);

/// The pattern of the keys that InitMessageIds takes.
inline constexpr std::string_view kMessageKeys = "&&/redfish/v1/schemas/registries/*.*/Messages/*";

/// Sets the allowed "MessageIds" to the ids that the keys stand for; logged, and nothing set, when there is none.
void InitMessageIds(const redisReply* messageKeys, AllowedValuesTable& allowedValues);

/// The texts in ascending order, each once.
std::vector<std::string> SortedOnce(std::span<const std::string_view> texts);

}  // namespace event_service
