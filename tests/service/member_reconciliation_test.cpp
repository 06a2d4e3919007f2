#include "service/member_reconciliation.h"

#include <gtest/gtest.h>

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
  static Texts IdsInFile() {
    Texts ids;
    const nlohmann::json file = DecryptedFile();
    for (const auto& member : file["Members"]) ids.push_back(member.value("Id", ""));
    return ids;
  }
};

TEST_F(MemberReconciliationTest, EveryNamedMemberIsTakenInWhateverFormItIsNamed) {
  for (const char* id : {"A", "B"}) StoreMember(id, "SyslogTLS", "Syslog");
  StoreMember("C", "SyslogTCP", "Syslog");
  for (const char* id : {"A", "A", "C"}) ListMember(id);
  ListAppend(redis(), kMembers, UriOf("B"));
  for (const char* garbage : {"", "&&ObjectRef", "/redfish/v1/Other/1", "/redfish/v1/EventService/Subscriptions/"}) {
    ListAppend(redis(), kMembers, garbage);
  }
  ASSERT_TRUE(Start());
  for (const char* id : {"A", "B", "C"}) {
    EXPECT_EQ(HashRead(redis(), UriOf(id), "&&CRUDprefix"), "&&/redfish/v1/EventDestination") << id;
  }
  EXPECT_FALSE(KeyExists(redis(), "/redfish/v1/Other/1"));
  EXPECT_EQ(state_.syslogTlsDestinationIds, (Texts{"A", "B"}));
  EXPECT_EQ(state_.subscriptionCount, 8U) << "the list's length";
}

TEST_F(MemberReconciliationTest, MembersThatOnlyRedisHoldsAreWrittenBackButNotSseNorHalfOnes) {
  WriteFile(ProcessPaths().defaultDatabaseFile,
            R"({"Members": [{"@odata.id": "/redfish/v1/EventService/Subscriptions/InFile", "Id": "InFile"}]})");
  StoreMember("InFile", "Redfish", "RedfishEvent");
  StoreMember("Lost", "SyslogTCP", "Syslog");
  StoreMember("Stream", "Redfish", "SSE");
  HashWrite(redis(), UriOf("NoDestination"), "Protocol", "\"Redfish\"");
  for (const char* id : {"InFile", "Lost", "Stream", "NoDestination", "Nowhere"}) ListMember(id);
  for (const char* when : {"first start", "later start"}) {
    ASSERT_TRUE(Start());
    EXPECT_EQ(IdsInFile(), (Texts{"InFile", "Lost"})) << when;
  }
  const nlohmann::json lost = DecryptedFile()["Members"][1];
  EXPECT_EQ(lost["Status"]["State"], "Enabled");
  EXPECT_EQ(lost["&&Privileges"], "ConfigureManager");
}

TEST_F(MemberReconciliationTest, OnlyWhatACreationLeftUnfinishedIsRemoved) {
  for (const char* id : {"Half", "Named", "Complete"}) StoreMember(id, "Redfish", "RedfishEvent");
  ListAppend(redis(), "&&" + UriOf("Half") + "/MessageIds", "\"left without a marker\"");
  ListMember("Named");
  HashWrite(redis(), UriOf("Complete"), "&&CRUDprefix", "&&/redfish/v1/EventDestination");
  HashWrite(redis(), UriOf("Foreign"), "Protocol", "\"Redfish\"");
  SendArguments(redis(), {"SET", UriOf("NoHash"), "x"});
  HashWrite(redis(), UriOf("Named/Below"), "&&PATCHValidation", "x");
  const DatabaseDump before = Dump();
  ASSERT_TRUE(Start());
  const DatabaseDump after = Dump();
  for (const auto& [key, value] : before) {
    EXPECT_EQ(after.contains(key), key.find("Half") == std::string::npos) << key;
  }
}

TEST_F(MemberReconciliationTest, OtherProtocolsAreLeftAloneWhileOnlyRedfishIsServed) {
  for (const char* id : {"Mail", "HalfMail"}) StoreMember(id, "SMTP", "RedfishEvent");
  StoreMember("Web", "Redfish", "RedfishEvent");
  for (const char* id : {"Mail", "Web"}) ListMember(id);
  ASSERT_TRUE(Start(true));
  EXPECT_EQ(IdsInFile(), Texts{"Web"});
  EXPECT_TRUE(KeyExists(redis(), UriOf("HalfMail")));
  EXPECT_EQ(HashRead(redis(), UriOf("Mail"), "&&CRUDprefix"), "&&/redfish/v1/EventDestination");
}

}  // namespace
}  // namespace event_service
