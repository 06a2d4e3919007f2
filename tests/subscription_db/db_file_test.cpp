#include <algorithm>
#include <cctype>
#include <chrono>
#include <filesystem>

#include "tests/subscription_db/db_sandbox.h"

namespace event_service {
namespace {

using DbFileTest = DbSandboxTest;
using Names = std::vector<std::string>;

TEST_F(DbFileTest, APasswordIsReadOrGeneratedOnceAndStoredForItsOwnerOnly) {
  const struct {
    std::string content;
    bool read;       // what ReadDbPassword says
    bool generated;  // whether EnsureDbPassword makes a new one
    bool keptAside = false;
  } cases[] = {
      {"secret", true, false},
      {"two words\nmore", true, false},
      {"", true, true},
      {"\nsecret", true, true},
      {std::string(1022, 'a') + "\n", true, false},
      {std::string(1023, 'a'), false, true, true},
  };
  for (const auto& row : cases) {
    LayOut("");
    WriteFile(Paths().passwordFile, row.content);
    EXPECT_EQ(NewDb().ReadDbPassword(), row.read) << row.content;
    EXPECT_TRUE(NewDb().EnsureDbPassword()) << row.content;
    EXPECT_EQ(FileExists(Paths().passwordFile + ".unreadable"), row.keptAside) << row.content;
    const std::string password = ReadFile(Paths().passwordFile);
    EXPECT_TRUE(NewDb().EnsureDbPassword()) << row.content;
    EXPECT_EQ(ReadFile(Paths().passwordFile), password) << "not once: " << row.content;
    EXPECT_EQ(commands_, Names(row.generated, "chmod 600 /var/nginx/subscription_db.key")) << row.content;
    EXPECT_EQ(password != row.content, row.generated) << row.content;
    if (!row.generated) continue;
    EXPECT_EQ(password.size(), 16U) << row.content;
    EXPECT_TRUE(std::ranges::all_of(password, [](unsigned char c) { return std::isalnum(c) != 0; })) << password;
    EXPECT_EQ(ModeOf(Paths().passwordFile), 0600U) << row.content;
  }
}

TEST_F(DbFileTest, APasswordThatCannotBeStoredIsNotUsed) {
  SubscriptionDb db = NewDb();
  beforeCommand_ = [](const std::string&) { return -1; };
  EXPECT_FALSE(db.EnsureDbPassword());
  RemoveFile(Paths().passwordFile);
  std::filesystem::create_directory(Paths().passwordFile + ".new");  // where it is written first
  EXPECT_FALSE(db.EnsureDbPassword());
  const std::string unread = "Failed to read password: No such file or directory.";
  EXPECT_EQ(log_.Errors(), (Names{unread, "Failed to change the permissions of the password file.", unread,
                                  "Failed to generate encrypt/decrypt password."}));
}

TEST_F(DbFileTest, APasswordFileThatIsLostIsWrittenAgainBeforeTheNextEncryption) {
  LayOut("D=A");
  SubscriptionDb db = NewDb();
  ASSERT_TRUE(db.RefreshDbEtag(kEtagText));
  WriteFile(Paths().passwordFile, "another");
  EXPECT_TRUE(db.RefreshDbEtag(kEtagText));
  EXPECT_EQ(log_.Errors(), Names{"The password file was missing or changed and has been written again."});
  EXPECT_EQ(StoredIds(), "A");
}

TEST_F(DbFileTest, DecodingIsTriedOnceOrThreeTimesASecondApart) {
  LayOut("D=A");
  SubscriptionDb db = NewDb();
  ASSERT_TRUE(db.ReadDbPassword());
  Names runs;
  beforeCommand_ = [&](const std::string&) {
    runs.push_back(std::to_string(waits_.size()) + " waits, " + std::to_string(log_.DebugLines().size()) + " lines");
    return -1;
  };
  EXPECT_FALSE(db.DecodeDbFile(false));
  EXPECT_FALSE(db.DecodeDbFile(true));
  EXPECT_EQ(runs, (Names{"0 waits, 0 lines", "0 waits, 0 lines", "1 waits, 1 lines", "2 waits, 2 lines"}));
  EXPECT_EQ(waits_, std::vector<std::chrono::microseconds>(2, std::chrono::seconds(1)));
  EXPECT_EQ(log_.DebugLines(), Names(2, "Retry to decode the DB file."));
  EXPECT_EQ(log_.Errors(), Names(2, "Failed to decode the DB file " + Paths().databaseFile + " by " + Paths().openssl));

  beforeCommand_ = [&](const std::string&) {
    return runs.size() == 6 ? std::nullopt : (runs.emplace_back(), std::optional(-1));
  };
  EXPECT_TRUE(db.DecodeDbFile(true));
  EXPECT_EQ(ReadFile(Paths().plainDatabaseFile), DocumentOf("A").dump());
}

}  // namespace
}  // namespace event_service
