#include "service/life_cycle_event.h"

#include <atomic>

#include "foundation/configuration.h"
#include "foundation/logging.h"
#include "service/redis_keys.h"

namespace event_service {
namespace {

enum class Wanted { kNotRead, kOff, kOn };

// Either listener may fill it in: both read the same file.
std::atomic<Wanted> wanted{Wanted::kNotRead};

/// Read on the first call in the process, with one debug line. Any thread.
bool EventsAreWanted() {
  Wanted known = wanted.load();
  if (known == Wanted::kNotRead) {
    const bool enabled = ReadSetting(ProcessPaths().configuration, SettingNamed("GenerateResourceEvent")) != "false";
    // The thread that is first says so; one that comes second takes the first one's value.
    if (wanted.compare_exchange_strong(known, enabled ? Wanted::kOn : Wanted::kOff)) {
      LogDebug("EventService will %sgenerate events when resource is created/updated/removed.", enabled ? "" : "not ");
      return enabled;
    }
  }
  return known == Wanted::kOn;
}

void CheckReply(const redisReply* reply, const std::string& path) {
  if (IsInteger(reply)) return;
  if (IsArray(reply) && reply->elements == 2) {
    const std::string text(TextOf(reply->element[1]));
    LogError("Failed to generate life cycle event for %s: %s", path.c_str(), text.c_str());
  } else {
    // No such script, or no connection.
    LogError("The life cycle event for %s could not be handed over.", path.c_str());
  }
}

}  // namespace

void ForgetLifeCycleSetting() { wanted.store(Wanted::kNotRead); }

void RaiseLifeCycleEvent(RedisPipeline& pipeline, std::string_view digest, const LifeCycleEvent& event) {
  if (!EventsAreWanted() || event.change.empty() || event.resourcePath.empty()) return;
  const std::string id = std::to_string(event.eventGroupId);
  // All of them are keys of the script, the name of the identifier included.
  if (event.extraText.empty()) {
    pipeline.Append({"EVALSHA", digest, "5", event.change, event.resourcePath, event.resourceType, "EventGroupId", id});
  } else {
    pipeline.Append({"EVALSHA", digest, "6", event.change, event.resourcePath, event.resourceType, event.extraText,
                     "EventGroupId", id});
  }
  pipeline.Then([path = std::string(event.resourcePath)](Replies replies) { CheckReply(replies.back().get(), path); });
}

}  // namespace event_service
