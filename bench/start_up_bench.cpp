/// What a start costs beyond the shell commands and Redis commands that it needs: discovery alone, and the whole start,
/// each beside the same commands sent raw, in turns, on one CPU against a server of its own.
#include <stdlib.h>  // NOLINT(modernize-deprecated-headers): setenv
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "bench/bench_support.h"
#include "foundation/durable_file.h"
#include "foundation/shell.h"
#include "service/discovery.h"
#include "service/redis_keys.h"
#include "service/start_up.h"
#include "tests/support/redis_server.h"
#include "tests/support/sandbox_root.h"

namespace event_service {
namespace {

constexpr int kSchemas = 100;
constexpr int kRegistries = 20;
constexpr int kMessages = 150;  // in each registry
constexpr int kOtherKeys = 7000;
constexpr int kMembers = 20;

const SandboxRoot* theSandbox = nullptr;  // main's
redisContext* theRedis = nullptr;         // main's

std::string RegistryFile(int i) {
  return "/redfish/v1/schemas/registries/Registry" + std::to_string(i) + ".1.2.0.json";
}

void FillRedis() {
  RedisPipeline pipeline(theRedis);
  for (int i = 0; i < kSchemas; ++i) {
    pipeline.Append({"RPUSH", "&&/redfish/v1/JsonSchemas/Members",
                     "&&ObjectRef &&/redfish/v1/JsonSchemas/Schema" + std::to_string(i) + ".v1_2_0"});
  }
  for (int i = 0; i < kRegistries; ++i) {
    pipeline.Append({"HSET", RegistryFile(i), "RegistryPrefix", "\"Registry" + std::to_string(i) + '"'});
    for (int j = 0; j < kMessages; ++j) {
      const std::string message = "&&" + RegistryFile(i) + "/Messages/SomethingHappened" + std::to_string(j);
      pipeline.Append({"HSET", message, "Severity", "\"OK\""});
    }
  }
  for (int i = 0; i < kOtherKeys; ++i) {
    pipeline.Append({"HSET", "/redfish/v1/Chassis/1/Sensors/Sensor" + std::to_string(i), "Reading", "20"});
  }
  pipeline.Append({"HSET", "webDefaultValue", "MAX_EVENT_GROUP_ID", "1000000"});
  pipeline.Execute();
}

void ForgetDiscoveredLists() { SendArguments(theRedis, {"DEL", kResourceTypesKey, kRegistryPrefixesKey}); }

// --- The floor ------------------------------------------------------------------------------------------------------

using Command = std::vector<std::string>;

/// Sends the commands in one batch, bare.
std::vector<RedisReply> Send(redisContext* redis, const std::vector<Command>& batch) {
  for (const Command& command : batch) {
    std::vector<const char*> words;
    std::vector<size_t> lengths;
    for (const std::string& word : command) {
      words.push_back(word.data());
      lengths.push_back(word.size());
    }
    redisAppendCommandArgv(redis, static_cast<int>(words.size()), words.data(), lengths.data());
  }
  std::vector<RedisReply> replies;
  for (size_t i = 0; i < batch.size(); ++i) replies.push_back(ReadReply(redis));
  return replies;
}

const Command kReadSchemas = {"LRANGE", "&&/redfish/v1/JsonSchemas/Members", "0", "-1"};
const Command kListRegistries = {"KEYS", "/redfish/v1/schemas/registries/*.[Jj][Ss][Oo][Nn]"};
const Command kListMessages = {"KEYS", std::string(kMessageKeys)};
const std::string kTypes(kResourceTypesKey);
const std::string kPrefixes(kRegistryPrefixesKey);

void BareLists(redisContext* redis) {
  Send(redis, {{"LLEN", kTypes}, kReadSchemas, {"LLEN", kPrefixes}, kListRegistries});
  std::vector<Command> batch;
  for (int i = 0; i < kSchemas; ++i) batch.push_back({"RPUSH", kTypes, "\"Schema" + std::to_string(i) + '"'});
  for (int i = 0; i < kRegistries; ++i) batch.push_back({"HGET", RegistryFile(i), "RegistryPrefix"});
  Send(redis, batch);
  batch.clear();
  for (int i = 0; i < kRegistries; ++i) batch.push_back({"RPUSH", kPrefixes, "\"Registry" + std::to_string(i) + '"'});
  Send(redis, batch);
}

/// The least that a sorted list of message ids takes: no check of the keys, three searches each.
std::vector<std::string> BareMessageIds(const redisReply* keys) {
  constexpr size_t kFolder = sizeof "&&/redfish/v1/schemas/registries/" - 1;
  std::vector<std::string> ids;
  ids.reserve(keys->elements);
  for (size_t i = 0; i < keys->elements; ++i) {
    const char* name = keys->element[i]->str + kFolder;
    const char* version = std::strchr(std::strchr(name, '.') + 1, '.') + 1;
    const char* end = version + std::strspn(version, "0123456789");
    const char* message = std::strrchr(end, '/') + 1;
    std::string id;
    id.reserve(static_cast<size_t>(end - name) + std::strlen(message) + 3);
    id.append("\"").append(name, end).append(".").append(message).append("\"");
    ids.push_back(std::move(id));
  }
  std::ranges::sort(ids);
  const auto repeats = std::ranges::unique(ids);
  ids.erase(repeats.begin(), repeats.end());
  return ids;
}

void BareDiscovery(redisContext* redis) {
  BareLists(redis);
  const auto replies = Send(redis, {kListMessages, {"LRANGE", kTypes, "0", "-1"}, {"LRANGE", kPrefixes, "0", "-1"}});
  benchmark::DoNotOptimize(BareMessageIds(replies.front().get()));
}

// --- What is compared -----------------------------------------------------------------------------------------------

void RunDiscovery(redisContext* redis) {
  RedisPipeline pipeline(redis);
  FilterLists lists;
  lists.Ask(pipeline);
  pipeline.Execute();
  lists.AskPrefixes(pipeline);
  pipeline.Execute();
  if (!lists.Fill(redis, ServiceSettings())) throw std::runtime_error("no lists");
  pipeline.Append({"KEYS", kMessageKeys});
  pipeline.Append({"LRANGE", kResourceTypesKey, "0", "-1"});
  pipeline.Append({"LRANGE", kRegistryPrefixesKey, "0", "-1"});
  const std::vector<RedisReply> found = pipeline.Execute();
  AllowedValuesTable allowed;
  InitMessageIds(found[0].get(), allowed);
  allowed["ResourceTypes"] = SortedOnce(TextsOf(found[1]));
  allowed["RegistryPrefixes"] = SortedOnce(TextsOf(found[2]));
  benchmark::DoNotOptimize(allowed);
}

void Discovery(benchmark::State& state) {
  Times keysAlone, floors, jobs, ids;
  const std::vector<RedisReply> keys = Send(theRedis, {kListMessages});
  for (auto _ : state) {
    keysAlone.Add(SecondsOf([] {
      Send(theRedis, {kListRegistries});
      Send(theRedis, {kListMessages});
    }));
    ForgetDiscoveredLists();
    floors.Add(SecondsOf([] { BareDiscovery(theRedis); }));
    ForgetDiscoveredLists();
    const double seconds = SecondsOf([] { RunDiscovery(theRedis); });
    jobs.Add(seconds);
    ids.Add(SecondsOf([&] {
      AllowedValuesTable allowed;
      InitMessageIds(keys.front().get(), allowed);
    }));
    state.SetIterationTime(seconds);
  }
  ReportRatio(state, floors.Least(), jobs.Least());
  state.counters["to_keys_alone"] = jobs.Least() / keysAlone.Least();
  state.counters["us_per_message"] = ids.Least() * 1e6 / (kRegistries * kMessages);
}

/// The commands of a start with an encrypted file, each alone: the look for a system logger, the lookup of the server,
/// decoding, the loader, encoding, removal; and the flushing of each file before the other copy goes.
void BareStart() {
  const FilePaths& paths = ProcessPaths();
  const std::string plain = theSandbox->Root() + "/var/bare.json";
  const std::string encrypted = theSandbox->Root() + "/var/bare.enc";
  const std::string password = "$(cat " + paths.passwordFile + ")";
  const auto run = [](const std::string& command) {
    if (RunShell(command) != 0) throw std::runtime_error("failed: " + command);
  };
  const auto flush = [](const std::string& file) {
    if (!SyncFile(file) || !SyncFolderOf(file)) throw std::runtime_error("failed to flush: " + file);
  };
  RunShell("pidof no-such-logger");
  run("dirname $(grep -m 1 '^unixsocket ' " + paths.redisConfiguration +
      " | awk '{print $2}') | tr -d '\\n' >/dev/null");
  const RedisContext redis(redisConnectUnix(theSandbox->RedisSocket().c_str()));
  BareLists(redis.get());
  run(paths.openssl + " enc -d -aes-256-cbc -in " + paths.databaseFile + " -out " + plain + " -k " + password +
      " 2>/dev/null && chmod 600 " + plain);
  run(paths.resourceLoader + " UPDATE " + plain + " " + std::string(kSubscriptionsUri));
  flush(plain);
  run(paths.openssl + " enc -aes-256-cbc -in " + plain + " -out " + encrypted + " -k " + password +
      " 2>/dev/null && chmod 600 " + encrypted);
  flush(encrypted);
  run("rm -f " + plain);
  const auto replies = Send(redis.get(), {kListMessages});
  benchmark::DoNotOptimize(BareMessageIds(replies.front().get()));
}

const StartUpSteps kNoFurtherSteps{
    .restorePersistentProperties = [](redisContext*, const ServiceSettings&) { return true; },
    .eventServiceListener = [](void*) -> void* { return nullptr; },
    .subscriptionsListener = [](void*) -> void* { return nullptr; },
    .expectListeners = [] {},
    .awaitListeners = [](std::chrono::milliseconds) { return true; },
    .createGeneratedDestinations = [](redisContext*, const ServiceSettings&) {},
};

void RunStart() {
  ServiceSettings settings;
  SubscriptionsState state;
  if (RunStartUp(kNoFurtherSteps, settings, state) != 0) throw std::runtime_error("the start failed");
  if (state.subscriptionCount != kMembers) throw std::runtime_error("members are missing");
}

void WholeStart(benchmark::State& state) {
  Times floors, jobs;
  for (auto _ : state) {
    ForgetDiscoveredLists();
    floors.Add(SecondsOf(BareStart));
    ForgetDiscoveredLists();
    // The lookup is remembered by the path of the server's configuration; a process has to look for it once.
    FilePaths paths = ProcessPaths();
    paths.redisConfiguration.insert(paths.redisConfiguration.rfind('/'), "/.");
    SetProcessPaths(paths);
    const double seconds = SecondsOf(RunStart);
    jobs.Add(seconds);
    state.SetIterationTime(seconds);
  }
  ReportRatio(state, floors.Least(), jobs.Least());
}

BENCHMARK(Discovery)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(WholeStart)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(100);

/// The sandbox of a machine that has started before: an encrypted file with its members.
void PrepareSandbox(const SandboxRoot& sandbox) {
  SetProcessPaths(sandbox.Paths());
  setenv("EVENT_SERVICE_ROOT", sandbox.Root().c_str(), 1);
  sandbox.UseRedis(sandbox.RedisSocket());
  const FilePaths& paths = ProcessPaths();
  WriteFile(paths.configuration,
            "LOG_FILE=" + sandbox.Root() + "/var/log\nLOG_LEVEL=error\nLOG_SYSTEM=no-such-logger\n");
  WriteFile(paths.startUpMapScript, "return 1");
  std::filesystem::create_symlink(RESOURCE_LOADER, paths.resourceLoader);
  Json members = Json::array();
  for (int i = 0; i < kMembers; ++i) {
    const std::string id = "0000ABC" + std::to_string(i);
    members.push_back({{"@odata.id", std::string(kSubscriptionsUri) + "/" + id},
                       {"Id", id},
                       {"Destination", "https://collector.example.com:8443/events/" + id},
                       {"Protocol", "Redfish"},
                       {"SubscriptionType", "RedfishEvent"},
                       {"MessageIds", {"Base.1.12.Success", "Base.1.12.Created"}},
                       {"Status", {{"State", "Enabled"}}},
                       {"&&Privileges", "ConfigureManager"}});
  }
  WriteFile(paths.defaultDatabaseFile, Json{{"Members", members}, {"@odata.etag", ""}}.dump());
}

}  // namespace
}  // namespace event_service

int main(int argc, char** argv) {
  using namespace event_service;
  StayOnOneCpu();
  const SandboxRoot sandbox;
  theSandbox = &sandbox;
  const RedisServer server(sandbox.RedisSocket());
  const RedisContext redis(redisConnectUnix(server.SocketPath().c_str()));
  theRedis = redis.get();
  PrepareSandbox(sandbox);
  FillRedis();
  RunStart();
  RunBenchmarks(argc, argv);
  return 0;
}
