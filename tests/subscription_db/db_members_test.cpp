#include <sys/stat.h>

#include <filesystem>

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
  Store({"A"});
  const mode_t umaskBefore = umask(022);
  std::vector<unsigned> modes;
  beforeCommand_ = [&](const std::string&) -> std::optional<int> {
    for (const std::string& path : {Paths().plainDatabaseFile, Paths().databaseFile}) {
      if (FileExists(path)) modes.push_back(ModeOf(path));
    }
    return std::nullopt;
  };
  EXPECT_TRUE(NewDb().InsertDbSubscription("B", MemberOf("B").dump(), "Login", kEtagText));
  umask(umaskBefore);

  EXPECT_EQ(commands_, (Names{kDecode, kRemove, kEncode, kRemove}));
  EXPECT_EQ(modes, std::vector<unsigned>(8, 0600));  // both files before every command
  EXPECT_EQ(FileNames(), (Names{"EventSubscriptionInfo.json", "subscription_db.key"}));
  Json expected = DocumentOf({"A", "B"});
  expected["@odata.etag"] = "\"ABC\"";
  EXPECT_EQ(Stored(), expected);
  EXPECT_EQ(log_.Errors(), Names{});
}

TEST_F(DbMembersTest, AnInsertReplacesAMemberOfTheSameUri) {
  Store({"A", "B"});
  EXPECT_TRUE(NewDb().InsertDbSubscription("A", MemberOf("A", "new").dump(), "Login", ""));
  EXPECT_EQ(StoredIds(), (Names{"B", "A"}));
  EXPECT_EQ(Stored()["Members"][1]["Context"], "new");
  EXPECT_EQ(Stored()["@odata.etag"], "");
}

TEST_F(DbMembersTest, DeletingTakesTheFirstWithThatUriAndAMissingOneIsNoFailure) {
  Json document = DocumentOf({"A", "B", "B"});
  document["Members"][0].erase("@odata.id");
  StoreText(document.dump());
  SubscriptionDb db = NewDb();
  EXPECT_TRUE(db.DeleteDbSubscription(kUris + "B", kEtagText));
  EXPECT_TRUE(db.DeleteDbSubscription(kUris + "C", kEtagText));
  EXPECT_EQ(StoredIds(), (Names{"A", "B"}));
  EXPECT_EQ(Stored()["@odata.etag"], "\"ABC\"");
  EXPECT_EQ(log_.Errors(), Names(2, "Failed to get @odata.id"));
}

TEST_F(DbMembersTest, AnUpdateMergesObjectsReplacesTheRestAndTakesOutWhatIsNamed) {
  Store({"A", "B"});
  const Json changes = {{"Context", nullptr},
                        {"Status", {{"State", "Disabled"}}},
                        {"SNMP", {{"TrapCommunity", "EF56"}}},
                        {"HttpHeaders", Json::array()}};
  EXPECT_TRUE(NewDb().UpdateDbSubscription(kUris + "B", changes, {"SNMP/AuthenticationKey", "No/Such"}, kEtagText));
  Json expected = DocumentOf({"A", "B"});
  expected["@odata.etag"] = "\"ABC\"";
  Json& member = expected["Members"][1];
  member["Context"] = nullptr;
  member["Status"]["State"] = "Disabled";
  member["SNMP"] = {{"AuthenticationKeySet", true}, {"TrapCommunity", "EF56"}};
  member["HttpHeaders"] = Json::array();
  EXPECT_EQ(Stored(), expected);

  EXPECT_FALSE(NewDb().UpdateDbSubscription(kUris + "C", changes, {}, kEtagText));
  EXPECT_EQ(log_.Errors(), Names{"Failed to update the subscription " + kUris + "C in the DB file."});
  EXPECT_EQ(Stored(), expected);
}

TEST_F(DbMembersTest, SeveralMembersAreWrittenBackInOneChange) {
  Store({"A", "B"});
  Json outside = MemberOf("C");
  outside["@odata.id"] = kUris + "C/D";
  EXPECT_FALSE(NewDb().WriteBackDbSubscriptions(
      std::vector<Json>{MemberOf("D"), outside, MemberOf("A", "new"), Json(5)}, kEtagText));
  EXPECT_EQ(commands_.size(), 4U);
  EXPECT_EQ(StoredIds(), (Names{"B", "D", "A"}));
  EXPECT_EQ(log_.Errors(), (Names{"The DB file cannot hold a subscription with the URI \"" + kUris + "C/D\".",
                                  "The DB file cannot hold a subscription with the URI \"\"."}));
  EXPECT_TRUE(NewDb().WriteBackDbSubscriptions({}, kEtagText));
  EXPECT_EQ(commands_.size(), 4U);
}

TEST_F(DbMembersTest, TheEtagIsDecodedAndOneThatCannotBeSetStopsNothing) {
  Store({"A"});
  EXPECT_TRUE(NewDb().RefreshDbEtag("W/raw"));
  EXPECT_EQ(Stored()["@odata.etag"], "W/raw");
  EXPECT_TRUE(NewDb().DeleteDbSubscription(kUris + "A", "\xff\xfe"));
  EXPECT_EQ(Stored()["@odata.etag"], "W/raw");
  EXPECT_EQ(StoredIds(), Names{});
  EXPECT_EQ(log_.Errors(), Names{"Failed to set etag into db file."});
}

