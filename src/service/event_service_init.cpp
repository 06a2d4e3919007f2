#include "service/event_service_init.h"

#include <algorithm>
#include <filesystem>
#include <limits>
#include <optional>
#include <span>
#include <system_error>
#include <utility>

#include "foundation/durable_file.h"
#include "foundation/logging.h"
#include "foundation/redis_pipeline.h"
#include "foundation/text_numbers.h"
#include "platform/conf_parser/conf_parser.h"
#include "service/discovery.h"
#include "service/member_reconciliation.h"
#include "service/members_count.h"
#include "service/redis_keys.h"

namespace event_service {
namespace {

constexpr std::string_view kDestinationQueues[] = {
    "&&/redfish/v1/EventService/Subscriptions/POSTCREATEQ", "&&/redfish/v1/EventDestination/DELETEQ",
    "&&/redfish/v1/EventDestination/GETQ", "&&/redfish/v1/EventDestination/PATCHQ",
    "&&/redfish/v1/EventDestination/POSTACTIONQ"};

constexpr int32_t kDefaultLimit = 100;
constexpr int32_t kLargestLimit = 200;

std::string Property(const FilePaths& paths, const char* key) {
  char value[64];
  const bool found = getPropertyValue(paths.configuration.c_str(), "=", key, value, sizeof value) == 0;
  return found ? value : std::string();
}

/// Both come in single quotes, ready for a command line. An option that is not set is left out; a program that is not
/// set is an empty word.
void ReadTlsSettings(ServiceSettings& settings) {
  const std::string& file = settings.paths.configuration;
  settings.sslSoftwareArg = "'" + getConfigValue(file, "SSLSoftware", 128) + "'";
  const std::string option = getConfigValue(file, "SSLOption", 128);
  settings.sslOptionArg = option.empty() ? "" : "'" + option + "'";
}

/// The length of the Members list, then those of the queues.
std::vector<RedisReply> ReadLengths(redisContext* redis) {
  RedisPipeline pipeline(redis);
  AppendMembersLength(pipeline);
  for (const std::string_view queue : kDestinationQueues) pipeline.Append({"LLEN", queue});
  return pipeline.Execute();
}

bool PublishMembersCount(redisContext* redis, SubscriptionsState& state, const redisReply* length) {
  RedisPipeline pipeline(redis);
  if (!AppendMembersCount(pipeline, length)) return false;
  const std::vector<RedisReply> published = pipeline.Execute();
  return SettleMembersCount(state, length, published.front().get(), 0);
}

/// Allowed values and filter bits from the lists as Redis holds them.
void LoadDiscoveredLists(const redisReply* types, const redisReply* prefixes, ServiceSettings& settings,
                         SubscriptionsState& state) {
  const std::vector<std::string_view> prefixesInOrder = TextsOf(prefixes);
  state.registryPrefixBits = MakeRegistryPrefixBits(prefixesInOrder);
  settings.allowedValues["ResourceTypes"] = SortedOnce(TextsOf(types));
  settings.allowedValues["RegistryPrefixes"] = SortedOnce(prefixesInOrder);
}

/// Registers the channel once at the tail of each queue before one of unknown length. The map script and what the
/// settings are made of travel along.
bool RegisterAndDiscover(RedisPipeline& pipeline, std::span<const RedisReply> queueLengths, ServiceSettings& settings,
                         SubscriptionsState& state) {
  const size_t scripts = pipeline.Size();
  size_t known = 0;
  for (; known < queueLengths.size() && IsInteger(queueLengths[known]); ++known) {
    pipeline.Append({"LREM", kDestinationQueues[known], "0", kSubscriptionsChannel});
  }
  const std::vector<RedisReply> removals = pipeline.Execute();
  // Whatever became of the others: a queue that has lost the channel gets it back.
  for (size_t i = 0; i < known; ++i) {
    if (IsInteger(removals[scripts + i])) pipeline.Append({"RPUSH", kDestinationQueues[i], kSubscriptionsChannel});
  }
  const size_t writes = pipeline.Size();
  const size_t messages = pipeline.Append({"KEYS", kMessageKeys});
  const size_t types = pipeline.Append({"LRANGE", kResourceTypesKey, "0", "-1"});
  const size_t prefixes = pipeline.Append({"LRANGE", kRegistryPrefixesKey, "0", "-1"});
  const size_t subordinates = pipeline.Append({"HGET", kEventServiceUri, "SubordinateResourcesSupported"});
  const size_t conditions = pipeline.Append({"HGET", kEventServiceUri, "IncludeOriginOfConditionSupported"});
  const std::vector<RedisReply> replies = pipeline.Execute();

  if (writes < known || !AllIntegers(std::span(replies).first(writes))) {
    LogError("Failed to add channel of event destination to CRUD queue.");
    return false;
  }
  if (known < queueLengths.size()) {
    LogError("Failed to get %s queue length.", kDestinationQueues[known].data());
    return false;
  }
  InitMessageIds(replies[messages].get(), settings.allowedValues);
  LoadDiscoveredLists(replies[types].get(), replies[prefixes].get(), settings, state);
  settings.defaultRetryPolicy = RetryPolicyFrom(Property(settings.paths, "DefaultRetryPolicy"), settings.allowedValues);
  settings.maxSubscriptionCount = SubscriptionLimitFrom(Property(settings.paths, "MaxCountOfEventSubscriptions"));
  settings.subordinateResourcesSupported = TextOf(replies[subordinates]) == "true";
  settings.includeOriginOfConditionSupported = TextOf(replies[conditions]) == "true";
  settings.syslogCertificateNames = FindSyslogCertificates(settings.paths);
  return true;
}

/// From the database file to the settings, in its order.
bool LoadAndDiscover(redisContext* redis, ServiceSettings& settings, SubscriptionsState& state) {
  const bool restored = state.db.Start().InitSubscriptionDb() && ReconcileMembers(redis, settings, state);
  const std::vector<RedisReply> lengths = restored ? ReadLengths(redis) : std::vector<RedisReply>();
  RedisPipeline pipeline(redis);
  if (!restored || !PublishMembersCount(redis, state, lengths.front().get()) ||
      !AppendUriSubscriptionMapScript(pipeline, settings.paths.startUpMapScript)) {
    LogError("Failed to load subscription db file.");
    return false;
  }
  return RegisterAndDiscover(pipeline, std::span(lengths).subspan(1), settings, state);
}

}  // namespace

bool EventServiceInit(redisContext* redis, ServiceSettings& settings, SubscriptionsState& state) {
  ReadTlsSettings(settings);
  if (LoadAndDiscover(redis, settings, state) && state.db.Start().SettleStart()) return true;
  // A file may have been passed over only because Redis went away under the loader. What fails here is logged, and the
  // next start begins with it.
  [[maybe_unused]] const bool putBack = state.db.Start().PutBackFiles();
  return false;
}

bool AppendUriSubscriptionMapScript(RedisPipeline& pipeline, const std::string& scriptPath) {
  const std::optional<std::string> script = ReadWholeFile(scriptPath);
  if (!script) {
    LogError("The script that initiates the mapping table of subscribed URI and event type doesn't exist.");
    return false;
  }
  pipeline.Append({"EVAL", *script, "0"});
  return true;
}

RegistryPrefixBits MakeRegistryPrefixBits(const std::vector<std::string_view>& prefixes) {
  RegistryPrefixBits bits;
  for (size_t i = 0; i < prefixes.size(); ++i) {
    const int32_t bit = i < 31 ? int32_t{1} << i : std::numeric_limits<int32_t>::max();
    bits.emplace(WithoutQuotes(prefixes[i]), bit);
  }
  return bits;
}

std::string RetryPolicyFrom(std::string_view configured, const AllowedValuesTable& allowedValues) {
  const std::string policy(WithoutQuotes(configured));
  const auto policies = allowedValues.find("DeliveryRetryPolicy");
  const bool isAllowed = policies != allowedValues.end() &&
                         std::ranges::find(policies->second, '"' + policy + '"') != policies->second.end();
  return isAllowed ? policy : "TerminateAfterRetries";
}

int32_t SubscriptionLimitFrom(std::string_view configured) {
  int32_t limit = kDefaultLimit;
  if (configured.empty() || configured[0] < '1' || configured[0] > '9') return kDefaultLimit;
  if (ParseInteger(configured, limit) != std::errc{} || limit > kLargestLimit) return kDefaultLimit;
  return limit;
}

std::vector<std::string> FindSyslogCertificates(const FilePaths& paths) {
  std::vector<std::string> names;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(paths.syslogCertificates, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename();
    std::error_code ignored;
    if (std::filesystem::exists(paths.systemCertificates + name, ignored)) names.push_back(name);
  }
  return names;
}

}  // namespace event_service
