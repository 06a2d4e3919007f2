/// A sandbox in which the daemon can start: what the platform has put into Redis and onto the disk before.
#pragma once

#include <pthread.h>
#include <sys/stat.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "resource_store/resource_writer.h"
#include "service/redis_keys.h"
#include "service/start_up.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"
#include "tests/support/trip_counter.h"

namespace event_service {

class StartUpSandbox : public RedisTest {
 public:
  static bool HasThreads() { return std::ranges::count(calls, ',') <= static_cast<long>(listeners); }

 protected:
  using Texts = std::vector<std::string>;
  static constexpr const char* kCollection = "/redfish/v1/EventService/Subscriptions";

  void SetUp() override {
    RedisTest::SetUp();
    const FilePaths& paths = ProcessPaths();
    WriteFile(paths.defaultDatabaseFile, R"({"Members": [], "@odata.etag": ""})");
    WriteFile(paths.startUpMapScript, "return redis.call('INCR', 'map script runs')");
    WriteFile(paths.resourceLoader, "#!/bin/sh\n");
    WriteFile(paths.passwordFile, "random\n");
    ASSERT_EQ(chmod(paths.resourceLoader.c_str(), 0700), 0);
    for (const char* schema : {"/Task.v1_5_1", "/Event.v1_7_0", "/Event.v1_6_0", "/odata-v4", "no segment"}) {
      ListAppend(redis(), "&&/redfish/v1/JsonSchemas/Members", schema);
    }
    for (const std::string registry : {"Base.1.2.0.json", "Base.1.8.0.JSON"}) {
      AddRegistry(registry, "\"Base\"");
      HashWrite(redis(), "&&/redfish/v1/schemas/registries/" + registry + "/Messages/Success", "Severity", "\"OK\"");
    }
    HashWrite(redis(), "webDefaultValue", "MAX_EVENT_GROUP_ID", "99");
    SendCommand(redis(), "SADD &&AccessBlockList EventService Other");
  }
  void AddRegistry(const std::string& file, const char* prefix) {
    HashWrite(redis(), "/redfish/v1/schemas/registries/" + file, "RegistryPrefix", prefix);
  }

  /// Runs one start; the messages of its error lines are then in `errors_`, the stand-ins' names in `calls`.
  int Start(const std::string& configuration = "") {
    const std::string log = Sandbox().Root() + "/var/daemon.log";
    WriteFile(log, "");
    WriteFile(ProcessPaths().configuration, "LOG_FILE=" + log + "\n" + configuration);
    calls.clear();
    settings_ = ServiceSettings();
    std::destroy_at(&state_);  // a process's state is neither copied nor moved
    std::construct_at(&state_);
    const int status = RunStartUp(steps_, settings_, state_);
    errors_.clear();
    for (const std::string& line : MessagesIn(ReadFile(log), "[Error]: ")) errors_ += line + '\n';
    return status;
  }

  // What the stand-ins do: the first step or the last throws, and threads can be created for this many listeners.
  inline static std::exception_ptr thrown, thrownLast;
  inline static size_t listeners = 2;
  inline static std::string calls;
  static bool Restore(redisContext*, const ServiceSettings&) {
    if (thrown) std::rethrow_exception(thrown);
    calls += "restore, ";
    return false;  // which is no failure of startup
  }
  static void* Listen(void*) {
    calls += "listen, ";
    return nullptr;
  }
  static bool Await(std::chrono::milliseconds patience) {
    calls += "await, ";
    return patience == std::chrono::seconds(5);
  }
  static void Generate(redisContext* redis, const ServiceSettings&) {
    if (thrownLast) std::rethrow_exception(thrownLast);
    const RedisReply blocked = SendCommand(redis, "SISMEMBER &&AccessBlockList EventService");
    calls += blocked->integer == 0 ? "generate unblocked" : "generate blocked";
  }

  const StartUpSteps steps_{Restore, Listen, Listen, [] {}, Await, Generate};
  ServiceSettings settings_;
  SubscriptionsState state_;
  std::string errors_;
};

}  // namespace event_service
