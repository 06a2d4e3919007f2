#include "service/queue_init.h"

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"
#include "tests/support/trip_counter.h"

namespace event_service {
namespace {

constexpr const char* kSchemas = "&&/redfish/v1/JsonSchemas/Members";

class QueueInitTest : public RedisTest {
 protected:
  void SetUp() override {
    RedisTest::SetUp();
    const std::vector<std::string> schemas = {"&&ObjectRef &&/redfish/v1/JsonSchemas/Task.v1_5_1",
                                              "/redfish/v1/JsonSchemas/Event.v1_7_0",
                                              "/redfish/v1/JsonSchemas/Event.v1_6_0",
                                              "/redfish/v1/JsonSchemas/odata-v4",
                                              "/redfish/v1/JsonSchemas/redfish-error.v1_0_1",
                                              "no segment",
                                              "/redfish/v1/JsonSchemas/Odata"};
    ListBatchAppend(redis(), kSchemas, schemas);
    AddRegistry("Base.1.12.1.json", "\"Base\"");
    AddRegistry("Base.1.8.0.JSON", "\"Base\"");
    AddRegistry("A.1.0.0.jSoN", "Bare");
    AddRegistry("NotJson.xml", "\"NotJson\"");
    HashWrite(redis(), "/redfish/v1/schemas/registries/Empty.json", "Id", "\"Empty\"");
    SendCommand(redis(), "SET /redfish/v1/schemas/registries/WrongType.json x");
  }
  void AddRegistry(const std::string& file, const char* prefix) {
    HashWrite(redis(), "/redfish/v1/schemas/registries/" + file, "RegistryPrefix", prefix);
  }
  std::string At(const std::string& name) { return Dump()["&&/redfish/v1/EventService/" + name]; }

  ServiceSettings settings_;
  LogCapture log_;
};

TEST_F(QueueInitTest, WhatIsEmptyIsFilledAndWhatIsThereStays) {
  ListAppend(redis(), "&&/redfish/v1/EventService/POSTACTIONQ", "waiting");
  for (const char* when : {"first start", "later start"}) {
    EXPECT_TRUE(InitQueues(redis(), settings_)) << when;
    EXPECT_EQ(At("PATCHQ"), "[&&/redfish/v1/EventService/CHANNEL]") << when;
    EXPECT_EQ(At("POSTACTIONQ"), "[waiting]") << when;
    EXPECT_EQ(At("SMTP"), "{&&Password=null}") << when;
    EXPECT_EQ(Dump()["/redfish/v1/EventService"], "{&&SensitiveData=SMTP/Password}") << when;
    EXPECT_EQ(At("ResourceTypes"), R"(["Event", "Odata", "Task"])") << when;
    EXPECT_EQ(At("RegistryPrefixes"), R"(["Base", Bare])") << when;
    ListAppend(redis(), kSchemas, "/redfish/v1/JsonSchemas/New");
    AddRegistry("New.json", "\"New\"");
  }
  EXPECT_EQ(log_.Errors(), std::vector<std::string>());
}

TEST_F(QueueInitTest, SmtpIsNotTouchedWhileOnlyRedfishIsServed) {
  settings_.protocolOnly = true;
  EXPECT_TRUE(InitQueues(redis(), settings_));
  EXPECT_EQ(At("SMTP"), "");
  EXPECT_FALSE(KeyExists(redis(), "/redfish/v1/EventService"));
}

TEST_F(QueueInitTest, OnlyExactlyFalseRemovesTheRegistryPrefixes) {
  for (const char* value : {"False", "", "false"}) {
    WriteFile(ProcessPaths().configuration, "EnableFilterRegistryPrefixes=" + std::string(value) + "\n");
    EXPECT_TRUE(InitQueues(redis(), settings_));
    EXPECT_EQ(At("RegistryPrefixes"), std::string_view(value) == "false" ? "" : R"(["Base", Bare])") << value;
  }
}

TEST_F(QueueInitTest, WithoutUsableSchemasThereAreNoResourceTypes) {
  KeyDelete(redis(), kSchemas);
  ListAppend(redis(), kSchemas, "/redfish/v1/JsonSchemas/redfish-schema.v1_9_0");
  EXPECT_FALSE(InitQueues(redis(), settings_));
  EXPECT_EQ(log_.Errors().front(), "Cannot find any defined ResourceTypes.");
}

TEST_F(QueueInitTest, TheFirstFailureEndsItBeforeAnythingLaterIsWritten) {
  const std::string discoveryFailed = "Failed to init ResourceTypes and RegistryPrefixes.";
  const struct {
    const char* failing;
    std::vector<std::string> errors;
    const char *written, *absent;
  } cases[] = {
      {"LLEN &&/redfish/v1/EventService/POSTACTIONQ",
       {"Failed to get &&/redfish/v1/EventService/POSTACTIONQ queue length."},
       "PATCHQ",
       "SMTP"},
      {"RPUSH &&/redfish/v1/EventService/PATCHQ", {"Failed to push queue."}, "POSTACTIONQ", "SMTP"},
      {"HSET &&/redfish/v1/EventService/SMTP",
       {"Failed to set SMTP/Password default setting."},
       "PATCHQ",
       "ResourceTypes"},
      {"LRANGE &&/redfish/v1/JsonSchemas/Members",
       {"Cannot get the list of schema.", discoveryFailed},
       "SMTP",
       "RegistryPrefixes"},
      {"KEYS /redfish/v1/schemas/registries/",
       {"Cannot find any defined RegistryPrefix.", discoveryFailed},
       "ResourceTypes",
       "RegistryPrefixes"},
  };
  TripCounter proxy(Server().SocketPath());
  for (const auto& row : cases) {
    SetUp();
    log_.Clear();
    proxy.Reset();
    proxy.FailCommandsWith(row.failing);
    EXPECT_FALSE(InitQueues(proxy.Connect().get(), settings_)) << row.failing;
    EXPECT_EQ(log_.Errors(), row.errors) << row.failing;
    EXPECT_NE(At(row.written), "") << row.failing;
    EXPECT_EQ(At(row.absent), "") << row.failing;
  }
}

}  // namespace
}  // namespace event_service
