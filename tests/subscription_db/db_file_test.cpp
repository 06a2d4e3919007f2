#include <algorithm>
#include <cctype>
#include <chrono>
#include <filesystem>

#include "tests/subscription_db/db_sandbox.h"

namespace event_service {
namespace {

using DbFileTest = DbSandboxTest;
using Names = std::vector<std::string>;

TEST_F(DbFileTest, APasswordIsGeneratedOnceAndStoredForItsOwnerOnly) {
  SubscriptionDb db = NewDb();
  EXPECT_TRUE(db.EnsureDbPassword());
  EXPECT_EQ(commands_, Names{"chmod 600 /var/nginx/subscription_db.key"});
  const std::string password = ReadFile(Paths().passwordFile);
  EXPECT_EQ(password.size(), 16U);
  EXPECT_TRUE(std::ranges::all_of(password, [](unsigned char c) { return std::isalnum(c) != 0; })) << password;
  EXPECT_EQ(ModeOf(Paths().passwordFile), 0600U);

  EXPECT_TRUE(db.EnsureDbPassword());
  EXPECT_TRUE(NewDb().EnsureDbPassword());
  EXPECT_EQ(ReadFile(Paths().passwordFile), password);
  EXPECT_EQ(commands_.size(), 1U);
  EXPECT_EQ(log_.Errors(), Names{"Failed to read password: No such file or directory."});
}

TEST_F(DbFileTest, PasswordFilesOfEveryKind) {
  const struct {
    std::string content;
    bool read;       // what ReadDbPassword says
    bool generated;  // whether EnsureDbPassword makes a new one
    Names keptAside;
  } cases[] = {
      {"secret", true, false, {}},
      {"two words\nmore", true, false, {}},
      {"", true, true, {}},
      {"\nsecret", true, true, {}},
      {std::string(1022, 'a') + "\n", true, false, {}},
      {std::string(1023, 'a'), false, true, {"subscription_db.key.unreadable"}},
  };
  for (const auto& row : cases) {
    sandbox_.Clear();
    WriteFile(Paths().passwordFile, row.content);
    EXPECT_EQ(NewDb().ReadDbPassword(), row.read) << row.content;
    EXPECT_TRUE(NewDb().EnsureDbPassword()) << row.content;
    EXPECT_EQ(ReadFile(Paths().passwordFile) != row.content, row.generated) << row.content;
    Names expected = {"subscription_db.key"};
    expected.insert(expected.end(), row.keptAside.begin(), row.keptAside.end());
    EXPECT_EQ(FileNames(), expected) << row.content;
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
  Store({"A"});
  SubscriptionDb db = NewDb();
  ASSERT_TRUE(db.RefreshDbEtag(kEtagText));
  for (const char* content : {"", "another"}) {
    WriteFile(Paths().passwordFile, content);
    log_.Clear();
    EXPECT_TRUE(db.RefreshDbEtag(kEtagText));
    EXPECT_EQ(log_.Errors(), Names{"The password file was missing or changed and has been written again."});
    EXPECT_EQ(StoredIds(), Names{"A"});
  }
}

TEST_F(DbFileTest, DecodingIsTriedOnceOrThreeTimesASecondApart) {
  Store({"A"});
  SubscriptionDb db = NewDb();
  ASSERT_TRUE(db.ReadDbPassword());
  std::vector<std::string> order;
  beforeCommand_ = [&](const std::string&) {
    order.push_back(std::to_string(waits_.size()) + " waits, " + std::to_string(log_.DebugLines().size()) + " lines");
    return -1;
  };
  EXPECT_FALSE(db.DecodeDbFile(false));
  EXPECT_EQ(order, Names{"0 waits, 0 lines"});
  EXPECT_FALSE(db.DecodeDbFile(true));
  EXPECT_EQ(order, (Names{"0 waits, 0 lines", "0 waits, 0 lines", "1 waits, 1 lines", "2 waits, 2 lines"}));
  EXPECT_EQ(waits_, std::vector<std::chrono::microseconds>(2, std::chrono::seconds(1)));
  EXPECT_EQ(log_.DebugLines(), Names(2, "Retry to decode the DB file."));
  EXPECT_EQ(log_.Errors(), Names(2, "Failed to decode the DB file " + Paths().databaseFile + " by " + Paths().openssl));

  size_t failures = 2;
  beforeCommand_ = [&](const std::string&) -> std::optional<int> {
    if (failures == 0) return std::nullopt;
    --failures;
    return -1;
  };
  EXPECT_TRUE(db.DecodeDbFile(true));
  EXPECT_EQ(Json::parse(ReadFile(Paths().plainDatabaseFile), nullptr, false), DocumentOf({"A"}));
}

TEST_F(DbFileTest, AnEncryptionThatLeftNothingIsNoSuccess) {
  WriteFile(Paths().plainDatabaseFile, "{}");
  SubscriptionDb db = NewDb();
  ASSERT_TRUE(db.EnsureDbPassword());
  beforeCommand_ = [](const std::string&) { return 0; };
  EXPECT_FALSE(db.EncodeDbFile());
  EXPECT_EQ(ReadFile(Paths().plainDatabaseFile), "{}");
}

TEST_F(DbFileTest, OnlyTheCipherToolInheritsADescriptorAndNoneStaysOpen) {
  const auto descriptors = [](const char* of) {
    Names names;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::string(of) + "/fd")) {
      names.push_back(entry.path().filename());
    }
    return names.size();
  };
  Store({"A"});
  const size_t before = descriptors("self");
  // How many descriptors a child of the shell sees, besides those that this process itself was given.
  const auto seenByChild = [&] {
    const std::string list = sandbox_.Root() + "/list";
    RunShell("ls /proc/self/fd | wc -l > " + list);
    return std::stoi(ReadFile(list));
  };
  const int given = seenByChild();
  Names seen;
  beforeCommand_ = [&](const std::string& command) {
    seen.push_back((command.find("-pass") != std::string::npos ? "cipher " : "other ") +
                   std::to_string(seenByChild() - given));
    return std::nullopt;
  };
  EXPECT_TRUE(NewDb().RefreshDbEtag(kEtagText));
  EXPECT_EQ(seen, (Names{"cipher 1", "other 0", "cipher 1", "other 0"}));
  EXPECT_EQ(descriptors("self"), before);
}

}  // namespace
}  // namespace event_service
