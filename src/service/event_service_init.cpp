#include "service/event_service_init.h"

#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "foundation/durable_file.h"
#include "foundation/logging.h"
#include "foundation/redis_pipeline.h"
#include "service/discovery.h"
#include "service/member_reconciliation.h"
#include "service/members_count.h"
#include "service/redis_keys.h"

namespace event_service {
namespace {

constexpr const char* kDestinationQueues[] = {
    "&&/redfish/v1/EventService/Subscriptions/POSTCREATEQ", "&&/redfish/v1/EventDestination/DELETEQ",
    "&&/redfish/v1/EventDestination/GETQ", "&&/redfish/v1/EventDestination/PATCHQ",
    "&&/redfish/v1/EventDestination/POSTACTIONQ"};

/// Puts the Subscriptions channel once at the tail of each of its queues, in three batches that carry other commands as
/// well, for which this object stays where it is. Queues from the first of unknown length on are left alone.
class ChannelRegistration {
 public:
  void AskLengths(RedisPipeline& pipeline) {
    for (const char* const queue : kDestinationQueues) {
      pipeline.Ask({"LLEN", queue}, [this, queue](const RedisReply& length) {
        if (unknown_ != nullptr) return;
        if (IsInteger(length)) {
          known_.push_back(queue);
        } else {
          unknown_ = queue;
        }
      });
    }
  }
  void Remove(RedisPipeline& pipeline) {
    for (const char* const queue : known_) {
      pipeline.Ask({"LREM", queue, "0", kSubscriptionsChannel}, [this, queue](const RedisReply& reply) {
        if (IsInteger(reply)) removed_.push_back(queue);
      });
    }
  }
  /// Whatever became of the others: a queue that has lost the channel gets it back.
  void Add(RedisPipeline& pipeline) {
    for (const char* const queue : removed_) {
      pipeline.Ask({"RPUSH", queue, kSubscriptionsChannel},
                   [this](const RedisReply& reply) { added_ += IsInteger(reply) ? 1 : 0; });
    }
  }
  /// False, after a logged line, when a queue is without the channel.
  bool Check() const {
    if (added_ < known_.size()) {
      LogError("Failed to add channel of event destination to CRUD queue.");
      return false;
    }
    if (unknown_ != nullptr) LogError("Failed to get %s queue length.", unknown_);
    return unknown_ == nullptr;
  }

 private:
  std::vector<const char*> known_, removed_;
  const char* unknown_ = nullptr;
  size_t added_ = 0;
};

/// Appends the script that maps URIs and event types to subscriptions inside Redis; what it answers is not looked at.
/// False, after a logged line, when there is no script.
bool AppendUriSubscriptionMapScript(RedisPipeline& pipeline, const std::string& scriptPath) {
  const std::optional<std::string> script = ReadWholeFile(scriptPath);
  if (!script) {
    LogError("The script that initiates the mapping table of subscribed URI and event type doesn't exist.");
    return false;
  }
  pipeline.Ask({"EVAL", *script, "0"}, [](const RedisReply&) {});
  return true;
}

/// Database file, members, count, map script: the first that fails ends the chain. The queues' lengths travel along,
/// and the script with the next batch.
bool LoadSubscriptions(RedisPipeline& pipeline, redisContext* redis, const ServiceSettings& settings,
                       SubscriptionsState& state, ChannelRegistration& channel) {
  state.db.SettleUnwritten();
  if (!state.db.Start().InitSubscriptionDb() || !ReconcileMembers(redis, settings, state)) return false;
  std::optional<int64_t> length;
  AskMembersLength(pipeline, length);
  channel.AskLengths(pipeline);
  pipeline.Execute();
  bool isPublished = false;
  PublishMembersCount(pipeline, state, length, 0, isPublished);
  pipeline.Execute();
  return isPublished && AppendUriSubscriptionMapScript(pipeline, settings.paths.startUpMapScript);
}

/// The names in the syslog certificates' folder that the system's certificate folder has as well, each once; none when
/// the first folder cannot be read.
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

bool LoadAndDiscover(redisContext* redis, ServiceSettings& settings, SubscriptionsState& state) {
  RedisPipeline pipeline(redis);
  ChannelRegistration channel;
  if (!LoadSubscriptions(pipeline, redis, settings, state, channel)) {
    LogError("Failed to load subscription db file.");
    return false;
  }
  channel.Remove(pipeline);
  pipeline.Execute();
  Discovered discovered;
  channel.Add(pipeline);
  AskDiscovered(pipeline, discovered);
  pipeline.Execute();
  if (!channel.Check()) return false;
  TakeDiscovered(discovered, settings, state);
  settings.syslogCertificateNames = FindSyslogCertificates(settings.paths);
  return true;
}

}  // namespace

bool EventServiceInit(redisContext* redis, ServiceSettings& settings, SubscriptionsState& state) {
  if (LoadAndDiscover(redis, settings, state) && state.db.Start().SettleStart()) return true;
  // A file may have been passed over only because Redis went away under the loader. What fails here is logged, and the
  // next startup begins with it.
  [[maybe_unused]] const bool putBack = state.db.Start().PutBackFiles();
  return false;
}

}  // namespace event_service
