#include "service/queue_init.h"

#include <vector>

#include "foundation/logging.h"
#include "foundation/redis_pipeline.h"
#include "service/discovery.h"
#include "service/redis_keys.h"

namespace event_service {
namespace {

constexpr std::string_view kRequestQueues[] = {"&&/redfish/v1/EventService/PATCHQ",
                                               "&&/redfish/v1/EventService/POSTACTIONQ"};

/// Each queue holds the channel's name at least; a queue that holds something already is left as it is.
bool FillRequestQueues(redisContext* redis) {
  RedisPipeline pipeline(redis);
  for (const std::string_view queue : kRequestQueues) pipeline.Append({"LLEN", queue});
  const std::vector<RedisReply> lengths = pipeline.Execute();
  size_t known = 0;
  for (; known < lengths.size() && IsInteger(lengths[known]); ++known) {
    if (lengths[known]->integer == 0) pipeline.Append({"RPUSH", kRequestQueues[known], kEventServiceChannel});
  }
  // The queues before one of unknown length are filled all the same.
  if (!AllIntegers(pipeline.Execute())) {
    LogError("Failed to push queue.");
    return false;
  }
  if (known == lengths.size()) return true;
  LogError("Failed to get %s queue length.", kRequestQueues[known].data());
  return false;
}

}  // namespace

bool InitQueues(redisContext* redis, const ServiceSettings& settings) {
  if (!FillRequestQueues(redis)) return false;

  // What the lists are made of travels with the two writes for SMTP, each of which waits for the one before.
  RedisPipeline pipeline(redis);
  const bool setsSmtp = !settings.protocolOnly;
  if (setsSmtp) pipeline.Append({"HSET", kSmtpKey, "&&Password", "null"});
  DiscoveryReads reads(pipeline);
  std::vector<RedisReply> replies = pipeline.Execute();
  reads.Take(replies);
  bool isSmtpSet = !setsSmtp || IsInteger(replies.front());
  if (isSmtpSet) {
    if (setsSmtp) pipeline.Append({"HSET", kEventServiceUri, "&&SensitiveData", "SMTP/Password"});
    reads.AppendPrefixes(pipeline);
    replies = pipeline.Execute();
    isSmtpSet = !setsSmtp || IsInteger(replies.front());
    reads.TakePrefixes(replies);
  }
  if (!isSmtpSet) {
    LogError("Failed to set SMTP/Password default setting.");
    return false;
  }
  if (!InitResourceTypes(redis, reads.resourceTypes) ||
      !InitRegistryPrefixes(redis, settings.paths, reads.registryPrefixes)) {
    LogError("Failed to init ResourceTypes and RegistryPrefixes.");
    return false;
  }
  return true;
}

}  // namespace event_service
