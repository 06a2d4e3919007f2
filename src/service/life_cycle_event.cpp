#include "service/life_cycle_event.h"

#include <atomic>
#include <vector>

#include "foundation/logging.h"
#include "platform/conf_parser/conf_parser.h"
#include "service/redis_keys.h"

namespace event_service {
namespace {

enum class Setting { kNotRead, kOff, kOn };

// Either listener may fill it in: both read the same file.
std::atomic<Setting> setting{Setting::kNotRead};

}  // namespace

bool LifeCycleEventsEnabled() {
  Setting known = setting.load();
  if (known == Setting::kNotRead) {
    const bool enabled = getConfigValue(ProcessPaths().configuration, "GenerateResourceEvent", 128) != "false";
    // The thread that is first says so; one that comes second takes the first one's value.
    if (setting.compare_exchange_strong(known, enabled ? Setting::kOn : Setting::kOff)) {
      LogDebug("EventService will %sgenerate events when resource is created/updated/removed.", enabled ? "" : "not ");
      return enabled;
    }
  }
  return known == Setting::kOn;
}

void ForgetLifeCycleSetting() { setting.store(Setting::kNotRead); }

bool AppendLifeCycleEvent(RedisPipeline& pipeline, std::string_view digest, const LifeCycleEvent& event) {
  if (!LifeCycleEventsEnabled() || event.change.empty() || event.resourcePath.empty()) return false;
  const std::string id = std::to_string(event.eventGroupId);
  // All of them are keys of the script, the name of the identifier included.
  if (event.extraText.empty()) {
    pipeline.Append({"EVALSHA", digest, "5", event.change, event.resourcePath, event.resourceType, "EventGroupId", id});
  } else {
    pipeline.Append({"EVALSHA", digest, "6", event.change, event.resourcePath, event.resourceType, event.extraText,
                     "EventGroupId", id});
  }
  return true;
}

bool CheckLifeCycleReply(const redisReply* reply, std::string_view resourcePath) {
  if (IsInteger(reply)) return true;
  const std::string path(resourcePath);
  if (IsArray(reply) && reply->elements == 2) {
    const std::string text(TextOf(reply->element[1]));
    LogError("Failed to generate life cycle event for %s: %s", path.c_str(), text.c_str());
  } else {
    // No such script, or no connection.
    LogError("The life cycle event for %s could not be handed over.", path.c_str());
  }
  return false;
}

void RaiseLifeCycleEvent(RedisPipeline& pipeline, std::string_view digest, const LifeCycleEvent& event) {
  if (!AppendLifeCycleEvent(pipeline, digest, event)) return;
  pipeline.Then(
      [path = std::string(event.resourcePath)](Replies replies) { CheckLifeCycleReply(replies.back().get(), path); });
}

bool RaiseLifeCycleEvent(redisContext* redis, const LifeCycleEvent& event) {
  if (!LifeCycleEventsEnabled()) return true;
  if (event.change.empty() || event.resourcePath.empty()) return false;
  const std::string digest = HashRead(redis, kScriptDigests, kLifeCycleScript);
  RedisPipeline pipeline(redis);
  AppendLifeCycleEvent(pipeline, digest, event);
  const std::vector<RedisReply> replies = pipeline.Execute();
  return CheckLifeCycleReply(replies.front().get(), event.resourcePath);
}

}  // namespace event_service
