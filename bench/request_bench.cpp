/// What a request takes from its announcement to the notification on its return channel, beside its replay: the very
/// commands that the daemon sent for it, recorded, sent as they stand in the same batches by a thread that only counts
/// replies. Daemon, replay, front end and Redis share one CPU; both run in turns from the same content of Redis. The
/// file has a benchmark of its own: the database file is away, and what the step costs that looks for it is measured
/// beside and taken off. The echo, an announcement that a subscriber answers at once, stands beside as information.
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bench/bench_support.h"
#include "bench/in_process_daemon.h"
#include "service/redis_keys.h"
#include "service/settings.h"
#include "subscriptions/resource/event_destination.h"

namespace event_service {
namespace {

/// What a listener has sent, batch by batch. Written by its thread while the request of a recording runs.
struct Recorder {
  std::atomic<bool> isOn = false;
  std::vector<std::string> batches;
};
Recorder recorder;
const pid_t kMainThread = gettid();

/// The number of commands in a text of the wire format.
size_t CommandsIn(std::string_view text) {
  size_t commands = 0;
  const auto takeNumber = [&text] {
    size_t number = 0;
    for (text.remove_prefix(1); text.front() != '\r'; text.remove_prefix(1)) {
      number = 10 * number + static_cast<size_t>(text.front() - '0');
    }
    text.remove_prefix(2);
    return number;
  };
  for (; !text.empty(); ++commands) {
    for (size_t words = takeNumber(); words > 0; --words) {
      const size_t length = takeNumber();
      text.remove_prefix(length + 2);
    }
  }
  return commands;
}

struct Batch {
  std::string commands;
  size_t count;
};
const std::vector<Batch>* replayed = nullptr;  // set by main before it announces

constexpr const char* kReplayChannel = "replay";
constexpr const char* kEchoChannel = "echo";

/// Reads replies as the library gives them to any program, not to ours.
void CountReplies(redisContext* redis, size_t count) {
  for (; count > 0; --count) {
    void* reply = nullptr;
    Check(redisGetReply(redis, &reply) == REDIS_OK, "no reply");
    freeReplyObject(reply);
  }
}

/// Answers each announcement with the batches of the recording; the last of them holds the notification.
void* Replay(void*) {
  const RedisContext subscriber = ListenTo(kReplayChannel);
  const RedisContext redis(redisConnectContext());
  while (const RedisReply message = ReadReply(subscriber.get())) {
    if (replayed == nullptr) continue;
    for (const Batch& batch : *replayed) {
      SendText(redis.get(), batch.commands);
      CountReplies(redis.get(), batch.count);
    }
  }
  return nullptr;
}

void* Echo(void*) {
  const RedisContext subscriber = ListenTo(kEchoChannel);
  const RedisContext redis(redisConnectContext());
  while (const RedisReply message = ReadReply(subscriber.get())) {
    SendArguments(redis.get(), {"PUBLISH", "echoed", TextOf(message->element[2])});
  }
  return nullptr;
}

double SecondsUntilAnswer(redisContext* subscriber, std::string_view channel, const std::string& announcement) {
  return SecondsOf([&] {
    SendArguments(theDaemon->Redis(), {"PUBLISH", channel, announcement});
    Receive(subscriber);
  });
}

/// A request that is made again and again: by the listener, and by the replay of what the listener did.
class RepeatedRequest {
 public:
  RepeatedRequest(const FrontEndRequest& request, std::string_view status)
      : channel_(ChannelOf(request.targetUri)),
        stored_(StoreRequest(theDaemon->Redis(), request).value()),
        subscriber_(ListenTo(stored_.returnChannel)),
        before_(theDaemon->Redis()),
        count_(ProcessSubscriptions().subscriptionCount) {
    recorder.batches.clear();
    recorder.isOn = true;
    ByListener();
    recorder.isOn = false;
    Check(ReadAnswer(theDaemon->Redis(), stored_).status == status, "another status than expected");
    for (std::string& batch : recorder.batches) {
      const size_t count = CommandsIn(batch);
      batches_.push_back({std::move(batch), count});
    }
  }
  ~RepeatedRequest() { before_.Restore(theDaemon->Redis()); }
  RepeatedRequest(const RepeatedRequest&) = delete;
  RepeatedRequest& operator=(const RepeatedRequest&) = delete;

  double ByListener() {
    before_.Restore(theDaemon->Redis());
    ProcessSubscriptions().subscriptionCount = count_;
    return SecondsUntilAnswer(subscriber_.get(), channel_, stored_.requestKey + " " + stored_.responseKey);
  }
  double ByReplay() {
    before_.Restore(theDaemon->Redis());
    replayed = &batches_;
    return SecondsUntilAnswer(subscriber_.get(), kReplayChannel, stored_.requestKey + " " + stored_.responseKey);
  }

