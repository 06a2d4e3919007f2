#include <sys/stat.h>

#include "tests/subscription_db/db_sandbox.h"

namespace event_service {
namespace {

using DbMembersTest = DbSandboxTest;
using Names = std::vector<std::string>;

constexpr const char* kDecode =
    "/usr/bin/openssl enc -d -aes-256-cbc  -in /var/nginx/EventSubscriptionInfo.json -out "
    "/var/nginx/EventSubscriptionInfo.tmp.json -pass fd:N && chmod 600 /var/nginx/EventSubscriptionInfo.tmp.json";
constexpr const char* kEncode =
    "/usr/bin/openssl enc -aes-256-cbc  -in /var/nginx/EventSubscriptionInfo.tmp.json -out "
    "/var/nginx/EventSubscriptionInfo.json -pass fd:N && chmod 600 /var/nginx/EventSubscriptionInfo.json";
constexpr const char* kRemove = "rm -f /var/nginx/EventSubscriptionInfo.tmp.json";

TEST_F(DbMembersTest, AChangeRunsFourCommandsOnPrivateFilesAndLeavesTheEncryptedOne) {
  LayOut("D=A");
  const mode_t umaskBefore = umask(022);
  std::vector<unsigned> modes;
  beforeCommand_ = [&](const std::string&) {
    for (const std::string& path : {Paths().plainDatabaseFile, Paths().databaseFile}) modes.push_back(ModeOf(path));
    return std::nullopt;
  };
  EXPECT_TRUE(NewDb().InsertDbSubscription("B", MemberOf("B").dump(), "Login", kEtagText));
  umask(umaskBefore);

  EXPECT_EQ(commands_, (Names{kDecode, kRemove, kEncode, kRemove}));
  EXPECT_EQ(modes, std::vector<unsigned>(8, 0600));  // both files before every command
  EXPECT_EQ(FileNames(), (Names{"EventSubscriptionInfo.json", "subscription_db.key"}));
  Json expected = DocumentOf("AB");
  expected["@odata.etag"] = "\"ABC\"";
  EXPECT_EQ(Stored(), expected);
  EXPECT_EQ(log_.Errors(), Names{});
}

TEST_F(DbMembersTest, DeletingTakesTheFirstWithThatUriAndAMissingOneIsNoFailure) {
  Json document = DocumentOf("ABB");
  document["Members"][0].erase("@odata.id");
  StoreText(Paths(), document.dump());
  log_.Clear();
  EXPECT_TRUE(NewDb().DeleteDbSubscription(kUris + "B", kEtagText));
  EXPECT_TRUE(NewDb().DeleteDbSubscription(kUris + "C", "W/raw"));
  EXPECT_EQ(StoredIds(), "AB");
  EXPECT_EQ(Stored()["@odata.etag"], "W/raw");
  EXPECT_TRUE(NewDb().DeleteDbSubscription(kUris + "B", "\xff\xfe"));
  EXPECT_EQ(StoredIds(), "A");  // written all the same
  const std::string noUri = "Failed to get @odata.id";
  EXPECT_EQ(log_.Errors(), (Names{noUri, noUri, noUri, "Failed to set etag into db file."}));
}

TEST_F(DbMembersTest, AnUpdateMergesObjectsReplacesTheRestAndTakesOutWhatIsNamed) {
  LayOut("D=AB");
  const Json changes = Json::parse(R"({
    "Context": null, "Status": {"State": "Disabled"}, "SNMP": {"TrapCommunity": "EF56"}, "HttpHeaders": []})");
  EXPECT_TRUE(NewDb().UpdateDbSubscription(kUris + "B", changes, {"SNMP/AuthenticationKey", "No/Such"}, R"("\"0\"")"));
  Json expected = DocumentOf("AB");
  expected["Members"][1].update(changes);
  expected["Members"][1]["SNMP"] = {{"AuthenticationKeySet", true}, {"TrapCommunity", "EF56"}};
  EXPECT_EQ(Stored(), expected);
}

TEST_F(DbMembersTest, SeveralMembersAreWrittenBackInOneChange) {
  LayOut("D=AB");
  Json outside = MemberOf("C");
  outside["@odata.id"] = kUris + "C/D";
  const std::vector<Json> members = {MemberOf("D"), outside, MemberOf("A", "new"), MemberOf("a blank"), Json(5)};
  EXPECT_FALSE(NewDb().WriteBackDbSubscriptions(members, kEtagText));
  EXPECT_EQ(commands_.size(), 4U);
  EXPECT_EQ(StoredIds(), "BDA");  // in the place of the older A
  EXPECT_EQ(Stored()["Members"][2]["Context"], "new");
  Names errors;
  for (const std::string& uri : {kUris + "C/D", kUris + "a blank", std::string()}) {
    errors.push_back("The DB file cannot hold a subscription with the URI \"" + uri + "\".");
  }
  EXPECT_EQ(log_.Errors(), errors);
  EXPECT_TRUE(NewDb().WriteBackDbSubscriptions({}, kEtagText));
  EXPECT_EQ(commands_.size(), 4U);
}

TEST_F(DbMembersTest, ARefusedChangeIsSaidAndLeavesTheFileAsItIs) {
  using Change = std::function<bool(SubscriptionDb&)>;
  const auto insert = [](std::string text) -> Change {
    return [text](SubscriptionDb& db) { return db.InsertDbSubscription("B", text, "", ""); };
  };
  const Change remove = [](SubscriptionDb& db) { return db.DeleteDbSubscription(kUris + "A", ""); };
  const Change update = [](SubscriptionDb& db) { return db.UpdateDbSubscription(kUris + "C", Json::object(), {}, ""); };
  const Change etag = [](SubscriptionDb& db) { return db.RefreshDbEtag(""); };
  const std::string noDocument = "Cannot load database from file.";
  const std::string noMembers = "Failed to get \"Members\" array from DB file";
  const std::string noDecode = "Failed to decode the DB file " + Paths().databaseFile + " by " + Paths().openssl;
  const std::string empty = "Subscription B is empty.";
  const std::string whole = DocumentOf("A").dump();
  const struct {
    std::string plainText;  // empty: an empty database file
    Change change;
    Names errors;
  } cases[] = {
      {"", insert("{}"), {"DB root object is empty."}},
      {"", remove, {noDocument}},
      {"", etag, {noDocument}},
      {"cut {", insert("{}"), {"DB root object is empty."}},  // decrypts, but is no document
      {"[]", update, {noDocument}},
      {"{}", insert("{}"), {"Subscription DB file lack of \"Members\" field."}},
      {"{}", remove, {noMembers}},
      {R"({"Members": 1})", update, {noMembers}},
      {"damaged", remove, {noDecode, noDocument}},
      {whole, update, {"Failed to update the subscription " + kUris + "C in the DB file."}},
      {whole, insert(""), {empty}},
      {whole, insert("5"), {empty}},
      {whole, insert("{} {}"), {empty}},
      {whole, insert(R"({"@odata.id": "\u0000"})"), {empty}},
      {whole, insert("{}"), {"The DB file cannot hold a subscription with the URI \"\"."}},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    const auto& row = cases[i];
    StoreText(Paths(), row.plainText.empty() ? "{}" : row.plainText);
    if (row.plainText.empty()) WriteFile(Paths().databaseFile, "");
    if (row.plainText == "damaged") WriteFile(Paths().databaseFile, "Salted__");
    const std::string before = ReadFile(Paths().databaseFile);
    log_.Clear();
    SubscriptionDb db = NewDb();
    EXPECT_FALSE(row.change(db)) << "row " << i;
    EXPECT_EQ(log_.Errors(), row.errors) << "row " << i;
    EXPECT_EQ(ReadFile(Paths().databaseFile), before) << "row " << i;
    EXPECT_FALSE(FileExists(Paths().plainDatabaseFile)) << "row " << i;
    EXPECT_TRUE(waits_.empty()) << "row " << i;
  }
}

TEST_F(DbMembersTest, AfterAFailedEncryptionThePlainFileIsEncryptedBeforeAnythingElse) {
  LayOut("D=A");
  SubscriptionDb db = NewDb();
  size_t failures = 2;
  beforeCommand_ = [&](const std::string& command) -> std::optional<int> {
    if (Neutral(command) != kEncode || failures == 0) return std::nullopt;
    --failures;
    WriteFile(Paths().databaseFile, "Salted__ and no more");  // as a full disk leaves it
    return -1;
  };
  EXPECT_FALSE(db.InsertDbSubscription("B", MemberOf("B").dump(), "Login", kEtagText));
  EXPECT_FALSE(db.InsertDbSubscription("C", MemberOf("C").dump(), "Login", kEtagText));
  const std::string encode = "Failed to encode the file " + Paths().plainDatabaseFile + " by " + Paths().openssl;
  EXPECT_EQ(log_.Errors(), (Names{encode, "Failed to dump db file.", encode, "DB root object is empty."}));
  EXPECT_TRUE(db.DeleteDbSubscription(kUris + "A", kEtagText));
  EXPECT_EQ(commands_,
            (Names{kDecode, kRemove, kEncode, kEncode, kEncode, kRemove, kDecode, kRemove, kEncode, kRemove}));
  EXPECT_EQ(StoredIds(), "BC");  // nothing of what failed is lost
}

}  // namespace
}  // namespace event_service
