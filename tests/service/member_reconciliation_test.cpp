#include "service/member_reconciliation.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "service/event_service_init.h"
#include "tests/service/start_up_sandbox.h"

namespace event_service {
namespace {

class MemberReconciliationTest : public StartUpSandbox {
 protected:
  bool Start(bool protocolOnly = false) {
    settings_ = ServiceSettings();
    settings_.protocolOnly = protocolOnly;
    state_ = SubscriptionsState();
    return EventServiceInit(redis(), settings_, state_);
  }
  static std::vector<std::string> IdsInFile() {
    std::vector<std::string> ids;
    const nlohmann::json file = DecryptedFile();
    for (const auto& member : file["Members"]) ids.push_back(member.value("Id", ""));
    return ids;
  }

  ServiceSettings settings_;
  SubscriptionsState state_;
};

TEST_F(MemberReconciliationTest, EveryNamedMemberGetsItsPrefixInWhateverFormItIsNamed) {
  for (const char* id : {"A", "B"}) StoreMember(id, "Redfish", "RedfishEvent");
  ListMember("A");
  ListMember("A");
  ListAppend(redis(), kMembers, UriOf("B"));
  for (const char* garbage : {"", "&&ObjectRef", "/redfish/v1/Other/1", "/redfish/v1/EventService/Subscriptions/"}) {
    ListAppend(redis(), kMembers, garbage);
  }
  ASSERT_TRUE(Start());
  for (const char* id : {"A", "B"}) {
    EXPECT_EQ(HashRead(redis(), UriOf(id), "&&CRUDprefix"), "&&/redfish/v1/EventDestination") << id;
  }
  EXPECT_FALSE(KeyExists(redis(), "/redfish/v1/Other/1"));
}

TEST_F(MemberReconciliationTest, MembersThatOnlyRedisHoldsAreWrittenBackButNotSseNorHalfOnes) {
  WriteFile(ProcessPaths().defaultDatabaseFile,
            R"({"Members": [{"@odata.id": "/redfish/v1/EventService/Subscriptions/InFile", "Id": "InFile"}]})");
  StoreMember("InFile", "Redfish", "RedfishEvent");
  StoreMember("Lost", "SyslogTCP", "Syslog");
  StoreMember("Stream", "Redfish", "SSE");
  HashWrite(redis(), UriOf("NoDestination"), "Protocol", "\"Redfish\"");
  for (const char* id : {"InFile", "Lost", "Stream", "NoDestination", "Nowhere"}) ListMember(id);

  ASSERT_TRUE(Start());
  EXPECT_EQ(IdsInFile(), (std::vector<std::string>{"InFile", "Lost"}));
  const nlohmann::json lost = DecryptedFile()["Members"][1];
  EXPECT_EQ(lost["Status"]["State"], "Enabled");
  EXPECT_EQ(lost["&&Privileges"], "ConfigureManager");

  ASSERT_TRUE(Start());
  EXPECT_EQ(IdsInFile(), (std::vector<std::string>{"InFile", "Lost"})) << "once is enough";
}

TEST_F(MemberReconciliationTest, OnlyWhatACreationLeftUnfinishedIsRemoved) {
  StoreMember("Half", "Redfish", "RedfishEvent");
  ListAppend(redis(), "&&" + UriOf("Half") + "/MessageIds", "\"left without a marker\"");
  StoreMember("Named", "Redfish", "RedfishEvent");
  ListMember("Named");
  StoreMember("Complete", "Redfish", "RedfishEvent");
  HashWrite(redis(), UriOf("Complete"), "&&CRUDprefix", "&&/redfish/v1/EventDestination");
  HashWrite(redis(), UriOf("Foreign"), "Protocol", "\"Redfish\"");
  SendArguments(redis(), {"SET", UriOf("NoHash"), "x"});
  SendArguments(redis(), {"HSET", UriOf("Named/Below"), "&&PATCHValidation", "x"});
  const DatabaseDump before = Dump();

  ASSERT_TRUE(Start());
  DatabaseDump after = Dump();
  for (const auto& [key, value] : before) {
    EXPECT_EQ(after.contains(key), key.find("Half") == std::string::npos) << key;
  }
}

TEST_F(MemberReconciliationTest, OtherProtocolsAreLeftAloneWhileOnlyRedfishIsServed) {
  StoreMember("Mail", "SMTP", "RedfishEvent");
  StoreMember("Web", "Redfish", "RedfishEvent");
  ListMember("Mail");
  ListMember("Web");
  StoreMember("HalfMail", "SMTP", "RedfishEvent");
  ASSERT_TRUE(Start(true));
  EXPECT_EQ(IdsInFile(), std::vector<std::string>{"Web"});
  EXPECT_TRUE(KeyExists(redis(), UriOf("HalfMail")));
  EXPECT_EQ(HashRead(redis(), UriOf("Mail"), "&&CRUDprefix"), "&&/redfish/v1/EventDestination");
}

TEST_F(MemberReconciliationTest, TheSyslogTlsIdsAreThoseOfTheMembers) {
  for (const char* id : {"T1", "T2", "T3", "T4"}) {
    StoreMember(id, "SyslogTLS", "Syslog");
    ListMember(id);
  }
  StoreMember("Tcp", "SyslogTCP", "Syslog");
  ListMember("Tcp");
  ASSERT_TRUE(Start());
  EXPECT_EQ(state_.syslogTlsDestinationIds, (std::vector<std::string>{"T1", "T2", "T3", "T4"}));
  EXPECT_EQ(state_.subscriptionCount, 5U);
}

}  // namespace
}  // namespace event_service
