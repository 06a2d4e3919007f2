#include "service/event_service_init.h"

#include <gtest/gtest.h>

#include <limits>

#include "service/event_group_id.h"
#include "service/members_count.h"
#include "service/queue_init.h"
#include "tests/service/start_up_sandbox.h"
#include "tests/support/canned_replies.h"
#include "tests/support/trip_counter.h"

namespace event_service {
namespace {

TEST(Configured, NumbersAndNamesOutsideTheirRangeLeaveTheDefault) {
  for (const char* text : {"1", "99", "200"}) EXPECT_EQ(SubscriptionLimitFrom(text), std::stoi(text));
  for (const char* text : {"201", "0", "050", "-5", "+5", "abc", "12x", "", " 5", "99999999999999999999"}) {
    EXPECT_EQ(SubscriptionLimitFrom(text), 100) << text;
  }
  EXPECT_EQ(RetryPolicyFrom("RetryForever", StaticAllowedValues()), "RetryForever");
  EXPECT_EQ(RetryPolicyFrom("\"SuspendRetries\"", StaticAllowedValues()), "SuspendRetries");
  for (const char* text : {"retryforever", "\"\"RetryForever\"\"", ""}) {
    EXPECT_EQ(RetryPolicyFrom(text, StaticAllowedValues()), "TerminateAfterRetries") << text;
  }
}

TEST(RegistryPrefixBits, AreDoubledForEachPrefixAndEndAtTheLargestValue) {
  std::vector<std::string> texts = {"\"Base\"", "Bare", "Base", "\"Bare\""};
  for (int i = 4; i < 34; ++i) texts.push_back("\"P" + std::to_string(i) + '"');
  const RegistryPrefixBits bits = MakeRegistryPrefixBits({texts.begin(), texts.end()});
  EXPECT_EQ(bits.size(), 32U);
  EXPECT_EQ(bits.at("Base"), 1) << "the first value stays, with or without quotes";
  EXPECT_EQ(bits.at("P4"), 16) << "the place in the list counts";
  EXPECT_EQ(bits.at("P30"), 1 << 30);
  EXPECT_EQ(bits.at("P31"), std::numeric_limits<int32_t>::max());
  EXPECT_EQ(bits.at("P33"), std::numeric_limits<int32_t>::max());
}

class EventServiceInitTest : public StartUpSandbox {
 protected:
  bool Init(redisContext* connection) {
    settings_ = ServiceSettings();
    state_ = SubscriptionsState();
    return InitQueues(connection, settings_) && EventServiceInit(connection, settings_, state_);
  }
  std::string PublishedCount() { return HashRead(redis(), kCollection, "Members@odata.count"); }
};

TEST_F(EventServiceInitTest, AStartFillsSettingsStateAndQueues) {
  Configure(
      "SSLSoftware=openssl\nSSLOption=-tls1_2\nDefaultRetryPolicy=SuspendRetries\nMaxCountOfEventSubscriptions=7\n");
  HashWrite(redis(), "/redfish/v1/EventService", "SubordinateResourcesSupported", "true");
  HashWrite(redis(), "/redfish/v1/EventService", "IncludeOriginOfConditionSupported", "True");
  for (const char* name : {"known.pem", "unknown.pem"}) WriteFile(ProcessPaths().syslogCertificates + name, "");
  WriteFile(ProcessPaths().systemCertificates + "known.pem", "");
  ListAppend(redis(), "&&/redfish/v1/EventDestination/PATCHQ", kSubscriptionsChannel);
  ListAppend(redis(), "&&/redfish/v1/EventDestination/PATCHQ", "waiting");
  ListMember("A");
  ASSERT_TRUE(Init(redis())) << "a first start";
  log_.Clear();
  ForgetMaxEventGroupId();

  ASSERT_TRUE(Init(redis()));
  EXPECT_EQ(log_.Errors(), Texts());
  EXPECT_EQ(settings_.sslSoftwareArg, "'openssl'");
  EXPECT_EQ(settings_.sslOptionArg, "'-tls1_2'");
  EXPECT_EQ(settings_.defaultRetryPolicy, "SuspendRetries");
  EXPECT_EQ(settings_.maxSubscriptionCount, 7);
  EXPECT_TRUE(settings_.subordinateResourcesSupported);
  EXPECT_FALSE(settings_.includeOriginOfConditionSupported) << "only exactly \"true\" counts";
  EXPECT_EQ(settings_.syslogCertificateNames, Texts{"known.pem"});
  EXPECT_EQ(settings_.allowedValues.at("ResourceTypes"), (Texts{"\"Event\"", "\"Task\""}));
  EXPECT_EQ(settings_.allowedValues.at("RegistryPrefixes"), (Texts{"\"Base\"", "\"ResourceEvent\""}));
  EXPECT_EQ(settings_.allowedValues.at("MessageIds"), (Texts{"\"Base.1.2.Success\"", "\"ResourceEvent.1.2.Success\""}));
  EXPECT_EQ(state_.registryPrefixBits, (RegistryPrefixBits{{"Base", 1}, {"ResourceEvent", 2}}));
  EXPECT_EQ(Dump()["map script runs"], "2");
  EXPECT_EQ(Dump()["&&/redfish/v1/EventDestination/PATCHQ"], "[waiting, " + std::string(kSubscriptionsChannel) + "]");
  CannedConnection gone("");
  EXPECT_EQ(MaxEventGroupId(gone.redis()), 99) << "known from now on, without a round trip";
}

TEST_F(EventServiceInitTest, WhatIsNotConfiguredHasItsDefault) {
  Configure("EnableFilterRegistryPrefixes=false\nDefaultRetryPolicy=Never\n");
  ASSERT_TRUE(Init(redis()));
  EXPECT_EQ(settings_.sslSoftwareArg, "''");
  EXPECT_EQ(settings_.sslOptionArg, "");
  EXPECT_EQ(settings_.defaultRetryPolicy, "TerminateAfterRetries");
  EXPECT_EQ(settings_.maxSubscriptionCount, 100);
  EXPECT_TRUE(settings_.allowedValues.at("RegistryPrefixes").empty());
  EXPECT_FALSE(SupportsRegistryPrefixes(settings_));
  EXPECT_TRUE(state_.registryPrefixBits.empty());
}

TEST_F(EventServiceInitTest, AFailedStepEndsItBeforeTheNext) {
  const Texts chainFailed = {"Failed to load subscription db file."};
  const Texts notAdded = {"Failed to add channel of event destination to CRUD queue."};
  const struct {
    const char* failing;
    Texts errors;
    const char* last;        // among the commands
    const char* notReached;  // part of a command
  } cases[] = {
      {"LRANGE &&/redfish/v1/EventService/Subscriptions/Members", chainFailed, "LRANGE", "HSET"},
      {"HSET /redfish/v1/EventService/Subscriptions/A &&CRUDprefix", chainFailed, "HMGET", "Members@odata.count"},
      {"LLEN &&/redfish/v1/EventService/Subscriptions/Members", chainFailed, "LLEN", "Members@odata.count"},
      {"HSET /redfish/v1/EventService/Subscriptions Members@odata.count", chainFailed, "Members@odata.count", "EVAL"},
      {"LLEN &&/redfish/v1/EventDestination/GETQ",
       {"Failed to get &&/redfish/v1/EventDestination/GETQ queue length."},
       "RPUSH &&/redfish/v1/EventDestination/DELETEQ",
       "LREM &&/redfish/v1/EventDestination/GETQ"},
      {"RPUSH &&/redfish/v1/EventDestination/GETQ", notAdded, "LREM", "no such command"},
      {"LREM &&/redfish/v1/EventDestination/DELETEQ", notAdded, "RPUSH", "no such command"},
  };
  ASSERT_TRUE(Init(redis()));
  ListMember("A");
  StoreMember("A", "Redfish", "RedfishEvent");
  TripCounter proxy(Server().SocketPath());
  for (const auto& row : cases) {
    const RedisContext connection = proxy.Connect();
    proxy.Reset();
    proxy.FailCommandsWith(row.failing);
    log_.Clear();
    state_ = SubscriptionsState();
    EXPECT_FALSE(EventServiceInit(connection.get(), settings_, state_)) << row.failing;
    EXPECT_EQ(log_.Errors(), row.errors) << row.failing;
    std::string commands;
    for (const std::string& command : proxy.CommandTexts()) commands += command + "\n";
    EXPECT_NE(commands.find(row.last), std::string::npos) << row.failing;
    EXPECT_EQ(commands.find(row.notReached), std::string::npos) << row.failing;
  }
}

TEST_F(EventServiceInitTest, WithoutScriptOrLoaderTheSubscriptionsAreNotLoaded) {
  RemoveFile(ProcessPaths().startUpMapScript);
  EXPECT_FALSE(Init(redis()));
  const Texts errors = log_.Errors();
  ASSERT_GE(errors.size(), 2U);
  EXPECT_EQ(errors.end()[-2],
            "The script that initiates the mapping table of subscribed URI and event type doesn't exist.");
  HashFieldDelete(redis(), kCollection, "Members@odata.count");
  RemoveFile(ProcessPaths().databaseFile);
  RemoveFile(ProcessPaths().defaultDatabaseFile);
  EXPECT_FALSE(Init(redis()));
  EXPECT_EQ(log_.Errors().back(), "Failed to load subscription db file.");
  EXPECT_EQ(PublishedCount(), "");
}

TEST_F(EventServiceInitTest, TheMembersLengthIsPublishedAndTheCountInMemoryMovesByTheDelta) {
  for (const char* id : {"A", "B"}) ListMember(id);
  const struct {
    uint32_t before;
    int32_t delta;
    uint32_t after;
  } cases[] = {{9, 0, 2}, {9, 1, 10}, {9, -3, 6}, {1, -3, 0}};
  for (const auto& row : cases) {
    state_.subscriptionCount = row.before;
    EXPECT_TRUE(UpdateMembersCount(redis(), state_, row.delta)) << row.delta;
    EXPECT_EQ(state_.subscriptionCount, row.after) << row.delta;
    EXPECT_EQ(PublishedCount(), "2");
  }
  state_.subscriptionCount = 5;
  for (const char* key : {kMembers, kCollection}) {
    SendCommand(redis(), "FLUSHALL");
    SendCommand(redis(), "SET %s wrong-type", key);
    EXPECT_FALSE(UpdateMembersCount(redis(), state_, 0)) << key;
    EXPECT_EQ(state_.subscriptionCount, 5U) << key;
  }
}

}  // namespace
}  // namespace event_service
