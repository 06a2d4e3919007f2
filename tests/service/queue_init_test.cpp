#include "service/queue_init.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"
#include "tests/support/trip_counter.h"

namespace event_service {
namespace {

constexpr const char* kPatchQueue = "&&/redfish/v1/EventService/PATCHQ";
constexpr const char* kActionQueue = "&&/redfish/v1/EventService/POSTACTIONQ";
constexpr const char* kChannel = "&&/redfish/v1/EventService/CHANNEL";

class QueueInitTest : public RedisTest {
 protected:
  void SetUp() override {
    RedisTest::SetUp();
    ListAppend(redis(), "&&/redfish/v1/JsonSchemas/Members", "/redfish/v1/JsonSchemas/Event.v1_7_0");
    HashWrite(redis(), "/redfish/v1/schemas/registries/Base.json", "RegistryPrefix", "\"Base\"");
    settings_.paths = ProcessPaths();
  }

  ServiceSettings settings_;
  LogCapture log_;
};

TEST_F(QueueInitTest, AnEmptyQueueGetsTheChannelAndAnyOtherIsLeftAlone) {
  ListAppend(redis(), kActionQueue, "waiting");
  EXPECT_TRUE(InitQueues(redis(), settings_));
  EXPECT_TRUE(InitQueues(redis(), settings_));
  DatabaseDump dump = Dump();
  EXPECT_EQ(dump[kPatchQueue], "[" + std::string(kChannel) + "]");
  EXPECT_EQ(dump[kActionQueue], "[waiting]");
  EXPECT_EQ(dump["&&/redfish/v1/EventService/SMTP"], "{&&Password=null}");
  EXPECT_EQ(dump["/redfish/v1/EventService"], "{&&SensitiveData=SMTP/Password}");
  EXPECT_EQ(dump["&&/redfish/v1/EventService/ResourceTypes"], R"(["Event"])");
  EXPECT_EQ(dump["&&/redfish/v1/EventService/RegistryPrefixes"], R"(["Base"])");
}

TEST_F(QueueInitTest, SmtpIsNotTouchedWhileOnlyRedfishIsServed) {
  settings_.protocolOnly = true;
  EXPECT_TRUE(InitQueues(redis(), settings_));
  EXPECT_FALSE(KeyExists(redis(), "&&/redfish/v1/EventService/SMTP"));
  EXPECT_FALSE(KeyExists(redis(), "/redfish/v1/EventService"));
}

TEST_F(QueueInitTest, ItTakesSixRoundTripsAndTwoTheNextTime) {
  TripCounter proxy(Server().SocketPath());
  const RedisContext counted = proxy.Connect();
  proxy.Reset();
  EXPECT_TRUE(InitQueues(counted.get(), settings_));
  EXPECT_EQ(proxy.trips(), 6U);
  proxy.Reset();
  EXPECT_TRUE(InitQueues(counted.get(), settings_));
  EXPECT_EQ(proxy.trips(), 2U);
}

TEST_F(QueueInitTest, AQueueOfUnknownLengthDoesNotKeepTheOneBeforeItEmpty) {
  SendCommand(redis(), "SET %s no-list", kActionQueue);
  EXPECT_FALSE(InitQueues(redis(), settings_));
  EXPECT_EQ(Dump()[kPatchQueue], "[" + std::string(kChannel) + "]");
  EXPECT_FALSE(KeyExists(redis(), "&&/redfish/v1/EventService/SMTP"));
}

TEST_F(QueueInitTest, TheFirstFailureEndsItBeforeAnythingLaterIsWritten) {
  const struct {
    std::string failing;
    std::vector<std::string> errors;
    const char* absent;  // the first key that a later step would write
  } cases[] = {
      {"LLEN &&/redfish/v1/EventService/POSTACTIONQ",
       {"Failed to get &&/redfish/v1/EventService/POSTACTIONQ queue length."},
       kActionQueue},
      {"RPUSH &&/redfish/v1/EventService/PATCHQ", {"Failed to push queue."}, "&&/redfish/v1/EventService/SMTP"},
      {"HSET &&/redfish/v1/EventService/SMTP",
       {"Failed to set SMTP/Password default setting."},
       "&&/redfish/v1/EventService/ResourceTypes"},
      {"LRANGE &&/redfish/v1/JsonSchemas/Members",
       {"Cannot get the list of schema.", "Failed to init ResourceTypes and RegistryPrefixes."},
       "&&/redfish/v1/EventService/RegistryPrefixes"},
      {"KEYS /redfish/v1/schemas/registries/",
       {"Cannot find any defined RegistryPrefix.", "Failed to init ResourceTypes and RegistryPrefixes."},
       "&&/redfish/v1/EventService/RegistryPrefixes"},
  };
  TripCounter proxy(Server().SocketPath());
  for (const auto& row : cases) {
    SetUp();
    log_.Clear();
    proxy.Reset();
    proxy.FailCommandsWith(row.failing);
    EXPECT_FALSE(InitQueues(proxy.Connect().get(), settings_)) << row.failing;
    EXPECT_EQ(log_.Errors(), row.errors) << row.failing;
    EXPECT_FALSE(KeyExists(redis(), row.absent)) << row.failing;
  }
}

}  // namespace
}  // namespace event_service
