#include "service/start_up.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <typeinfo>

#include "tests/service/start_up_sandbox.h"
#include "tests/support/trip_counter.h"

namespace event_service {
namespace {

// What the stand-ins were called for, in order; a test's threads have ended before it looks.
std::string calls;
std::atomic<int> listenersStarted;

bool RestoreProperties(redisContext*, const ServiceSettings& settings) {
  calls += settings.protocolOnly ? "restore for Redfish only, " : "restore, ";
  return false;  // which is no failure of start-up
}
bool ThrowLogicError(redisContext*, const ServiceSettings&) { throw std::out_of_range("stoi"); }
bool ThrowRegexError(redisContext*, const ServiceSettings&) {
  throw std::regex_error(std::regex_constants::error_paren);
}
bool ThrowBadCast(redisContext*, const ServiceSettings&) { throw std::bad_cast(); }
void* Listen(void* argument) {
  if (argument == nullptr) ++listenersStarted;
  return nullptr;
}
void CreateDestinations(redisContext* redis, const ServiceSettings&) {
  const RedisReply blocked = SendCommand(redis, "SISMEMBER &&AccessBlockList EventService");
  calls += IsInteger(blocked) && blocked->integer == 0 ? "generate unblocked" : "generate blocked";
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
  /// Runs one start; the messages of its error lines are then in `errors_`.
  int Run(const std::string& configuration = "") {
    const std::string log = Sandbox().Root() + "/var/daemon.log";
    WriteFile(log, "");
    Configure("LOG_FILE=" + log + "\n" + configuration);
    calls.clear();
    errors_.clear();
    listenersStarted = 0;
    settings_ = ServiceSettings();
    state_ = SubscriptionsState();
    const int status = RunStartUp(steps_, settings_, state_);
    std::istringstream lines(ReadFile(log));
    for (std::string line; std::getline(lines, line);) {
      if (const size_t at = line.find("[Error]: "); at != std::string::npos) errors_ += line.substr(at + 9) + '\n';
    }
    return status;
  }

  StartUpSteps steps_{RestoreProperties, Listen, Listen, CreateDestinations};
  std::string errors_;
};

TEST_F(StartUpTest, AStartRunsItsStepsAndEndsWithItsListeners) {
  TripCounter proxy(Server().SocketPath());
  SetProcessPaths(Sandbox().PathsThrough(proxy.SocketPath()));
  for (const size_t trips : {13U, 9U}) {
    proxy.Reset();
    SendCommand(redis(), "SADD &&AccessBlockList EventService");
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(proxy.trips(), trips) << "the last is the stand-in's";
    EXPECT_EQ(calls, "restore, generate unblocked");
    EXPECT_EQ(listenersStarted, 2);
  }
  EXPECT_EQ(errors_, "");
  EXPECT_EQ(Dump()["&&AccessBlockList"], "(Other)");
  EXPECT_FALSE(FileExists(ProcessPaths().plainDatabaseFile));
}

TEST_F(StartUpTest, OnlyExactlyTrueServesRedfishOnly) {
  for (const std::string value : {"true", "True", "1", "yes"}) {
    EXPECT_EQ(Run("SupportRedfishProtocolOnly=" + value + "\n"), 0) << value;
    EXPECT_EQ(calls.starts_with("restore for Redfish only"), value == "true") << value;
  }
}

TEST_F(StartUpTest, AnExistingDatabaseFileIsNotReplaced) {
  ASSERT_EQ(Run(), 0);
  WriteFile(ProcessPaths().defaultDatabaseFile, R"({"Members": [{"@odata.id": "/x"}]})");
  EXPECT_EQ(Run(), 0);
  EXPECT_EQ(DecryptedFile()["Members"].size(), 0U);
}

TEST_F(StartUpTest, WithoutDatabaseAndDefaultDataItEndsBeforeRedisIsAsked) {
  Server().Kill();
  EXPECT_EQ(Run(), -1);
  EXPECT_EQ(errors_, "Failed to connect to Redis.\n");
  RemoveFile(ProcessPaths().defaultDatabaseFile);
  EXPECT_EQ(Run(), -1);
  EXPECT_EQ(errors_, "Failed to initialize db file by copying static data file.\n");
}

TEST_F(StartUpTest, AFailedCommandEndsItBeforeTheNextStep) {
  const std::string lists = "Failed to init ResourceTypes and RegistryPrefixes.\n";
  const std::string chain = "Failed to load subscription db file.\n";
  const std::string channel = "Failed to add channel of event destination to CRUD queue.\n";
  const struct {
    const char* failing;
    std::string errors;
    const char *last, *notReached;  // parts of commands
  } cases[] = {
      {"LLEN &&/redfish/v1/EventService/POSTACTIONQ",
       "Failed to get &&/redfish/v1/EventService/POSTACTIONQ queue length.\n", "EventService/PATCHQ &&", "HSET"},
      {"RPUSH &&/redfish/v1/EventService/PATCHQ", "Failed to push queue.\n", "RPUSH", "HSET"},
      {"HSET &&/redfish/v1/EventService/SMTP", "Failed to set SMTP/Password default setting.\n", "HSET",
       "RPUSH &&/redfish/v1/EventService/R"},
      {"LRANGE &&/redfish/v1/JsonSchemas/Members", "Cannot get the list of schema.\n" + lists, "LRANGE", "HGET"},
      {"KEYS /redfish/v1/schemas", "Cannot find any defined RegistryPrefix.\n" + lists, "ResourceTypes", "HMGET"},
      {"LRANGE &&/redfish/v1/EventService/Subscriptions/Members", chain, "LRANGE", "HMGET"},
      {"&&CRUDprefix &&", chain, "HMGET", "Members@odata.count"},
      {"LLEN &&/redfish/v1/EventService/Subscriptions/Members", chain, "LLEN", "Members@odata.count"},
      {"HSET /redfish/v1/EventService/Subscriptions Members@odata.count", chain, "Members@odata.count", "EVAL"},
      {"LLEN &&/redfish/v1/EventDestination/GETQ", "Failed to get &&/redfish/v1/EventDestination/GETQ queue length.\n",
       "EventDestination/DELETEQ &&", "GETQ 0"},
      {"RPUSH &&/redfish/v1/EventDestination/GETQ", channel, "LREM", "SREM"},
      {"LREM &&/redfish/v1/EventDestination/DELETEQ", channel, "RPUSH", "SREM"},
  };
  TripCounter proxy(Server().SocketPath());
  for (const auto& row : cases) {
    StartUpSandbox::SetUp();
    SetProcessPaths(Sandbox().PathsThrough(proxy.SocketPath()));
    StoreMember("A", "Redfish", "RedfishEvent");
    ListMember("A");
    proxy.Reset();
    proxy.FailCommandsWith(row.failing);
    EXPECT_EQ(Run(), -1) << row.failing;
    EXPECT_TRUE(errors_.ends_with(row.errors + "Failed to initialize Event Service.\n")) << errors_;
    EXPECT_EQ(calls, "") << row.failing;
    std::string commands;
    for (const std::string& command : proxy.CommandTexts()) commands += command + '\n';
    EXPECT_NE(commands.find(row.last), std::string::npos) << row.failing;
    EXPECT_EQ(commands.find(row.notReached), std::string::npos) << row.failing;
  }
}

TEST_F(StartUpTest, ExceptionsAndMissingThreadsEndItWithTheirLine) {
  const struct {
    decltype(StartUpSteps::restorePersistentProperties) restore;
    decltype(StartUpSteps::createThread) createThread;
    const char *errors, *calls;
  } cases[] = {
      {ThrowLogicError, pthread_create, "Error stoi occurs while initializing data.\n", ""},
      {ThrowRegexError, pthread_create,
       "Error Mismatched '(' and ')' in regular expression occurs while initializing data.\n", ""},
      {ThrowBadCast, pthread_create, "Error occurs while initialize data: std::bad_cast\n", ""},
      {RestoreProperties, CreateNoThread, "Failed to create thread for subscribing PATCH channel.\n", "restore, "},
      {RestoreProperties, CreateOneThread, "Create thread for subscribe failed.\n", "restore, "},
  };
  ASSERT_EQ(Run(), 0);
  for (const auto& row : cases) {
    steps_ = {row.restore, Listen, Listen, CreateDestinations, row.createThread};
    EXPECT_EQ(Run(), -1) << row.errors;
    EXPECT_EQ(errors_, row.errors);
    EXPECT_EQ(calls, row.calls) << row.errors;
  }
  steps_.restorePersistentProperties = [](redisContext*, const ServiceSettings&) -> bool {
    throw std::runtime_error("any other");
  };
  EXPECT_THROW(Run(), std::runtime_error) << "no exception but these is caught";
}

TEST_F(StartUpTest, ABlockListThatCannotBeChangedIsLoggedAndTheServiceRuns) {
  ASSERT_EQ(Run(), 0);
  SendCommand(redis(), "SET &&AccessBlockList no-set");
  EXPECT_EQ(Run(), 0);
  EXPECT_EQ(errors_, "EventService is ready, but fail to remove it from the block list.\n");
  EXPECT_EQ(listenersStarted, 2);
}

}  // namespace
}  // namespace event_service
