#include "service/start_up.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

#include "tests/service/start_up_sandbox.h"
#include "tests/support/trip_counter.h"

namespace event_service {
namespace {

// What the stand-ins were called for, in order; a test's threads have ended before it looks.
std::vector<std::string> calls;
std::atomic<int> listenersStarted;

bool RestoreProperties(redisContext* redis, const ServiceSettings& settings) {
  calls.push_back(settings.protocolOnly ? "restore, Redfish only" : "restore");
  return redis != nullptr;
}
void* Listen(void* argument) {
  if (argument == nullptr) ++listenersStarted;
  return nullptr;
}
void CreateDestinations(redisContext* redis, const ServiceSettings&) {
  const RedisReply blocked = SendCommand(redis, "SISMEMBER &&AccessBlockList EventService");
  calls.push_back(IsInteger(blocked) && blocked->integer == 0 ? "generate, unblocked" : "generate, blocked");
}
int CreateNoThread(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) { return EAGAIN; }
int CreateOneThread(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*), void* argument) {
  if (listenersStarted > 0) return EAGAIN;
  const int result = pthread_create(thread, attributes, entry, argument);
  pthread_join(*thread, nullptr);
  return result;
}

class StartUpTest : public StartUpSandbox {
 protected:
  void SetUp() override {
    StartUpSandbox::SetUp();
    calls.clear();
    listenersStarted = 0;
    UseLogFile("");
  }
  void UseLogFile(const std::string& furtherLines) {
    Configure("LOG_FILE=" + Sandbox().Root() + "/var/daemon.log\n" + furtherLines);
  }
  int Run() {
    ServiceSettings settings;
    SubscriptionsState state;
    const int status = RunStartUp(steps_, settings, state);
    errors_.clear();
    debugLines_.clear();
    std::istringstream log(ReadFile(Sandbox().Root() + "/var/daemon.log"));
    for (std::string line; std::getline(log, line);) {
      const size_t error = line.find("[Error]: ");
      (error != std::string::npos ? errors_ : debugLines_).push_back(line.substr(line.find("]: ") + 3));
    }
    return status;
  }
  /// Leaves an encrypted database file, so that a start has nothing to complain about.
  void StartOnce() {
    ASSERT_EQ(Run(), 0);
    calls.clear();
    listenersStarted = 0;
  }

