#include "service/member_reconciliation.h"

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

  /// The members of the database file, decrypted as an operator would do it.
  static Json MembersInFile() {
    const FilePaths& paths = ProcessPaths();
    const std::string plain = Sandbox().Root() + "/decrypted.json";
    const std::string command = paths.openssl + " enc -d -aes-256-cbc -in " + paths.databaseFile + " -out " + plain +
                                " -k $(head -n 1 " + paths.passwordFile + ") 2>/dev/null";
    EXPECT_EQ(std::system(command.c_str()), 0);
    return Json::parse(ReadFile(plain), nullptr, false)["Members"];
  }
};

TEST_F(MemberReconciliationTest, EveryNamedMemberIsTakenInWhateverFormItIsNamed) {
  for (const char* id : {"A", "B"}) Store(id, "SyslogTLS", "Syslog");
  List({"A", "A"});
  for (const std::string& entry : Texts{UriOf("B"), "", "/redfish/v1/Other/1", UriOf("")}) {
    ListAppend(redis(), kSubscriptionsMembersKey, entry);
  }
  EXPECT_EQ(Start(), 0);
  for (const char* id : {"A", "B"}) EXPECT_EQ(HashRead(redis(), UriOf(id), kCrudPrefixField), kEventDestinationPrefix);
  EXPECT_FALSE(KeyExists(redis(), "/redfish/v1/Other/1"));
  EXPECT_EQ(state_.syslogTlsDestinationIds, (Texts{"A", "B"}));
  EXPECT_EQ(state_.subscriptionCount, 6U) << "the list's length";
  EXPECT_EQ(HashRead(redis(), kSubscriptionsUri, "Members@odata.count"), "6");
}

TEST_F(MemberReconciliationTest, MembersThatOnlyRedisHoldsAreWrittenBackButNotSseNorHalfOnes) {
  const Json inFile = {{"@odata.id", UriOf("InFile")}, {"Id", "InFile"}};
  WriteFile(ProcessPaths().defaultDatabaseFile, Json{{"Members", {inFile}}}.dump());
  Store("InFile");
  Store("Lost", "SyslogTCP", "Syslog");
  Store("Stream", "Redfish", "SSE");
  HashWrite(redis(), UriOf("NoDestination"), "Protocol", "\"Redfish\"");
  List({"InFile", "Lost", "Stream", "NoDestination", "Nowhere"});
  for (const char* when : {"first start", "later start"}) {
    EXPECT_EQ(Start(), 0);
    const Json members = MembersInFile();
    ASSERT_EQ(members.size(), 2U) << when << members;
    EXPECT_EQ(members[0], inFile);
    EXPECT_EQ(members[1]["Status"]["State"], "Enabled");
    EXPECT_EQ(members[1]["&&Privileges"], "ConfigureManager");
  }
}

TEST_F(MemberReconciliationTest, OnlyWhatACreationLeftUnfinishedIsRemovedAndOtherServicesMembersAreLeftAlone) {
  for (const char* id : {"Half", "Named", "Complete"}) Store(id);
  for (const char* id : {"Mail", "Unfinished"}) Store(id, "SMTP");
  ListAppend(redis(), "&&" + UriOf("Half") + "/MessageIds", "\"left without a marker\"");
  List({"Named", "Mail"});
  HashWrite(redis(), UriOf("Complete"), kCrudPrefixField, kEventDestinationPrefix);
  HashWrite(redis(), UriOf("Foreign"), "Protocol", "\"Redfish\"");
  SendArguments(redis(), {"SET", UriOf("NoHash"), "x"});
  HashWrite(redis(), UriOf("Named/Below"), "&&PATCHValidation", "x");
  const DatabaseDump before = Dump();
  EXPECT_EQ(Start("SupportRedfishProtocolOnly=true\n"), 0);
  for (const auto& [key, value] : before) {
    EXPECT_EQ(KeyExists(redis(), key), key.find("Half") == std::string::npos) << key;
  }
  EXPECT_EQ(MembersInFile().size(), 1U);
  EXPECT_EQ(HashRead(redis(), UriOf("Mail"), kCrudPrefixField), kEventDestinationPrefix);
}

}  // namespace
}  // namespace event_service
