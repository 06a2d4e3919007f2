/// The second half of the EventService's initialisation: the stored subscriptions, the queues of the Subscriptions
/// side, and what clients may filter by and configure. Main thread, before the listeners run.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/redis_commands.h"
#include "foundation/redis_pipeline.h"
#include "service/settings.h"

namespace event_service {

/// Loads the database file, rebuilds from the restored members what exists in memory only, registers the Subscriptions
/// channel in its queues, and fills settings and state. The lists must have been initialised before (InitQueues).
/// False, after a logged line, when the subscriptions cannot be loaded or the channel cannot be registered; what cannot
/// be discovered or is configured badly keeps its default.
[[nodiscard]] bool EventServiceInit(redisContext* redis, ServiceSettings& settings, SubscriptionsState& state);

/// Appends the script that maps URIs and event types to subscriptions inside Redis; what it answers is not looked at.
/// False, after a logged line, when there is no script.
[[nodiscard]] bool AppendUriSubscriptionMapScript(RedisPipeline& pipeline, const std::string& scriptPath);

/// The bits of the prefixes in this order, which may stand in quotes: 1, 2, 4, ... up to the largest 32-bit value,
/// which the 32nd and all later ones get. A prefix that comes again keeps its first bit.
RegistryPrefixBits MakeRegistryPrefixBits(const std::vector<std::string_view>& prefixes);

/// The policy named by `configured`, with or without quotes, when it is one of the allowed ones (JSON texts), otherwise
/// the default.
std::string RetryPolicyFrom(std::string_view configured, const AllowedValuesTable& allowedValues);

/// `configured` when it is a number from 1 to 200 without leading zeros, otherwise 100.
int32_t SubscriptionLimitFrom(std::string_view configured);

/// The names in the syslog certificates' folder that the system's certificate folder has as well, each once; none when
/// the first folder cannot be read.
std::vector<std::string> FindSyslogCertificates(const FilePaths& paths);

}  // namespace event_service
