#include <algorithm>
#include <filesystem>

#include "tests/subscription_db/db_sandbox.h"

namespace event_service {
namespace {

using Names = std::vector<std::string>;

const std::string kDatabase = "EventSubscriptionInfo.json";
const std::string kPlain = "EventSubscriptionInfo.tmp.json";
const std::string kKey = "subscription_db.key";
const std::string kFallback = "Failed to decode db file. Uses default DB file instead.";

class DbStartUpTest : public DbSandboxTest {
 protected:
  /// What start-up does with the files, in its order.
  bool Start() {
    SubscriptionDb db = NewDb();
    db.PutBackLegacyFile();
    if (!FileExists(Paths().databaseFile)) {
      EXPECT_EQ(RunShell("cp " + Paths().defaultDatabaseFile + " " + Paths().plainDatabaseFile), 0);
    }
    commands_.clear();
    const bool started = db.InitSubscriptionDb();
    restoredUris_ = db.RestoredUris();
    return started;
  }
  /// The programs that the last start ran.
  std::string Programs() const {
    std::string programs;
    for (const std::string& command : commands_) {
      const std::string path = command.substr(0, command.find(' '));
      programs += (programs.empty() ? "" : " ") + path.substr(path.rfind('/') + 1);
      if (command.find(" -d ") != std::string::npos) programs += "-d";
    }
    return programs;
  }