TEST_F(DbMembersTest, WhatCannotBeLoadedIsSaidAndLeftAsItIs) {
  const auto insert = [](SubscriptionDb& db) { return db.InsertDbSubscription("B", MemberOf("B").dump(), "", ""); };
  const auto remove = [](SubscriptionDb& db) { return db.DeleteDbSubscription(kUris + "A", ""); };
  const auto update = [](SubscriptionDb& db) { return db.UpdateDbSubscription(kUris + "A", Json::object(), {}, ""); };
  const auto etag = [](SubscriptionDb& db) { return db.RefreshDbEtag(""); };
  const std::string noDocument = "Cannot load database from file.";
  const std::string noMembers = "Failed to get \"Members\" array from DB file";
  const std::string noDecode = "Failed to decode the DB file " + Paths().databaseFile + " by " + Paths().openssl;
  const struct {
    std::string plainText;  // empty: an empty database file
    std::function<bool(SubscriptionDb&)> change;
    Names errors;
  } cases[] = {
      {"", insert, {"DB root object is empty."}},
      {"", remove, {noDocument}},
      {"", etag, {noDocument}},
      {"cut {", insert, {"DB root object is empty."}},  // decrypts, but is no document
      {"[]", update, {noDocument}},
      {"{}", insert, {"Subscription DB file lack of \"Members\" field."}},
      {"{}", remove, {noMembers}},
      {R"({"Members": 1})", update, {noMembers}},
      {"damaged", remove, {noDecode, noDocument}},
  };
  for (const auto& row : cases) {
    StoreText(row.plainText.empty() ? "{}" : row.plainText);
    if (row.plainText.empty()) WriteFile(Paths().databaseFile, "");
    if (row.plainText == "damaged") WriteFile(Paths().databaseFile, "Salted__");
    const std::string before = ReadFile(Paths().databaseFile);
    log_.Clear();
    waits_.clear();
    SubscriptionDb db = NewDb();
    EXPECT_FALSE(row.change(db)) << row.plainText;
    EXPECT_EQ(log_.Errors(), row.errors) << row.plainText;
    EXPECT_EQ(ReadFile(Paths().databaseFile), before) << row.plainText;
    EXPECT_FALSE(FileExists(Paths().plainDatabaseFile)) << row.plainText;
    EXPECT_TRUE(waits_.empty()) << row.plainText;
  }
}

TEST_F(DbMembersTest, TextsThatAreNoSubscriptionAreRefused) {
  const std::string empty = "Subscription B is empty.";
  const std::string noUri = "The DB file cannot hold a subscription with the URI \"\".";
  const struct {
    std::string text;
    std::string error;
  } cases[] = {{"", empty},   {"{\"Id\":", empty}, {"5", empty},
               {"{}", noUri}, {"{} {}", empty},    {R"({"@odata.id": "\u0000"})", empty}};
  Store({"A"});
  for (const auto& row : cases) {
    log_.Clear();
    EXPECT_FALSE(NewDb().InsertDbSubscription("B", row.text, "", kEtagText)) << row.text;
    EXPECT_EQ(log_.Errors(), Names{row.error}) << row.text;
    EXPECT_EQ(StoredIds(), Names{"A"}) << row.text;
  }
}

// --- Changes that the disk refuses ----------------------------------------------------------------------------------

TEST_F(DbMembersTest, AfterAFailedEncryptionThePlainFileIsEncryptedBeforeAnythingElse) {
  Store({"A"});
  SubscriptionDb db = NewDb();
  size_t failures = 2;
  beforeCommand_ = [&](const std::string& command) -> std::optional<int> {
    if (Neutral(command) != kEncode || failures == 0) return std::nullopt;
    --failures;
    WriteFile(Paths().databaseFile, "Salted__ and no more");  // as a full disk leaves it
    return -1;
  };
  EXPECT_FALSE(db.InsertDbSubscription("B", MemberOf("B").dump(), "Login", kEtagText));
  EXPECT_TRUE(FileExists(Paths().plainDatabaseFile));
  commands_.clear();
  EXPECT_FALSE(db.InsertDbSubscription("C", MemberOf("C").dump(), "Login", kEtagText));
  EXPECT_EQ(commands_, Names{kEncode});
  const std::string encode = "Failed to encode the file " + Paths().plainDatabaseFile + " by " + Paths().openssl;
  EXPECT_EQ(log_.Errors(), (Names{encode, "Failed to dump db file.", encode, "DB root object is empty."}));

  commands_.clear();
  EXPECT_TRUE(db.DeleteDbSubscription(kUris + "A", kEtagText));
  EXPECT_EQ(commands_, (Names{kEncode, kRemove, kDecode, kRemove, kEncode, kRemove}));
  EXPECT_EQ(StoredIds(), (Names{"B", "C"}));  // nothing of what failed is lost
}

TEST_F(DbMembersTest, AChangeThatCouldNotBeDumpedGoesIntoTheFileWithTheNext) {
  Store({"A"});
  SubscriptionDb db = NewDb();
  bool full = true;
  beforeCommand_ = [&](const std::string& command) -> std::optional<int> {
    if (Neutral(command) != kRemove || !full) return std::nullopt;
    RemoveFile(Paths().plainDatabaseFile);
    std::filesystem::create_directory(Paths().plainDatabaseFile);  // nothing can be written there
    return 0;
  };
  EXPECT_FALSE(db.UpdateDbSubscription(kUris + "A", {{"Context", "changed"}}, {}, kEtagText));
  EXPECT_EQ(log_.Errors(), Names{"Failed to dump db file."});
  EXPECT_EQ(Stored(), DocumentOf({"A"}));

  full = false;
  RemoveFile(Paths().plainDatabaseFile);
  EXPECT_TRUE(db.InsertDbSubscription("B", MemberOf("B").dump(), "Login", kEtagText));
  EXPECT_EQ(StoredIds(), (Names{"A", "B"}));
  EXPECT_EQ(Stored()["Members"][0]["Context"], "changed");
}

}  // namespace
}  // namespace event_service
