#include "service/member_reconciliation.h"

#include "service/members_count.h"
#include "tests/service/start_up_sandbox.h"

namespace event_service {
namespace {

class MemberReconciliationTest : public StartUpSandbox {
 protected:
  static std::string UriOf(const std::string& id) { return std::string(kCollection) + "/" + id; }

  /// A stored subscription as a creation leaves it, but for the entry in the collection.
  void Store(const std::string& id, const std::string& protocol = "Redfish", const std::string& type = "RedfishEvent") {
    Json member = Json::parse(R"({"Destination": "https://collector/", "Status": {"State": "Enabled"},
                                  "&&Privileges": "ConfigureManager", "&&PATCHValidation": "v_EventDestination.json"})");
    member.update({{"@odata.id", UriOf(id)}, {"Id", id}, {"Protocol", protocol}, {"SubscriptionType", type}});
    ASSERT_TRUE(WriteResource(redis(), UriOf(id), member));
  }
  void List(const Texts& ids) {
    for (const std::string& id : ids) ListAppend(redis(), kSubscriptionsMembersKey, "&&ObjectRef &&" + UriOf(id));
  }

  /// What one more start finds in the database file.
  Json MembersInFile() {
    const std::string loader = ProcessPaths().resourceLoader;
    WriteFile(loader, "#!/bin/sh\ncp $2 $0.loaded\n");
    EXPECT_EQ(Start(), 0);
    return Json::parse(ReadFile(loader + ".loaded"), nullptr, false)["Members"];
  }
};

TEST_F(MemberReconciliationTest, EveryNamedMemberIsTakenInWhateverFormItIsNamed) {
  for (const char* id : {"A", "B"}) Store(id, "SyslogTLS", "Syslog");
  List({"A", "A", "", "Nowhere"});
  HashWrite(redis(), UriOf("Begun"), "&&AllowMethod", "GET,HEAD,PATCH,DELETE");  // as far as a creation came
  for (const std::string& entry : {UriOf("B"), UriOf("B/C")}) ListAppend(redis(), kSubscriptionsMembersKey, entry);
  EXPECT_EQ(Start(), 0);
  for (const char* id : {"A", "B"}) EXPECT_EQ(HashRead(redis(), UriOf(id), kCrudPrefixField), kEventDestinationPrefix);
  for (const char* id : {"B/C", "Nowhere", "Begun"}) EXPECT_FALSE(KeyExists(redis(), UriOf(id))) << id;
  EXPECT_EQ(state_.syslogTlsDestinationIds, (Texts{"A", "B"}));
  EXPECT_EQ(state_.subscriptionCount, 6U) << "the list's length";
  state_.subscriptionCount = 10;
  EXPECT_TRUE(UpdateMembersCount(redis(), state_, -3));
  EXPECT_EQ(state_.subscriptionCount, 7U) << "in memory it moves by the change alone";
  EXPECT_EQ(HashRead(redis(), kSubscriptionsUri, "Members@odata.count"), "6");
}

TEST_F(MemberReconciliationTest, MembersThatOnlyRedisHoldsAreWrittenBackButNotSseNorHalfOnes) {
  const Json inFile = {{"@odata.id", UriOf("InFile")}, {"Id", "InFile"}};
  WriteFile(ProcessPaths().defaultDatabaseFile, Json{{"Members", {inFile}}}.dump());
  for (const char* id : {"InFile", "Lost"}) Store(id);
  Store("Stream", "Redfish", "SSE");
  HashWrite(redis(), UriOf("NoDestination"), "Protocol", "\"Redfish\"");
  List({"InFile", "Lost", "Stream", "NoDestination", "Nowhere"});
  EXPECT_EQ(Start(), 0);
  state_.scatteredUris = state_.halfChangedUris = {UriOf("Gone"), UriOf("InFile"), UriOf("Stream")};
  EXPECT_TRUE(ReconcileMembers(redis(), settings_, state_)) << "again, as after a reconnection";
  EXPECT_TRUE(state_.scatteredUris.size() == 1 && state_.scatteredUris.contains(UriOf("Stream")));
  EXPECT_EQ(state_.halfChangedUris, state_.scatteredUris) << "the file has not put it right";
  for (const char* when : {"first start", "later start"}) {
    const std::string etag = HashRead(redis(), kSubscriptionsUri, "@odata.etag");
    const Json members = MembersInFile();
    EXPECT_NE(HashRead(redis(), kSubscriptionsUri, "@odata.etag"), etag) << "the stream is not in the file";
    ASSERT_EQ(members.size(), 2U) << when << members;
    EXPECT_EQ(members[0], inFile);
    EXPECT_EQ(members[1]["Status"]["State"], "Enabled");
    EXPECT_EQ(members[1]["&&Privileges"], "ConfigureManager");
  }
}

TEST_F(MemberReconciliationTest, OnlyWhatOurRequestsLeftUnfinishedIsRemovedAndOtherServicesMembersAreLeftAlone) {
  for (const char* id : {"HalfCreated", "HalfDeleted", "Named", "Theirs"}) Store(id);
  for (const char* id : {"Mail", "Unfinished"}) Store(id, "SMTP");
  ListAppend(redis(), "&&" + UriOf("HalfCreated") + "/MessageIds", "\"left without a marker\"");
  const std::string leftover = std::string(kGenerationPrefix) + "7/RequestData";  // of a start that was killed
  HashWrite(redis(), leftover, "Destination", "\"https://Half/\"");
  List({"Named", "Mail"});
  HashWrite(redis(), UriOf("HalfDeleted"), kCrudPrefixField, kEventDestinationPrefix);
  HashWrite(redis(), UriOf("Mail"), kCrudPrefixField, "its own");
  HashWrite(redis(), UriOf("Theirs"), kCrudPrefixField, "&&/redfish/v1/OtherDestination");
  HashWrite(redis(), UriOf("Foreign"), "Protocol", "\"Redfish\"");
  SendArguments(redis(), {"SET", UriOf("NoHash"), "x"});
  HashWrite(redis(), UriOf("Named/Below"), "&&PATCHValidation", "x");
  const DatabaseDump before = Dump();
  EXPECT_EQ(Start("SupportRedfishProtocolOnly=true\n"), 0);
  for (const auto& [key, value] : before) {
    const bool goes = key.find("Half") != std::string::npos || key == leftover;
    EXPECT_EQ(KeyExists(redis(), key), !goes) << key;
  }
  EXPECT_EQ(HashRead(redis(), UriOf("Mail"), kCrudPrefixField), "its own");
  EXPECT_EQ(HashRead(redis(), UriOf("Named"), kCrudPrefixField), kEventDestinationPrefix);
  EXPECT_EQ(MembersInFile().size(), 1U);
}

}  // namespace
}  // namespace event_service