  Names restoredUris_;
};

TEST_F(DbStartUpTest, EveryStateOfTheFilesGivesTheRightSetAndLosesNoFile) {
  const struct {
    const char* files;
    const char* programs;
    const char* ids = "";
    Names keptAside = {};
  } cases[] = {
      {"", "ResourceLoader chmod openssl rm"},
      {"D=A", "openssl-d ResourceLoader openssl rm", "A"},
      {"D=A P:AB", "ResourceLoader openssl rm", "AB"},
      {"D=A D/ P:AB", "ResourceLoader openssl rm", "AB"},
      {"D=A P:B P/", "ResourceLoader openssl-d ResourceLoader openssl rm", "A"},
      {"D=A P0", "openssl-d ResourceLoader openssl rm", "A"},
      {"D=A D0", "cp ResourceLoader openssl rm"},
      {"D=A D/", "openssl-d openssl-d openssl-d cp ResourceLoader openssl rm", "", {kDatabase}},
      {"D!", "openssl-d ResourceLoader cp ResourceLoader openssl rm", "", {kDatabase}},
      {"D=A D/ P:A P/",
       "ResourceLoader openssl-d openssl-d openssl-d cp ResourceLoader openssl rm",
       "",
       {kDatabase, kPlain}},
      {"D=A K-", "mv ResourceLoader cp ResourceLoader chmod openssl rm", "", {kPlain}},
      // An unencrypted database file, and what crashes leave behind while it is moved.
      {"D:AB", "mv ResourceLoader chmod openssl rm", "AB"},
      {"D:AB K0", "mv ResourceLoader chmod openssl rm", "AB"},
      {"D:AB L>D", "mv ResourceLoader chmod openssl rm", "AB"},
      {"P:AB L>P", "ResourceLoader chmod openssl rm", "AB"},
      {"P:AB L>P K+", "ResourceLoader openssl rm", "AB"},
      {"P:AB L>P K+ D0", "ResourceLoader openssl rm", "AB"},
      {"P:AB L>P K+ D:C D/", "ResourceLoader openssl rm", "AB"},
      {"D=AB L:AB", "openssl-d ResourceLoader openssl rm", "AB"},
      {"L:AB", "mv ResourceLoader chmod openssl rm", "AB"},
      {"L:AB D0", "mv ResourceLoader chmod openssl rm", "AB"},
  };
  for (const auto& row : cases) {
    LayOut(row.files);
    EXPECT_TRUE(Start()) << row.files;
    EXPECT_EQ(Programs(), row.programs) << row.files;
    EXPECT_EQ(StoredIds(), row.ids) << row.files;
    Names uris;
    for (const char id : std::string(row.ids)) uris.push_back(kUris + id);
    EXPECT_EQ(restoredUris_, uris) << row.files;
    Names files = {kDatabase, kKey};
    for (const std::string& name : row.keptAside) files.push_back(name + ".unreadable");
    std::ranges::sort(files);
    EXPECT_EQ(FileNames(), files) << row.files;
    for (const std::string& file : files) EXPECT_EQ(ModeOf(sandbox_.Root() + "/var/nginx/" + file), 0600U) << row.files;
    const Names errors = log_.Errors();
    EXPECT_EQ(std::ranges::count(errors, kFallback) == 1, Programs().find("cp") != std::string::npos) << row.files;
  }
}

TEST_F(DbStartUpTest, TheLogNamesThePathsAndWhatWasNotFound) {
  LayOut("D=A");
  ASSERT_TRUE(Start());
  EXPECT_EQ(log_.Errors(), Names{});
  EXPECT_EQ(log_.DebugLines(), (Names{"The subscription DB file path is " + Paths().databaseFile + ".",
                                      "The subscription plain DB file path is " + Paths().plainDatabaseFile + ".",
                                      "The subscription password file path is " + Paths().passwordFile + ".",
                                      "File " + Paths().plainDatabaseFile + " doesn't exist."}));
}

TEST_F(DbStartUpTest, AWholePlainFileThatDoesNotLoadIsKeptAsideThoughTheDatabaseFileLoads) {
  LayOut("D=A P:AB");
  size_t loads = 0;
  beforeCommand_ = [&](const std::string& command) {
    const bool fails = command.starts_with(Paths().resourceLoader) && loads++ == 0;
    return fails ? std::optional(-1) : std::nullopt;
  };
  EXPECT_TRUE(Start());
  EXPECT_EQ(StoredIds(), "A");
  const std::string aside = Paths().plainDatabaseFile + ".unreadable";
  EXPECT_EQ(ReadFile(aside), DocumentOf("AB").dump());
  EXPECT_EQ(log_.Errors(),
            (Names{"Failed to restore subscriptions by db file.",
                   "The file " + Paths().plainDatabaseFile + " could not be read and is kept as " + aside + "."}));
}

TEST_F(DbStartUpTest, AnOlderFileThatWasKeptAsideIsNeverReplaced) {
  for (int i = 0; i < 3; ++i) {
    WriteFile(Paths().databaseFile, "damaged " + std::to_string(i));
    WriteFile(Paths().passwordFile, "secret");
    ASSERT_TRUE(Start());
  }
  std::string kept;
  for (const std::string& name : FileNames()) {
    if (name.starts_with(kDatabase + ".unreadable")) kept += ReadFile(sandbox_.Root() + "/var/nginx/" + name).back();
  }
  EXPECT_EQ(kept, "201");  // the newest has the plain name
}

TEST_F(DbStartUpTest, FailuresOfTheFallback) {
  LayOut("D=A D0");
  WriteFile(Paths().defaultDatabaseFile, "{");
  EXPECT_TRUE(Start());  // bad default data is encrypted all the same
  EXPECT_EQ(log_.Errors(), (Names{kFallback, "Failed to restore subscriptions by db file.",
                                  "Failed to parse default DB file to redis."}));

  LayOut("D=A D0");
  RemoveFile(Paths().defaultDatabaseFile);
  EXPECT_FALSE(Start());
  EXPECT_EQ(log_.Errors(),
            (Names{kFallback, "Cannot initialize db file due to the failure of copying static data.",
                   "Failed to encode the file " + Paths().plainDatabaseFile + " by " + Paths().openssl}));
  EXPECT_FALSE(FileExists(Paths().plainDatabaseFile));
}

TEST_F(DbStartUpTest, AStartThatFailsForAnotherReasonLeavesTheDatabaseFileForTheNext) {
  LayOut("D=A");
  const std::string before = ReadFile(Paths().databaseFile);
  const struct {
    bool full;
    std::string said;
  } cases[] = {{false, "The file " + Paths().databaseFile + " is tried again at the next start."},
               {true, "The file " + Paths().plainDatabaseFile + " cannot be written; the start is given up."}};
  for (const auto& row : cases) {
    beforeCommand_ = [&](const std::string& command) {
      const bool isCipher = command.find(" enc ") != std::string::npos;
      // Where there is a folder, nothing can be written.
      if (isCipher && row.full) RemoveFile(Paths().plainDatabaseFile);
      if (isCipher && row.full) std::filesystem::create_directory(Paths().plainDatabaseFile);
      return isCipher ? std::optional(-1) : std::nullopt;
    };
    EXPECT_FALSE(Start());
    EXPECT_EQ(log_.Errors().back(), row.said);
    EXPECT_EQ(ReadFile(Paths().databaseFile), before) << row.said;
    RemoveFile(Paths().plainDatabaseFile);
    EXPECT_EQ(FileNames(), (Names{kDatabase, kKey})) << row.said;
  }
}

}  // namespace
}  // namespace event_service
