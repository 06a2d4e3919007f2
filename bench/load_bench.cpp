/// The daemon under load: 1, 8 and 64 front ends, each of which makes its next request as soon as the last one is
/// answered. Requests per second and how long an answer takes, beside an echo under the same load: an announcement that
/// a subscriber answers at once. Daemon, front ends and Redis share one CPU.
#include <chrono>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "bench/bench_support.h"
#include "bench/in_process_daemon.h"
#include "foundation/redis_pipeline.h"
#include "service/redis_keys.h"

namespace event_service {
namespace {

constexpr const char* kEchoChannel = "echo";

using Clock = std::chrono::steady_clock;

void* Echo(void*) {
  const RedisContext subscriber = ListenTo(kEchoChannel);
  const RedisContext redis(redisConnectContext());
  while (const RedisReply message = ReadReply(subscriber.get())) {
    const std::string_view text = TextOf(message->element[2]);
    SendArguments(redis.get(), {"PUBLISH", text.substr(text.find(' ') + 1), text});
  }
  return nullptr;
}

/// One front end, which makes the same request again and again.
struct FrontEnd {
  std::string announcement;
  std::string returnChannel;
  std::vector<std::string> answerKeys;  // removed with the next announcement
  Clock::time_point announced;
};

FrontEnd MakeFrontEnd(const FrontEndRequest& request) {
  const StoredRequest stored = StoreRequest(theDaemon->Redis(), request).value();
  return {.announcement = stored.requestKey + " " + stored.responseKey,
          .returnChannel = stored.returnChannel,
          .answerKeys = {"UNLINK", stored.responseKey, stored.responseKey + "/ExtendedInfo",
                         stored.responseKey + "/ExtendedInfo/1", stored.responseKey + "/ExtendedInfo/1/MessageArgs"},
          .announced = {}};
}

FrontEnd MakeEcho(int number) {
  const std::string channel = "echoed" + std::to_string(number);
  return {.announcement = "request " + channel, .returnChannel = channel, .answerKeys = {}, .announced = {}};
}

/// All front ends of one run, on one connection that announces and one that hears.
class Load {
 public:
  Load(std::string channel, std::vector<FrontEnd> frontEnds)
      : channel_(std::move(channel)), frontEnds_(std::move(frontEnds)), subscriber_(redisConnectContext()) {
    for (size_t i = 0; i < frontEnds_.size(); ++i) {
      byChannel_[frontEnds_[i].returnChannel] = i;
      SendArguments(subscriber_.get(), {"SUBSCRIBE", frontEnds_[i].returnChannel});
    }
  }

  /// Has so many requests answered. Their latencies in seconds, in the order of the answers.
  std::vector<double> Run(size_t requests) {
    std::vector<double> latencies;
    latencies.reserve(requests);
    for (FrontEnd& frontEnd : frontEnds_) Announce(frontEnd);
    for (size_t announced = frontEnds_.size(); latencies.size() < requests;) {
      const RedisReply message = Receive(subscriber_.get());
      FrontEnd& frontEnd = frontEnds_[byChannel_.at(std::string(TextOf(message->element[1])))];
      latencies.push_back(std::chrono::duration<double>(Clock::now() - frontEnd.announced).count());
      if (announced < requests) {
        Announce(frontEnd);
        ++announced;
      }
    }
    return latencies;
  }

 private:
  void Announce(FrontEnd& frontEnd) {
    RedisPipeline pipeline(theDaemon->Redis());
    if (!frontEnd.answerKeys.empty()) {
      const std::vector<std::string_view> unlink(frontEnd.answerKeys.begin(), frontEnd.answerKeys.end());
      pipeline.Append(unlink);
    }
    pipeline.Append({"PUBLISH", channel_, frontEnd.announcement});
    frontEnd.announced = Clock::now();
    pipeline.Execute();
  }

  std::string channel_;
  std::vector<FrontEnd> frontEnds_;
  RedisContext subscriber_;
  std::unordered_map<std::string, size_t> byChannel_;
};

// The kernel stops real-time processes for 50 ms whenever they have not left a processor to others for a second, and
// the whole queue of a load would wait: a run is made in parts, with pauses in which no request is under way.
constexpr size_t kParts = 5;

void Measure(benchmark::State& state, Load load, size_t requests) {
  std::vector<double> latencies;
  double seconds = 1;
  for (auto _ : state) {
    latencies.clear();
    seconds = 0;
    for (size_t part = 0; part < kParts; ++part) {
      std::vector<double> answered;
      const double taken = SecondsOf([&] { answered = load.Run(requests / kParts); });
      latencies.insert(latencies.end(), answered.begin(), answered.end());
      seconds += taken;
      std::this_thread::sleep_for(std::chrono::duration<double>(taken / 4));
    }
    state.SetIterationTime(seconds);
  }
  std::ranges::sort(latencies);
  state.counters["per_second"] = static_cast<double>(requests) / seconds;
  state.counters["median_us"] = latencies[latencies.size() / 2] * 1e6;
  state.counters["p99_us"] = latencies[latencies.size() * 99 / 100] * 1e6;
  state.counters["p99_to_median"] = latencies[latencies.size() * 99 / 100] / latencies[latencies.size() / 2];
}

void Echoes(benchmark::State& state) {
  std::vector<FrontEnd> frontEnds;
  for (int i = 0; i < state.range(0); ++i) frontEnds.push_back(MakeEcho(i));
  Measure(state, Load(kEchoChannel, std::move(frontEnds)), 20'000);
}

void Refusals(benchmark::State& state) {
  const Snapshot before(theDaemon->Redis());
  std::vector<FrontEnd> frontEnds;
  for (int i = 0; i < state.range(0); ++i) {
    frontEnds.push_back(MakeFrontEnd({.method = "GET", .targetUri = std::string(kEventServiceUri), .body = {}}));
  }
  Measure(state, Load(std::string(kEventServiceChannel), std::move(frontEnds)), 20'000);
  before.Restore(theDaemon->Redis());
}

void Patches(benchmark::State& state) {
  const Snapshot before(theDaemon->Redis());
  const auto created = SendRequest(
      theDaemon->Redis(), {.method = "POSTCREATE", .targetUri = std::string(kSubscriptionsUri), .body = TypicalBody()});
  Check(created && !created->location.empty(), "not created");
  std::vector<FrontEnd> frontEnds;
  for (int i = 0; i < state.range(0); ++i) {
    // A secret counts as a change even when it is the same.
    frontEnds.push_back(MakeFrontEnd({.method = "PATCH",
                                      .targetUri = created->location,
                                      .body = Json{{"HttpHeaders", {{{"X-Token", std::to_string(i)}}}}}}));
  }
  Measure(state, Load(std::string(kSubscriptionsChannel), std::move(frontEnds)), 5'000);
  before.Restore(theDaemon->Redis());
}

BENCHMARK(Echoes)->Arg(1)->Arg(8)->Arg(64)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(Refusals)->Arg(1)->Arg(8)->Arg(64)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(Patches)->Arg(1)->Arg(8)->Arg(64)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
}  // namespace event_service

int main(int argc, char** argv) {
  using namespace event_service;
  return RunBesideDaemon(argc, argv, [] {
    InProcessDaemon::StartThread(Echo);
    theDaemon->AwaitListener(kEchoChannel);
  });
}
