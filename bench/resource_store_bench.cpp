/// What the store adds to the Redis commands it needs: each of its jobs beside the same commands sent raw, in turns, on
/// one CPU against a server of its own.

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "resource_store/resource_reader.h"
#include "resource_store/resource_writer.h"
#include "tests/support/redis_server.h"
#include "tests/support/sandbox_root.h"

namespace event_service {
namespace {

constexpr const char* kKey = "/redfish/v1/Bench";
constexpr size_t kFanOut = 10;
constexpr size_t kFlushInterval = 256;

// main's. The floors have a connection of their own, which reads replies as the library gives them to any program.
redisContext* theRedis = nullptr;
redisContext* plainRedis = nullptr;

/// A tree of objects, ten below each, three primitives in each: `containers` of them in all, filled level by level.
Json Tree(size_t containers) {
  Json root = Json::object();
  std::vector<Json*> level = {&root};
  const auto fill = [](Json& object) {
    object["Name"] = "Event Subscription";
    object["Count"] = 42;
    object["Enabled"] = true;
  };
  fill(root);
  for (size_t made = 1; made < containers;) {
    std::vector<Json*> next;
    for (Json* parent : level) {
      for (size_t i = 0; i < kFanOut && made < containers; ++i, ++made) {
        Json& child = (*parent)["Child" + std::to_string(i)] = Json::object();
        fill(child);
        next.push_back(&child);
      }
    }
    level = std::move(next);
  }
  return root;
}

struct RawWrite {
  std::string key, field, value;
};

/// The writes of a document, ready to send.
void CollectWrites(const std::string& key, const Json& object, std::vector<RawWrite>& writes) {
  for (const auto& [name, value] : object.items()) {
    if (!value.is_object()) {
      writes.push_back({key, name, value.dump()});
      continue;
    }
    std::string child = ChildKey(key, name);
    writes.push_back({key, name, BuildMarker(false, value, child, name)});
    CollectWrites(child, value, writes);
  }
}

void WriteRaw(const std::vector<RawWrite>& writes) {
  size_t count = 0;
  int done = 0;
  for (const RawWrite& write : writes) {
    const char* words[] = {"HSET", write.key.c_str(), write.field.c_str(), write.value.c_str()};
    const size_t lengths[] = {4, write.key.size(), write.field.size(), write.value.size()};
    redisAppendCommandArgv(plainRedis, 4, words, lengths);
    if (++count % kFlushInterval == 0) redisBufferWrite(plainRedis, &done);
  }
  for (; count > 0; --count) {
    void* reply = nullptr;
    redisGetReply(plainRedis, &reply);
    freeReplyObject(reply);
  }
}

void ReadRaw(const std::vector<std::vector<std::string>>& levels) {
  for (const std::vector<std::string>& keys : levels) {
    for (const std::string& key : keys) {
      const char* words[] = {"HGETALL", key.c_str()};
      const size_t lengths[] = {7, key.size()};
      redisAppendCommandArgv(plainRedis, 2, words, lengths);
    }
    for (size_t i = 0; i < keys.size(); ++i) {
      void* reply = nullptr;
      redisGetReply(plainRedis, &reply);
      freeReplyObject(reply);
    }
  }
}

/// Runs floor and job in turns and reports the least of both, per container, and their ratio: what else runs on the
/// machine only ever adds.
void Compare(benchmark::State& state, const std::function<void()>& prepare, const std::function<void()>& floor,
             const std::function<void()>& job) {
  Times floors, jobs;
  for (auto _ : state) {
    prepare();
    floors.Add(SecondsOf(floor));
    prepare();
    const double seconds = SecondsOf(job);
    jobs.Add(seconds);
    state.SetIterationTime(seconds);
  }
  ReportRatio(state, floors.Least(), jobs.Least(), static_cast<double>(state.range(0)));
}

void WriteDocument(benchmark::State& state) {
  const Json document = Tree(static_cast<size_t>(state.range(0)));
  std::vector<RawWrite> writes;
  CollectWrites(kKey, document, writes);
  Compare(
      state, [] { SendCommand(theRedis, "FLUSHALL"); }, [&] { WriteRaw(writes); },
      [&] {
        if (!WriteResource(theRedis, kKey, document)) state.SkipWithError("write failed");
      });
}

void ReadDocument(benchmark::State& state) {
  const Json document = Tree(static_cast<size_t>(state.range(0)));
  SendCommand(theRedis, "FLUSHALL");
  if (!WriteResource(theRedis, kKey, document)) state.SkipWithError("write failed");
  std::vector<std::vector<std::string>> levels;
  ResourceWalk walk(kKey, {.knownKind = ContainerKind::kObject});
  for (size_t found = 0; !walk.Done();) {
    const std::vector<std::string> keys = walk.Keys();
    levels.emplace_back(keys.begin() + static_cast<ptrdiff_t>(found), keys.end());
    found = keys.size();
    RedisPipeline pipeline(theRedis);
    walk.AskLevel(pipeline);
    pipeline.Execute();
  }
  Compare(
      state, [] {}, [&] { ReadRaw(levels); },
      [&] {
        Json back;
        if (!ReadResource(theRedis, kKey, back) || back.size() != document.size()) state.SkipWithError("read failed");
      });
}

BENCHMARK(WriteDocument)->Arg(100)->Arg(1000)->Arg(10000)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(ReadDocument)->Arg(100)->Arg(1000)->Arg(10000)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace event_service

int main(int argc, char** argv) {
  using namespace event_service;
  StayOnOneCpu();
  const SandboxRoot sandbox;
  const RedisServer server(sandbox.RedisSocket());
  const RedisContext redis(redisConnectUnix(server.SocketPath().c_str()));
  const RedisContext plain(redisConnectUnix(server.SocketPath().c_str()));
  theRedis = redis.get();
  plainRedis = plain.get();
  RunBenchmarks(argc, argv);
  return 0;
}
