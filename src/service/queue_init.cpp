#include "service/queue_init.h"

#include <vector>

#include "foundation/logging.h"
#include "foundation/redis_pipeline.h"
#include "service/discovery.h"
#include "service/redis_keys.h"

namespace event_service {
namespace {

constexpr const char* kRequestQueues[] = {"&&/redfish/v1/EventService/PATCHQ",
                                          "&&/redfish/v1/EventService/POSTACTIONQ"};

/// Each queue holds the channel's name at least; a queue that holds something already is left as it is.
bool FillRequestQueues(redisContext* redis) {
  const char* unknown = nullptr;  // the first of unknown length: it ends the matter
  std::vector<const char*> empty;
  RedisPipeline pipeline(redis);
  for (const char* const queue : kRequestQueues) {
    pipeline.Ask({"LLEN", queue}, [&, queue](const RedisReply& length) {
      if (unknown != nullptr) return;
      if (!IsInteger(length)) unknown = queue;
      if (IsInteger(length) && length->integer == 0) empty.push_back(queue);
    });
  }
  pipeline.Execute();
  // One after the other: a queue whose push fails ends the matter as well.
  for (const char* const queue : empty) {
    if (ListAppend(redis, queue, kEventServiceChannel)) continue;
    LogError("Failed to push queue.");
    return false;
  }
  if (unknown == nullptr) return true;
  LogError("Failed to get %s queue length.", unknown);
  return false;
}

}  // namespace

bool InitQueues(redisContext* redis, const ServiceSettings& settings) {
  if (!FillRequestQueues(redis)) return false;

  // What the lists are made from travels with the two writes for SMTP, each of which waits for the one before.
  RedisPipeline pipeline(redis);
  FilterLists lists;
  bool isSmtpSet = true;
  const auto setForSmtp = [&](std::string_view key, std::string_view field, std::string_view value) {
    if (settings.protocolOnly) return;
    pipeline.Ask({"HSET", key, field, value}, [&](const RedisReply& reply) { isSmtpSet = IsInteger(reply); });
  };
  setForSmtp(kSmtpKey, kSmtpPasswordField, "null");
  lists.Ask(pipeline);
  pipeline.Execute();
  if (isSmtpSet) {
    setForSmtp(kEventServiceUri, kSensitiveDataField, kSmtpPassword);
    lists.AskPrefixes(pipeline);
    pipeline.Execute();
  }
  if (!isSmtpSet) {
    LogError("Failed to set SMTP/Password default setting.");
    return false;
  }
  if (lists.Fill(redis, settings)) return true;
  LogError("Failed to init ResourceTypes and RegistryPrefixes.");
  return false;
}

}  // namespace event_service
