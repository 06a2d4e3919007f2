#include "service/event_service_init.h"

#include <gtest/gtest.h>

#include <limits>

#include "service/event_group_id.h"
#include "service/members_count.h"
#include "service/queue_init.h"
#include "tests/service/start_up_sandbox.h"
#include "tests/support/canned_replies.h"

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
  void AddRegistry(const std::string& file, const char* prefix) {
    HashWrite(redis(), "/redfish/v1/schemas/registries/" + file, "RegistryPrefix", prefix);
  }
  bool Init(bool protocolOnly = false) {
    settings_ = ServiceSettings();
    settings_.protocolOnly = protocolOnly;
    state_ = SubscriptionsState();
    return InitQueues(redis(), settings_) && EventServiceInit(redis(), settings_, state_);
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
  AddRegistry("A.1.0.0.jSoN", "Bare");
  AddRegistry("NotJson.xml", "\"NotJson\"");
  HashWrite(redis(), "/redfish/v1/schemas/registries/Empty.json", "Id", "\"Empty\"");
  SendCommand(redis(), "SET /redfish/v1/schemas/registries/WrongType.json x");
  for (const char* queue : {"EventService/POSTACTIONQ", "EventDestination/PATCHQ"}) {
    SendCommand(redis(), "RPUSH &&/redfish/v1/%s %s waiting", queue, kSubscriptionsChannel.data());
  }
  for (const char* when : {"first start", "later start"}) {
    log_.Clear();
    ForgetMaxEventGroupId();
    ASSERT_TRUE(Init()) << when;
    EXPECT_EQ(settings_.sslSoftwareArg, "'openssl'");
    EXPECT_EQ(settings_.sslOptionArg, "'-tls1_2'");
    EXPECT_EQ(settings_.defaultRetryPolicy, "SuspendRetries");
    EXPECT_EQ(settings_.maxSubscriptionCount, 7);
    EXPECT_TRUE(settings_.subordinateResourcesSupported);
    EXPECT_FALSE(settings_.includeOriginOfConditionSupported) << "only exactly \"true\" counts";
    EXPECT_EQ(settings_.syslogCertificateNames, Texts{"known.pem"});
    EXPECT_EQ(settings_.allowedValues.at("ResourceTypes"), (Texts{"\"Event\"", "\"Odata\"", "\"Task\""}));
    EXPECT_EQ(settings_.allowedValues.at("RegistryPrefixes"), (Texts{"\"Base\"", "Bare"}));
    EXPECT_EQ(settings_.allowedValues.at("MessageIds"), (Texts{"\"Base.1.2.Success\"", "\"Base.1.8.Success\""}));
    EXPECT_EQ(state_.registryPrefixBits, (RegistryPrefixBits{{"Bare", 2}, {"Base", 1}}));
    DatabaseDump dump = Dump();
    EXPECT_EQ(dump["&&/redfish/v1/EventService/PATCHQ"], "[&&/redfish/v1/EventService/CHANNEL]");
    EXPECT_EQ(dump["&&/redfish/v1/EventService/POSTACTIONQ"], "[" + std::string(kSubscriptionsChannel) + ", waiting]");
    EXPECT_EQ(dump["&&/redfish/v1/EventDestination/PATCHQ"], "[waiting, " + std::string(kSubscriptionsChannel) + "]");
    EXPECT_EQ(dump["&&/redfish/v1/EventService/SMTP"], "{&&Password=null}");
    EXPECT_EQ(HashRead(redis(), kEventServiceUri, "&&SensitiveData"), "SMTP/Password");
    EXPECT_EQ(dump["map script runs"], when == std::string_view("first start") ? "1" : "2");
    ListAppend(redis(), kSchemas, "/redfish/v1/JsonSchemas/New");
    AddRegistry("New.json", "\"New\"");
  }
  EXPECT_EQ(log_.Errors(), Texts());
  CannedConnection gone("");
  EXPECT_EQ(MaxEventGroupId(gone.redis()), 99) << "known from the start, without a round trip";
}

TEST_F(EventServiceInitTest, WhatIsNotConfiguredHasItsDefault) {
  for (const std::string value : {"False", "", "false"}) {
    Configure("EnableFilterRegistryPrefixes=" + value + "\nDefaultRetryPolicy=Never\n");
    ASSERT_TRUE(Init(true));
    EXPECT_EQ(settings_.sslSoftwareArg, "''");
    EXPECT_EQ(settings_.sslOptionArg, "");
    EXPECT_EQ(settings_.defaultRetryPolicy, "TerminateAfterRetries");
    EXPECT_EQ(settings_.maxSubscriptionCount, 100);
    EXPECT_EQ(SupportsRegistryPrefixes(settings_), value != "false") << "only exactly \"false\" counts";
    EXPECT_EQ(state_.registryPrefixBits.empty(), value == "false");
    EXPECT_EQ(KeyExists(redis(), kRegistryPrefixesKey), value != "false");
  }
  EXPECT_FALSE(KeyExists(redis(), kSmtpKey)) << "only Redfish is served";
  EXPECT_FALSE(KeyExists(redis(), kEventServiceUri));
}

TEST_F(EventServiceInitTest, WithoutUsableSchemasThereAreNoResourceTypes) {
  KeyDelete(redis(), kSchemas);
  ListAppend(redis(), kSchemas, "/redfish/v1/JsonSchemas/redfish-schema.v1_9_0");
  EXPECT_FALSE(Init());
  EXPECT_EQ(log_.Errors().front(), "Cannot find any defined ResourceTypes.");
}

TEST_F(EventServiceInitTest, WithoutScriptOrLoaderTheSubscriptionsAreNotLoaded) {
  RemoveFile(ProcessPaths().startUpMapScript);
  EXPECT_FALSE(Init());
  const Texts errors = log_.Errors();
  ASSERT_GE(errors.size(), 2U);
  EXPECT_EQ(errors.end()[-2],
            "The script that initiates the mapping table of subscribed URI and event type doesn't exist.");
  HashFieldDelete(redis(), kCollection, "Members@odata.count");
  RemoveFile(ProcessPaths().databaseFile);
  RemoveFile(ProcessPaths().defaultDatabaseFile);
  EXPECT_FALSE(Init());
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
