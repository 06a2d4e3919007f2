#include "bench/in_process_daemon.h"

#include <malloc.h>
#include <pthread.h>
#include <sched.h>

#include <cstdio>

#include "bench/bench_support.h"
#include "foundation/logging.h"
#include "foundation/redis_pipeline.h"
#include "requests/event_service/event_service_listener.h"
#include "service/redis_keys.h"
#include "service/settings.h"
#include "subscriptions/subscriptions_listener.h"

namespace event_service {
namespace {

/// The lines about the missing file belong to the file: they cost no system call here.
void KeepLogLinesInMemory() {
  Check(std::freopen("/dev/null", "w", stderr) != nullptr, "no /dev/null");
  Check(std::setvbuf(stderr, nullptr, _IOFBF, 1 << 20) == 0, "no buffer");
}

void PrepareRedis(redisContext* redis) {
  const std::string digest(TextOf(SendArguments(redis, {"SCRIPT", "LOAD", "return 1"})));
  HashWrite(redis, kScriptDigests, "resourceChange", digest);
  HashWrite(redis, kScriptDigests, "enqueueEvent", digest);
  HashWrite(redis, kEventServiceUri, "ServiceEnabled", "true");
  HashWrite(redis, "webDefaultValue", "MAX_EVENT_GROUP_ID", "1000000");
}

void PrepareState(const FilePaths& paths) {
  static ServiceSettings settings;
  settings.paths = paths;
  settings.allowedValues["RegistryPrefixes"] = {"\"Base\"", "\"ResourceEvent\""};
  static SubscriptionsState subscriptions;
  subscriptions.registryPrefixBits = {{"Base", 1}, {"ResourceEvent", 2}};
  SetProcessState(&settings, &subscriptions);
}

void StartLog(const FilePaths& paths) {
  WriteFile(paths.configuration, "LOG_LEVEL=error\n");
  static Logger logger;
  logger.Initialise(paths.configuration);
  SetLogger(&logger);
  KeepLogLinesInMemory();
}

}  // namespace

InProcessDaemon::InProcessDaemon() : server_((sandbox_.UseRedis(sandbox_.RedisSocket()), sandbox_.RedisSocket())) {
  mallopt(M_ARENA_MAX, 1);  // as main does
  SetProcessPaths(sandbox_.Paths());
  StartLog(sandbox_.Paths());
  redis_.reset(redisConnectContext());
  Check(redis_ != nullptr, "no Redis");
  PrepareRedis(redis_.get());
  PrepareState(sandbox_.Paths());
  StartThread(EventServiceListenerThread);
  StartThread(SubscriptionsListenerThread);
  AwaitListener(kEventServiceChannel);
  AwaitListener(kSubscriptionsChannel);
}

void InProcessDaemon::StartThread(void* (*entry)(void*)) {
  pthread_t thread;
  Check(pthread_create(&thread, nullptr, entry, nullptr) == 0 && pthread_detach(thread) == 0, "no thread");
}

void InProcessDaemon::AwaitListener(std::string_view channel) const {
  while (SendArguments(redis_.get(), {"PUBLISH", channel, "nothing"})->integer == 0) sched_yield();
}

InProcessDaemon* theDaemon = nullptr;

int RunBesideDaemon(int argc, char** argv, const std::function<void()>& prepare) {
  StayOnOneCpu();
  InProcessDaemon daemon;
  theDaemon = &daemon;
  prepare();
  RunBenchmarks(argc, argv);
  return 0;
}

ToolBesideDaemon::ToolBesideDaemon(const char* program) {
  process_.Start({"env", "EVENT_SERVICE_ROOT=" + theDaemon->Root(), program}, theDaemon->Root() + "/tool.output");
}

ToolBesideDaemon::~ToolBesideDaemon() {
  const std::string status = ReadFile("/proc/" + std::to_string(process_.Pid()) + "/status");
  for (const char* name : {"VmRSS", "RssAnon"}) {
    const size_t begin = std::min(status.find(name), status.size());
    std::printf("%s\n", status.substr(begin, status.find('\n', begin) - begin).c_str());
  }
}

Snapshot::Snapshot(redisContext* redis) {
  for (std::string& key : KeyListing(redis, "*")) {
    const RedisReply dump = SendArguments(redis, {"DUMP", key});
    Check(IsString(dump), "no dump");
    dumps_.emplace_back(std::move(key), TextOf(dump));
  }
}

void Snapshot::Restore(redisContext* redis) const {
  RedisPipeline pipeline(redis);
  pipeline.Append({"FLUSHALL"});
  for (const auto& [key, dump] : dumps_) pipeline.Append({"RESTORE", key, "0", dump});
  for (const RedisReply& reply : pipeline.Execute()) Check(TextOf(reply) == "OK", "not restored");
}

RedisContext ListenTo(std::string_view channel) {
  RedisContext subscriber(redisConnectContext());
  Check(IsArray(SendArguments(subscriber.get(), {"SUBSCRIBE", channel})), "no subscription");
  return subscriber;
}

RedisReply Receive(redisContext* subscriber) {
  RedisReply message = ReadReply(subscriber);
  Check(IsArray(message) && message->elements == 3, "no message");
  return message;
}

const Json& TypicalBody() {
  static const Json kBody = Json::parse(R"({
      "Destination": "https://collector.example.com:8443/events", "Protocol": "Redfish", "Context": "rack 7",
      "RegistryPrefixes": ["Base", "ResourceEvent"], "HttpHeaders": [{"X-Token": "0123456789"}],
      "OriginResources": [{"@odata.id": "/redfish/v1/Chassis/1"}]})");
  return kBody;
}

}  // namespace event_service
