#include "service/event_service_init.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "service/event_group_id.h"
#include "service/queue_init.h"
#include "tests/service/start_up_sandbox.h"
#include "tests/support/canned_replies.h"
#include "tests/support/trip_counter.h"

namespace event_service {
namespace {

TEST(SubscriptionLimit, OnlyANumberFromOneToTwoHundredCounts) {
  const struct {
    const char* text;
    int32_t limit;
  } cases[] = {{"200", 200},
               {"1", 1},
               {"99", 99},
               {"201", 100},
               {"0", 100},
               {"050", 100},
               {"-5", 100},
               {"+5", 100},
               {"abc", 100},
               {"12x", 100},
               {"", 100},
               {" 5", 100},
               {"99999999999999999999", 100}};
  for (const auto& row : cases) EXPECT_EQ(SubscriptionLimitFrom(row.text), row.limit) << row.text;
}

TEST(RetryPolicy, OnlyAnAllowedNameReplacesTheDefault) {
  const struct {
    const char* text;
    const char* policy;
  } cases[] = {{"RetryForever", "RetryForever"},
               {"\"SuspendRetries\"", "SuspendRetries"},
               {"retryforever", "TerminateAfterRetries"},
               {"\"\"RetryForever\"\"", "TerminateAfterRetries"},
               {"", "TerminateAfterRetries"}};
  for (const auto& row : cases) EXPECT_EQ(RetryPolicyFrom(row.text, StaticAllowedValues()), row.policy) << row.text;
}

TEST(RegistryPrefixBits, AreDoubledForEachPrefixAndEndAtTheLargestValue) {
  std::vector<std::string> texts = {"\"Base\"", "Bare", "Base", "\"Bare\""};
  for (int i = 4; i < 34; ++i) texts.push_back("\"P" + std::to_string(i) + '"');
  const RegistryPrefixBits bits = MakeRegistryPrefixBits({texts.begin(), texts.end()});
  EXPECT_EQ(bits.size(), 32U);
  EXPECT_EQ(bits.at("Base"), 1) << "the first value stays, with or without quotes";
  EXPECT_EQ(bits.at("Bare"), 2);
  EXPECT_EQ(bits.at("P4"), 16) << "the place in the list counts";
  EXPECT_EQ(bits.at("P30"), 1 << 30);
  EXPECT_EQ(bits.at("P31"), std::numeric_limits<int32_t>::max());
  EXPECT_EQ(bits.at("P33"), std::numeric_limits<int32_t>::max());
}

class EventServiceInitTest : public StartUpSandbox {
 protected:
  bool Init(redisContext* connection = nullptr) {
    settings_ = ServiceSettings();
    state_ = SubscriptionsState();
    redisContext* redisToUse = connection != nullptr ? connection : redis();
    return InitQueues(redisToUse, settings_) && EventServiceInit(redisToUse, settings_, state_);
  }

