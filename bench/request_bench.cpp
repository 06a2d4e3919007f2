/// What a request takes from its announcement to the notification on its return channel, as a multiple of the least
/// that any request can take: an announcement that a subscriber answers at once. Listener, front end and Redis share
/// one CPU. The file has a benchmark of its own: the database file is away, and what the step costs that looks for it
/// is measured beside and taken off.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "foundation/logging.h"
#include "requests/event_service/event_service_listener.h"
#include "service/redis_keys.h"
#include "service/settings.h"
#include "subscriptions/resource/event_destination.h"
#include "subscriptions/subscriptions_listener.h"
#include "tests/support/redis_server.h"
#include "tests/support/sandbox_root.h"
#include "tools/front_end/front_end.h"

namespace event_service {
namespace {

constexpr const char* kEchoChannel = "echo";
constexpr std::string_view kEventObjects = "*/EventService/Actions/*";

redisContext* theRedis = nullptr;  // main's

/// Everything, the server too, on the first CPU that we may use: across CPUs a round trip is five times as long.
void StayOnOneCpu() {
  cpu_set_t cpus;
  sched_getaffinity(0, sizeof cpus, &cpus);
  int first = 0;
  while (first < CPU_SETSIZE - 1 && !CPU_ISSET(first, &cpus)) ++first;
  CPU_ZERO(&cpus);
  CPU_SET(first, &cpus);
  sched_setaffinity(0, sizeof cpus, &cpus);
}

void Check(bool isFine, const char* what) {
  if (!isFine) throw std::runtime_error(what);
}

/// The file step's lines belong to the file: they cost no system call here.
void KeepLogLinesInMemory() {
  Check(std::freopen("/dev/null", "w", stderr) != nullptr, "no /dev/null");
  Check(std::setvbuf(stderr, nullptr, _IOFBF, 1 << 20) == 0, "no buffer");
}

RedisReply Receive(redisContext* subscriber) {
  RedisReply message = ReadReply(subscriber);
  Check(IsArray(message), "no message");
  return message;
}

/// Answers each announcement "<request key> <response key>" on the channel that its response key names.
void* Echo(void*) {
  const RedisContext subscriber(redisConnectContext());
  const RedisContext redis(redisConnectContext());
  SendArguments(subscriber.get(), {"SUBSCRIBE", kEchoChannel});
  while (const RedisReply message = ReadReply(subscriber.get())) {
    const std::string_view text = TextOf(message->element[2]);
    SendArguments(redis.get(), {"PUBLISH", text.substr(text.find(' ') + 1), text});
  }
  return nullptr;
}

void StartThread(void* (*entry)(void*)) {
  pthread_t thread;
  Check(pthread_create(&thread, nullptr, entry, nullptr) == 0 && pthread_detach(thread) == 0, "no thread");
}

/// A subscription of the front end to one return channel.
RedisContext ListenTo(const std::string& channel) {
  RedisContext subscriber(redisConnectContext());
  Check(IsArray(SendArguments(subscriber.get(), {"SUBSCRIBE", channel})), "no subscription");
  return subscriber;
}

double SecondsOf(redisContext* subscriber, std::string_view channel, const std::string& announcement) {
  const auto start = std::chrono::steady_clock::now();
  SendArguments(theRedis, {"PUBLISH", channel, announcement});
  Receive(subscriber);
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double EchoSeconds() {
  static const RedisContext subscriber = ListenTo("echoed");
  return SecondsOf(subscriber.get(), kEchoChannel, "request echoed");
}

/// Sends one request and gives the time from announcement to notification, and what was answered.
double RequestSeconds(const FrontEndRequest& request, FrontEndAnswer& answer) {
  const std::optional<StoredRequest> stored = StoreRequest(theRedis, request);
  Check(stored.has_value(), "the request is not stored");
  const RedisContext subscriber = ListenTo(stored->returnChannel);
  const double seconds =
      SecondsOf(subscriber.get(), ChannelOf(request.targetUri), stored->requestKey + " " + stored->responseKey);
  answer = ReadAnswer(theRedis, *stored);
  RemoveRequest(theRedis, *stored);
  return seconds;
}

/// The destination that the goals speak of: two prefixes, one origin, one header object, no SNMP, a generated Id.
const Json& TypicalBody() {
  static const Json kBody = Json::parse(R"({
      "Destination": "https://collector.example.com:8443/events", "Protocol": "Redfish", "Context": "rack 7",
      "RegistryPrefixes": ["Base", "ResourceEvent"], "HttpHeaders": [{"X-Token": "0123456789"}],
      "OriginResources": [{"@odata.id": "/redfish/v1/Chassis/1"}]})");
  return kBody;
}

std::string CreateTypical(double* seconds = nullptr) {
  const FrontEndRequest request{
      .method = "POSTCREATE", .targetUri = std::string(kSubscriptionsUri), .body = TypicalBody()};
  FrontEndAnswer answer;
  const double taken = RequestSeconds(request, answer);
  if (seconds != nullptr) *seconds = taken;
  Check(answer.status == "OK_RES" && !answer.location.empty(), "not created");
  return answer.location;
}

void Delete(const std::string& uri, double* seconds = nullptr) {
  FrontEndAnswer answer;
  const double taken = RequestSeconds({.method = "DELETE", .targetUri = uri, .body = {}}, answer);
  if (seconds != nullptr) *seconds = taken;
  Check(!KeyExists(theRedis, uri), "not deleted");
  // As event delivery would: among keys that pile up every further request would be slower.
  for (const std::string& key : KeyListing(theRedis, kEventObjects)) KeyDelete(theRedis, key);
}

/// Runs echo, job and, where there is one, the job's file step in turns; the least of each counts.
void Compare(benchmark::State& state, const std::function<double()>& job,
             const std::function<void(SubscriptionDb&)>& fileStep = {}) {
  static SubscriptionsState own;  // the listener's belongs to its thread
  double echo = 1;
  double ours = 1;
  double file = 1;
  for (auto _ : state) {
    echo = std::min(echo, EchoSeconds());
    const double seconds = job();
    ours = std::min(ours, seconds);
    const auto start = std::chrono::steady_clock::now();
    if (fileStep) fileStep(own.db);
    file = std::min(file, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    state.SetIterationTime(seconds);
  }
  state.counters["echo_us"] = echo * 1e6;
  state.counters["ours_us"] = ours * 1e6;
  state.counters["file_us"] = file * 1e6;
  state.counters["ratio"] = (ours - file) / echo;
}

void InsertIntoFile(SubscriptionDb& db) {
  static const Json kDestination = *BuildEventDestination(TypicalBody(), {.id = "0123ABCD"}, ProcessSettings());
  static_cast<void>(db.InsertDbSubscription("0123ABCD", FileText(kDestination), "Login", "\"\""));
}
void DeleteFromFile(SubscriptionDb& db) {
  static_cast<void>(db.DeleteDbSubscription("/redfish/v1/x/0123ABCD", "\"\""));
}
void UpdateInFile(SubscriptionDb& db) {
  static_cast<void>(db.UpdateDbSubscription("/redfish/v1/x/0123ABCD", {{"Context", "1"}}, {}, "\"\""));
}

void RefusedMethod(benchmark::State& state) {
  Compare(state, [] {
    FrontEndAnswer answer;
    const double seconds =
        RequestSeconds({.method = "GET", .targetUri = std::string(kEventServiceUri), .body = {}}, answer);
    Check(answer.status == "NOT_ALLOWED", "not refused");
    return seconds;
  });
}

void RefusedByTheLimit(benchmark::State& state) {
  SubscriptionsState& subscriptions = ProcessSubscriptions();
  const uint32_t count = subscriptions.subscriptionCount;
  subscriptions.subscriptionCount = static_cast<uint32_t>(ProcessSettings().maxSubscriptionCount);
  Compare(state, [] {
    FrontEndAnswer answer;
    const double seconds = RequestSeconds(
        {.method = "POSTCREATE", .targetUri = std::string(kSubscriptionsUri), .body = Json::object({{"Id", "x"}})},
        answer);
    Check(answer.status == "UNAVAILABLE", "not refused");
    return seconds;
  });
  subscriptions.subscriptionCount = count;
}

void Creation(benchmark::State& state) {
  const auto create = [] {
    double seconds = 0;
    Delete(CreateTypical(&seconds));
    return seconds;
  };
  Compare(state, create, InsertIntoFile);
}

void Deletion(benchmark::State& state) {
  const auto remove = [] {
    double seconds = 0;
    Delete(CreateTypical(), &seconds);
    return seconds;
  };
  Compare(state, remove, DeleteFromFile);
}

void PatchOfOneProperty(benchmark::State& state) {
  const std::string uri = CreateTypical();
  int change = 0;
  const auto patch = [&] {
    FrontEndAnswer answer;
    const double seconds = RequestSeconds(
        {.method = "PATCH", .targetUri = uri, .body = Json::object({{"Context", std::to_string(++change)}})}, answer);
    Check(answer.status == "OK_RES", "not patched");
    return seconds;
  };
  Compare(state, patch, UpdateInFile);
  Delete(uri);
}

BENCHMARK(RefusedMethod)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(RefusedByTheLimit)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(Creation)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(Deletion)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(PatchOfOneProperty)->UseManualTime()->Unit(benchmark::kMicrosecond);

std::string LoadScript(std::string_view script) {
  return std::string(TextOf(SendArguments(theRedis, {"SCRIPT", "LOAD", script})));
}

/// An enabled service whose scripts only take what they are given.
void PrepareRedis() {
  const std::string digest = LoadScript("return 1");
  HashWrite(theRedis, "redisSHAScripts", "resourceChange", digest);
  HashWrite(theRedis, "redisSHAScripts", "enqueueEvent", digest);
  HashWrite(theRedis, kEventServiceUri, "ServiceEnabled", "true");
  HashWrite(theRedis, "webDefaultValue", "MAX_EVENT_GROUP_ID", "1000000");
}

}  // namespace
}  // namespace event_service

int main(int argc, char** argv) {
  using namespace event_service;
  StayOnOneCpu();
  const SandboxRoot sandbox;
  SetProcessPaths(sandbox.Paths());
  sandbox.UseRedis(sandbox.RedisSocket());
  WriteFile(sandbox.Paths().configuration, "LOG_LEVEL=error\n");
  static Logger logger;
  logger.Initialise(sandbox.Paths().configuration);
  SetLogger(&logger);
  KeepLogLinesInMemory();
  const RedisServer server(sandbox.RedisSocket());
  const RedisContext redis(redisConnectContext());
  theRedis = redis.get();
  PrepareRedis();

  static ServiceSettings settings;
  settings.paths = sandbox.Paths();
  settings.allowedValues["RegistryPrefixes"] = {"\"Base\"", "\"ResourceEvent\""};
  static SubscriptionsState subscriptions;
  subscriptions.registryPrefixBits = {{"Base", 1}, {"ResourceEvent", 2}};
  SetProcessState(&settings, &subscriptions);
  StartThread(Echo);
  StartThread(EventServiceListenerThread);
  StartThread(SubscriptionsListenerThread);
  for (const char* channel : {kEchoChannel, kEventServiceChannel.data(), kSubscriptionsChannel.data()}) {
    while (SendArguments(theRedis, {"PUBLISH", channel, "nothing"})->integer == 0) sched_yield();
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