  StartUpSteps steps_{RestoreProperties, Listen, Listen, CreateDestinations};
  std::vector<std::string> errors_;
  std::vector<std::string> debugLines_;
};

TEST_F(StartUpTest, AStartRunsItsStepsAndEndsWithItsListeners) {
  StartOnce();
  SendCommand(redis(), "SADD &&AccessBlockList EventService");
  EXPECT_EQ(Run(), 0);
  EXPECT_EQ(errors_, std::vector<std::string>{});
  EXPECT_EQ(debugLines_.front(), "Event Service log is starting ...");
  EXPECT_EQ(calls, (std::vector<std::string>{"restore", "generate, unblocked"}));
  EXPECT_EQ(listenersStarted, 2);
  EXPECT_EQ(Dump()["&&AccessBlockList"], "(Other)");
  EXPECT_TRUE(FileExists(ProcessPaths().databaseFile));
  EXPECT_FALSE(FileExists(ProcessPaths().plainDatabaseFile));
}

TEST_F(StartUpTest, OnlyExactlyTrueServesRedfishOnly) {
  const struct {
    const char* value;
    const char* call;
  } cases[] = {{"true", "restore, Redfish only"}, {"True", "restore"}, {"1", "restore"}, {"yes", "restore"}};
  for (const auto& row : cases) {
    calls.clear();
    UseLogFile("SupportRedfishProtocolOnly=" + std::string(row.value) + "\n");
    EXPECT_EQ(Run(), 0) << row.value;
    EXPECT_EQ(calls.front(), row.call) << row.value;
  }
}

TEST_F(StartUpTest, AnExistingDatabaseFileIsNotReplaced) {
  StartOnce();
  WriteFile(ProcessPaths().defaultDatabaseFile, R"({"Members": [{"@odata.id": "/x"}]})");
  EXPECT_EQ(Run(), 0);
  EXPECT_EQ(DecryptedFile()["Members"].size(), 0U);
}

TEST_F(StartUpTest, WithoutDatabaseAndDefaultDataItEndsBeforeRedisIsAsked) {
  RemoveFile(ProcessPaths().defaultDatabaseFile);
  Server().Kill();
  EXPECT_EQ(Run(), -1);
  EXPECT_EQ(errors_, std::vector<std::string>{"Failed to initialize db file by copying static data file."});
}

TEST_F(StartUpTest, WithoutRedisItEnds) {
  Server().Kill();
  EXPECT_EQ(Run(), -1);
  EXPECT_EQ(errors_, std::vector<std::string>{"Failed to connect to Redis."});
}

TEST_F(StartUpTest, AfterAFailedInitialisationNothingFurtherRuns) {
  StartOnce();
  SendCommand(redis(), "DEL map-script &&/redfish/v1/EventService/PATCHQ");
  SendCommand(redis(), "SET &&/redfish/v1/EventService/PATCHQ no-list");
  HashFieldDelete(redis(), kCollection, "Members@odata.count");
  EXPECT_EQ(Run(), -1);
  EXPECT_EQ(errors_, (std::vector<std::string>{"Failed to get &&/redfish/v1/EventService/PATCHQ queue length.",
                                               "Failed to initialize Event Service."}));
  EXPECT_EQ(HashRead(redis(), kCollection, "Members@odata.count"), "") << "the service was initialised all the same";

  SendCommand(redis(), "DEL &&/redfish/v1/EventService/PATCHQ");
  RemoveFile(ProcessPaths().startUpMapScript);
  EXPECT_EQ(Run(), -1);
  EXPECT_EQ(errors_.back(), "Failed to initialize Event Service.");
  EXPECT_EQ(calls, std::vector<std::string>{});
  EXPECT_EQ(listenersStarted, 0);
}

TEST_F(StartUpTest, AFailedRestoreOfThePropertiesIsNoFailure) {
  steps_.restorePersistentProperties = [](redisContext*, const ServiceSettings&) { return false; };
  EXPECT_EQ(Run(), 0);
  EXPECT_EQ(listenersStarted, 2);
}

TEST_F(StartUpTest, ExceptionsAreReportedByTheirKind) {
  const struct {
    bool (*step)(redisContext*, const ServiceSettings&);
    const char* error;
  } cases[] = {
      {[](redisContext*, const ServiceSettings&) -> bool { throw std::out_of_range("stoi"); },
       "Error stoi occurs while initializing data."},
      {[](redisContext*, const ServiceSettings&) -> bool { throw std::regex_error(std::regex_constants::error_paren); },
       "Error Mismatched '(' and ')' in regular expression occurs while initializing data."},
      {[](redisContext*, const ServiceSettings&) -> bool { throw std::bad_cast(); },
       "Error occurs while initialize data: std::bad_cast"},
  };
  StartOnce();
  for (const auto& row : cases) {
    steps_.restorePersistentProperties = row.step;
    EXPECT_EQ(Run(), -1) << row.error;
    EXPECT_EQ(errors_, std::vector<std::string>{row.error});
    EXPECT_EQ(listenersStarted, 0);
  }
  steps_.restorePersistentProperties = [](redisContext*, const ServiceSettings&) -> bool {
    throw std::runtime_error("any other");
  };
  EXPECT_THROW(Run(), std::runtime_error);
}

TEST_F(StartUpTest, AListenerThatCannotBeStartedEndsIt) {
  StartOnce();
  steps_.createThread = CreateNoThread;
  EXPECT_EQ(Run(), -1);
  EXPECT_EQ(errors_, std::vector<std::string>{"Failed to create thread for subscribing PATCH channel."});
  steps_.createThread = CreateOneThread;
  EXPECT_EQ(Run(), -1);
  EXPECT_EQ(errors_, std::vector<std::string>{"Create thread for subscribe failed."});
  EXPECT_EQ(calls, (std::vector<std::string>{"restore", "restore"}));
}

TEST_F(StartUpTest, ABlockListThatCannotBeChangedIsLoggedAndTheServiceRuns) {
  StartOnce();
  SendCommand(redis(), "SET &&AccessBlockList no-set");
  EXPECT_EQ(Run(), 0);
  EXPECT_EQ(errors_, std::vector<std::string>{"EventService is ready, but fail to remove it from the block list."});
  EXPECT_EQ(listenersStarted, 2);
}

TEST_F(StartUpTest, AStartTakesTwelveRoundTripsAndALaterOneEight) {
  TripCounter proxy(Server().SocketPath());
  SetProcessPaths(Sandbox().PathsThrough(proxy.SocketPath()));
  steps_.createGeneratedDestinations = [](redisContext*, const ServiceSettings&) {};
  EXPECT_EQ(Run(), 0);
  EXPECT_EQ(proxy.trips(), 12U);
  proxy.Reset();
  EXPECT_EQ(Run(), 0);
  EXPECT_EQ(proxy.trips(), 8U);
}

}  // namespace
}  // namespace event_service