  ServiceSettings settings_;
  SubscriptionsState state_;
};

TEST_F(EventServiceInitTest, AStartFillsSettingsStateAndQueues) {
  Configure(
      "SSLSoftware=openssl\nSSLOption=-tls1_2\nDefaultRetryPolicy=SuspendRetries\nMaxCountOfEventSubscriptions=7\n");
  HashWrite(redis(), "/redfish/v1/EventService", "SubordinateResourcesSupported", "true");
  HashWrite(redis(), "/redfish/v1/EventService", "IncludeOriginOfConditionSupported", "True");
  for (const char* name : {"known.pem", "unknown.pem"}) WriteFile(ProcessPaths().syslogCertificates + name, "");
  WriteFile(ProcessPaths().systemCertificates + "known.pem", "");
  ListMember("A");
  ASSERT_TRUE(Init()) << "a first start";
  log_.Clear();
  ForgetMaxEventGroupId();

  ASSERT_TRUE(Init());
  EXPECT_EQ(log_.Errors(), std::vector<std::string>{});
  EXPECT_EQ(settings_.sslSoftwareArg, "'openssl'");
  EXPECT_EQ(settings_.sslOptionArg, "'-tls1_2'");
  EXPECT_EQ(settings_.defaultRetryPolicy, "SuspendRetries");
  EXPECT_EQ(settings_.maxSubscriptionCount, 7);
  EXPECT_TRUE(settings_.subordinateResourcesSupported);
  EXPECT_FALSE(settings_.includeOriginOfConditionSupported) << "only exactly \"true\" counts";
  EXPECT_EQ(settings_.syslogCertificateNames, std::vector<std::string>{"known.pem"});
  using Values = std::vector<std::string>;
  EXPECT_EQ(settings_.allowedValues.at("ResourceTypes"), (Values{"\"Event\"", "\"Task\""}));
  EXPECT_EQ(settings_.allowedValues.at("RegistryPrefixes"), (Values{"\"Base\"", "\"ResourceEvent\""}));
  EXPECT_EQ(settings_.allowedValues.at("MessageIds"),
            (Values{"\"Base.1.2.Success\"", "\"ResourceEvent.1.2.Success\""}));
  EXPECT_EQ(state_.registryPrefixBits, (RegistryPrefixBits{{"Base", 1}, {"ResourceEvent", 2}}));
  EXPECT_EQ(state_.subscriptionCount, 1U);
  EXPECT_EQ(HashRead(redis(), kCollection, "Members@odata.count"), "1");
  EXPECT_EQ(Dump()["map script runs"], "2");
  CannedConnection gone("");
  EXPECT_EQ(MaxEventGroupId(gone.redis()), 99) << "known from now on, without a round trip";
}

TEST_F(EventServiceInitTest, WhatIsNotConfiguredHasItsDefault) {
  Configure("EnableFilterRegistryPrefixes=false\nDefaultRetryPolicy=Never\n");
  ASSERT_TRUE(Init());
  EXPECT_EQ(settings_.sslSoftwareArg, "''");
  EXPECT_EQ(settings_.sslOptionArg, "");
  EXPECT_EQ(settings_.defaultRetryPolicy, "TerminateAfterRetries");
  EXPECT_EQ(settings_.maxSubscriptionCount, 100);
  EXPECT_TRUE(settings_.syslogCertificateNames.empty());
  EXPECT_TRUE(settings_.allowedValues.at("RegistryPrefixes").empty());
  EXPECT_FALSE(SupportsRegistryPrefixes(settings_));
  EXPECT_TRUE(state_.registryPrefixBits.empty());
}

TEST_F(EventServiceInitTest, EachQueueHoldsTheChannelOnceAtItsTailHoweverOftenTheServiceStarts) {
  const std::string channel = "&&/redfish/v1/EventService/Subscriptions/CHANNEL";
  ListAppend(redis(), "&&/redfish/v1/EventDestination/PATCHQ", channel);
  ListAppend(redis(), "&&/redfish/v1/EventDestination/PATCHQ", "waiting");
  ASSERT_TRUE(Init());
  ASSERT_TRUE(Init());
  DatabaseDump dump = Dump();
  EXPECT_EQ(dump["&&/redfish/v1/EventDestination/PATCHQ"], "[waiting, " + channel + "]");
  for (const char* queue :
       {"&&/redfish/v1/EventService/Subscriptions/POSTCREATEQ", "&&/redfish/v1/EventDestination/DELETEQ",
        "&&/redfish/v1/EventDestination/GETQ", "&&/redfish/v1/EventDestination/POSTACTIONQ"}) {
    EXPECT_EQ(dump[queue], "[" + channel + "]") << queue;
  }
}

TEST_F(EventServiceInitTest, AFailedStepEndsItBeforeTheNext) {
  const std::vector<std::string> chainFailed = {"Failed to load subscription db file."};
  const struct {
    std::string failing;
    std::vector<std::string> errors;
    std::string notReached;  // part of a command
  } cases[] = {
      {"LRANGE &&/redfish/v1/EventService/Subscriptions/Members", chainFailed, "HSET"},
      {"HSET /redfish/v1/EventService/Subscriptions/A &&CRUDprefix", chainFailed, "Members@odata.count"},
      {"LLEN &&/redfish/v1/EventService/Subscriptions/Members", chainFailed, "Members@odata.count"},
      {"HSET /redfish/v1/EventService/Subscriptions Members@odata.count", chainFailed, "EVAL"},
      {"LLEN &&/redfish/v1/EventDestination/GETQ",
       {"Failed to get &&/redfish/v1/EventDestination/GETQ queue length."},
       "LREM &&/redfish/v1/EventDestination/GETQ"},
      {"LREM &&/redfish/v1/EventDestination/DELETEQ",
       {"Failed to add channel of event destination to CRUD queue."},
       "no such command"},
      {"RPUSH &&/redfish/v1/EventDestination/GETQ",
       {"Failed to add channel of event destination to CRUD queue."},
       "no such command"},
  };
  ASSERT_TRUE(Init());
  ListMember("A");
  StoreMember("A", "Redfish", "RedfishEvent");
  TripCounter proxy(Server().SocketPath());
  for (const auto& row : cases) {
    const RedisContext connection = proxy.Connect();
    proxy.Reset();
    proxy.FailCommandsWith(row.failing);
    log_.Clear();
    settings_ = ServiceSettings();
    state_ = SubscriptionsState();
    EXPECT_FALSE(EventServiceInit(connection.get(), settings_, state_)) << row.failing;
    EXPECT_EQ(log_.Errors(), row.errors) << row.failing;
    for (const std::string& command : proxy.CommandTexts()) {
      EXPECT_EQ(command.find(row.notReached), std::string::npos) << row.failing << " then " << command;
    }
  }
}

TEST_F(EventServiceInitTest, WithoutLoaderOrScriptTheSubscriptionsAreNotLoaded) {
  RemoveFile(ProcessPaths().startUpMapScript);
  EXPECT_FALSE(Init());
  ASSERT_GE(log_.Errors().size(), 2U);
  EXPECT_EQ(*(log_.Errors().end() - 2),
            "The script that initiates the mapping table of subscribed URI and event type doesn't exist.");
  EXPECT_EQ(log_.Errors().back(), "Failed to load subscription db file.");

  log_.Clear();
  RemoveFile(ProcessPaths().databaseFile);
  RemoveFile(ProcessPaths().defaultDatabaseFile);
  EXPECT_FALSE(Init());
  EXPECT_EQ(log_.Errors().back(), "Failed to load subscription db file.");
  EXPECT_EQ(HashRead(redis(), kCollection, "Members@odata.count"), "0") << "of the first start";
}

}  // namespace
}  // namespace event_service
