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

/// The lists "ResourceTypes" and "RegistryPrefixes" of the EventService, in three steps: two ask in a batch of the
/// caller's each, for which this object stays where it is; the third writes.
class FilterLists {
 public:
  /// Asks how long the lists are and what they are made from.
  void Ask(RedisPipeline& pipeline);

  /// Asks, in a later batch, for the prefixes of the registries that have been found, unless the list is there already.
  void AskPrefixes(RedisPipeline& pipeline);

  /// Fills each list unless it has elements; removes that of the prefixes when none are offered. False, after a logged
  /// line, when the schemas could not be read, there is nothing to fill a list with, or the connection breaks.
  [[nodiscard]] bool Fill(redisContext* redis, const ServiceSettings& settings) const;

 private:
  bool FillResourceTypes(redisContext* redis) const;
  bool FillRegistryPrefixes(redisContext* redis, const ServiceSettings& settings) const;

  bool hasResourceTypes_ = false;
  RedisReply schemas_;
  bool hasRegistryPrefixes_ = false;
  RedisReply registryKeys_;
  std::vector<std::string> prefixes_;
};

/// The pattern of the keys that InitMessageIds takes.
inline constexpr std::string_view kMessageKeys = "&&/redfish/v1/schemas/registries/*.*/Messages/*";

/// Sets the allowed "MessageIds" to the ids that the keys stand for; logged, and nothing set, when there is none.
void InitMessageIds(const redisReply* messageKeys, AllowedValuesTable& allowedValues);

/// What clients may filter by and what the service can do, as Redis tells it.
struct Discovered {
  RedisReply messageKeys, resourceTypes, registryPrefixes, subordinateResources, originOfCondition;
};

/// Asks for all of it in a batch; `discovered` stays where it is until then.
void AskDiscovered(RedisPipeline& pipeline, Discovered& discovered);

/// Sets the allowed values, the filter bits and the flags.
void TakeDiscovered(const Discovered& discovered, ServiceSettings& settings, SubscriptionsState& state);

/// The texts in ascending order, each once.
std::vector<std::string> SortedOnce(std::span<const std::string_view> texts);

}  // namespace event_service
