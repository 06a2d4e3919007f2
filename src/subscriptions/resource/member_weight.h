/// What a member weighs: the bytes of its visible properties together as one compact JSON text. A member that weighs
/// too much is refused, because every change of any member reads and writes all of them with the database file.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/redis_pipeline.h"
#include "resource_store/store_encoding.h"

namespace event_service {

/// Name of a visible property -> the bytes of its value. Control fields have no weight.
using PropertyWeights = std::map<std::string, size_t, std::less<>>;

/// The weights of a member's properties, or of some of them, as they are to be stored.
PropertyWeights WeightsOf(const Json& properties);

/// Asks for the weights of the member stored at `uri`, with all that is nested in it: it is weighed inside Redis, since
/// what a PATCH leaves alone need not be read for that. Nothing when Redis does not tell.
void AskWeights(RedisPipeline& pipeline, std::string_view uri, std::optional<PropertyWeights>& weights);

/// The heaviest property of a member that weighs more than 64 KiB; nothing for one that does not.
std::optional<std::string> TooHeavyProperty(const PropertyWeights& weights);
std::optional<std::string> TooHeavyProperty(const Json& member);

}  // namespace event_service