  size_t Trips() const { return batches_.size(); }
  size_t Commands() const {
    size_t commands = 0;
    for (const Batch& batch : batches_) commands += batch.count;
    return commands;
  }

 private:
  std::string channel_;
  StoredRequest stored_;
  RedisContext subscriber_;
  Snapshot before_;
  uint32_t count_;
  std::vector<Batch> batches_;
};

double EchoSeconds() {
  static const RedisContext subscriber = ListenTo("echoed");
  return SecondsUntilAnswer(subscriber.get(), kEchoChannel, "request echoed");
}

/// Runs the listener, the replay, the echo and, where there is one, the request's file step in turns.
void Compare(benchmark::State& state, const FrontEndRequest& request, std::string_view status,
             const std::function<void(SubscriptionDb&)>& fileStep = {}) {
  static SubscriptionDb db;  // the listener's belongs to its thread
  RepeatedRequest repeated(request, status);
  Times replay, ours, echo, file;
  for (auto _ : state) {
    echo.Add(EchoSeconds());
    replay.Add(repeated.ByReplay());
    const double seconds = repeated.ByListener();
    ours.Add(seconds);
    file.Add(SecondsOf([&] {
      if (fileStep) fileStep(db);
    }));
    state.SetIterationTime(seconds);
  }
  const double fileSeconds = fileStep ? file.Least() : 0;
  ReportRatio(state, replay.Least(), ours.Least() - fileSeconds);
  state.counters["echo_us"] = echo.Least() * 1e6;
  state.counters["file_us"] = fileSeconds * 1e6;
  state.counters["trips"] = static_cast<double>(repeated.Trips());
  state.counters["commands"] = static_cast<double>(repeated.Commands());
}

std::string CreateTypical() {
  const auto answer = SendRequest(
      theDaemon->Redis(), {.method = "POSTCREATE", .targetUri = std::string(kSubscriptionsUri), .body = TypicalBody()});
  Check(answer && answer->status == "OK_RES" && !answer->location.empty(), "not created");
  return answer->location;
}

void RefusedMethod(benchmark::State& state) {
  Compare(state, {.method = "GET", .targetUri = std::string(kEventServiceUri), .body = {}}, "NOT_ALLOWED");
}

void RefusedByTheLimit(benchmark::State& state) {
  uint32_t& count = ProcessSubscriptions().subscriptionCount;
  const uint32_t former = std::exchange(count, static_cast<uint32_t>(ProcessSettings().maxSubscriptionCount));
  Compare(state, {.method = "POSTCREATE", .targetUri = std::string(kSubscriptionsUri), .body = Json{{"Id", "x"}}},
          "UNAVAILABLE");
  count = former;
}

void Creation(benchmark::State& state) {
  static const Json kDestination = *BuildEventDestination(TypicalBody(), {.id = "0123ABCD"}, ProcessSettings());
  Compare(state, {.method = "POSTCREATE", .targetUri = std::string(kSubscriptionsUri), .body = TypicalBody()}, "OK_RES",
          [](SubscriptionDb& db) {
            static_cast<void>(db.InsertDbSubscription("0123ABCD", FileText(kDestination), "Login", "\"\""));
          });
}

void Deletion(benchmark::State& state) {
  // The file is away, which a deletion answers so.
  Compare(state, {.method = "DELETE", .targetUri = CreateTypical(), .body = {}}, "EXCEPTION",
          [](SubscriptionDb& db) { static_cast<void>(db.DeleteDbSubscription("/redfish/v1/x/0123ABCD", "\"\"")); });
}

void PatchOfOneProperty(benchmark::State& state) {
  Compare(state, {.method = "PATCH", .targetUri = CreateTypical(), .body = Json{{"Context", "rack 8"}}}, "OK_RES",
          [](SubscriptionDb& db) {
            static_cast<void>(db.UpdateDbSubscription("/redfish/v1/x/0123ABCD", {{"Context", "1"}}, {}, "\"\""));
          });
}

BENCHMARK(RefusedMethod)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(RefusedByTheLimit)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(Creation)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(Deletion)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(PatchOfOneProperty)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace event_service

/// Takes the place of the C library's function for what is linked into this program: what a listener sends is seen here
/// as it goes out, batch by batch, without a hook in the daemon.
extern "C" ssize_t send(int socket, const void* data, size_t size, int flags) {
  using event_service::recorder;
  if (recorder.isOn && gettid() != event_service::kMainThread) {
    recorder.batches.emplace_back(static_cast<const char*>(data), size);
  }
  return syscall(SYS_sendto, socket, data, size, flags, nullptr, 0);
}

int main(int argc, char** argv) {
  using namespace event_service;
  return RunBesideDaemon(argc, argv, [] {
    InProcessDaemon::StartThread(Replay);
    InProcessDaemon::StartThread(Echo);
    theDaemon->AwaitListener(kReplayChannel);
    theDaemon->AwaitListener(kEchoChannel);
  });
}
