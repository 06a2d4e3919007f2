#include <sys/stat.h>

#include <filesystem>

#include "tests/subscription_db/db_sandbox.h"

namespace event_service {
namespace {

using Names = std::vector<std::string>;

const std::string kDatabase = "EventSubscriptionInfo.json";
const std::string kPlain = "EventSubscriptionInfo.tmp.json";
const std::string kKey = "subscription_db.key";

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
  void StorePlain(const std::vector<std::string>& ids) { WriteFile(Paths().plainDatabaseFile, DocumentOf(ids).dump()); }
  void Damage(const std::string& path) { WriteFile(path, ReadFile(path).substr(0, 40)); }
  /// The commands of the last start by their first word.
  Names Programs() const {
    Names programs;
    for (const std::string& command : commands_) {
      const bool decodes = command.find(" -d ") != std::string::npos;
      const std::string path = command.substr(0, command.find(' '));
      programs.push_back(path.substr(path.rfind('/') + 1) + (decodes ? " -d" : ""));
    }
    return programs;
  }

  Names restoredUris_;
};

TEST_F(DbStartUpTest, EveryStateOfTheFilesGivesTheRightSetAndLosesNoFile) {
  const std::string fallback = "Failed to decode db file. Uses default DB file instead.";
  const struct {
    const char* name;
    std::function<void()> prepare;
    Names programs;
    Names ids;
    Names extraFiles;
  } cases[] = {
      {"first start", [] {}, {"ResourceLoader", "chmod", "openssl", "rm"}, {}, {}},
      {"restart", [&] { Store({"A"}); }, {"openssl -d", "ResourceLoader", "openssl", "rm"}, {"A"}, {}},
      {"plain file first",
       [&] {
         Store({"A"});
         StorePlain({"A", "B"});
       },
       {"ResourceLoader", "openssl", "rm"},
       {"A", "B"},
       {}},
      {"plain file over a damaged database file",
       [&] {
         Store({"A"});
         Damage(Paths().databaseFile);
         StorePlain({"A", "B"});
       },
       {"ResourceLoader", "openssl", "rm"},
       {"A", "B"},
       {}},
      {"half a plain file",
       [&] {
         Store({"A"});
         StorePlain({"B"});
         Damage(Paths().plainDatabaseFile);
       },
       {"ResourceLoader", "openssl -d", "ResourceLoader", "openssl", "rm"},
       {"A"},
       {}},
      {"empty plain file",
       [&] {
         Store({"A"});
         WriteFile(Paths().plainDatabaseFile, "");
       },
       {"openssl -d", "ResourceLoader", "openssl", "rm"},
       {"A"},
       {}},
      {"database file damaged",
       [&] {
         Store({"A"});
         Damage(Paths().databaseFile);
       },
       {"openssl -d", "openssl -d", "openssl -d", "cp", "ResourceLoader", "openssl", "rm"},
       {},
       {kDatabase + ".unreadable"}},
      {"database file empty",
       [&] {
         Store({"A"});
         WriteFile(Paths().databaseFile, "");
       },
       {"cp", "ResourceLoader", "openssl", "rm"},
       {},
       {}},
      {"decrypts, but is no document",
       [&] { StoreText("cut {"); },
       {"openssl -d", "ResourceLoader", "cp", "ResourceLoader", "openssl", "rm"},
       {},
       {kDatabase + ".unreadable"}},
      {"both damaged",
       [&] {
         Store({"A"});
         StorePlain({"A"});
         Damage(Paths().databaseFile);
         Damage(Paths().plainDatabaseFile);
       },
       {"ResourceLoader", "openssl -d", "openssl -d", "openssl -d", "cp", "ResourceLoader", "openssl", "rm"},
       {},
       {kDatabase + ".unreadable", kPlain + ".unreadable"}},
      {"password lost",
       [&] {
         Store({"A"});
         RemoveFile(Paths().passwordFile);
       },
       {"mv", "ResourceLoader", "cp", "ResourceLoader", "chmod", "openssl", "rm"},
       {},
       {kPlain + ".unreadable"}},
      {"legacy file",
       [&] {
         WriteFile(Paths().databaseFile, DocumentOf({"A", "B"}).dump());
       },
       {"mv", "ResourceLoader", "chmod", "openssl", "rm"},
       {"A", "B"},
       {}},
      {"legacy file, password file empty",
       [&] {
         WriteFile(Paths().databaseFile, DocumentOf({"A"}).dump());
         WriteFile(Paths().passwordFile, "");
       },
       {"mv", "ResourceLoader", "chmod", "openssl", "rm"},
       {"A"},
       {}},
  };
  for (const auto& row : cases) {
    sandbox_.Clear();
    WriteFile(Paths().defaultDatabaseFile, DocumentOf({}).dump());
    row.prepare();
    log_.Clear();
    EXPECT_TRUE(Start()) << row.name;
    EXPECT_EQ(Programs(), row.programs) << row.name;
    EXPECT_EQ(StoredIds(), row.ids) << row.name;
    Names uris;
    for (const std::string& id : row.ids) uris.push_back(kUris + id);
    EXPECT_EQ(restoredUris_, uris) << row.name;
    Names files = {kDatabase, kKey};
    files.insert(files.end(), row.extraFiles.begin(), row.extraFiles.end());
    std::ranges::sort(files);
    EXPECT_EQ(FileNames(), files) << row.name;
    for (const std::string& file : files) EXPECT_EQ(ModeOf(sandbox_.Root() + "/var/nginx/" + file), 0600U) << row.name;
    const Names errors = log_.Errors();
    EXPECT_EQ(std::ranges::count(errors, fallback), std::ranges::count(row.programs, "cp")) << row.name;
  }
}

TEST_F(DbStartUpTest, TheLogNamesThePathsAndWhatWasNotFound) {
  ASSERT_TRUE(Start());
  EXPECT_EQ(log_.DebugLines(), (Names{"The subscription DB file path is " + Paths().databaseFile + ".",
                                      "The subscription plain DB file path is " + Paths().plainDatabaseFile + ".",
                                      "The subscription password file path is " + Paths().passwordFile + "."}));
  log_.Clear();
  ASSERT_TRUE(Start());
  EXPECT_EQ(log_.DebugLines().back(), "File " + Paths().plainDatabaseFile + " doesn't exist.");
  EXPECT_EQ(log_.Errors(), Names{});
}

TEST_F(DbStartUpTest, AWholePlainFileThatDoesNotLoadIsKeptAsideThoughTheDatabaseFileLoads) {
  Store({"A"});
  StorePlain({"A", "B"});
  size_t loads = 0;
  beforeCommand_ = [&](const std::string& command) -> std::optional<int> {
    if (command.starts_with(Paths().resourceLoader) && loads++ == 0) return -1;
    return std::nullopt;
  };
  EXPECT_TRUE(Start());
  EXPECT_EQ(StoredIds(), Names{"A"});
  EXPECT_EQ(Json::parse(ReadFile(Paths().plainDatabaseFile + ".unreadable"), nullptr, false), DocumentOf({"A", "B"}));
  EXPECT_EQ(log_.Errors(), (Names{"Failed to restore subscriptions by db file.",
                                  "The file " + Paths().plainDatabaseFile + " could not be read and is kept as " +
                                      Paths().plainDatabaseFile + ".unreadable."}));
}

TEST_F(DbStartUpTest, AnOlderFileThatWasKeptAsideIsNeverReplaced) {
  for (int i = 0; i < 3; ++i) {
    Store({"A"});
    Damage(Paths().databaseFile);
    ASSERT_TRUE(Start());
  }
  const std::string prefix = kDatabase + ".unreadable";
  const Names files = FileNames();
  EXPECT_EQ(std::ranges::count_if(files, [&](const auto& name) { return name.starts_with(prefix); }), 3);
  EXPECT_EQ(std::ranges::count(files, prefix), 1);
}

TEST_F(DbStartUpTest, FailuresOfTheFallback) {
  const std::string fallback = "Failed to decode db file. Uses default DB file instead.";
  Store({"A"});
  WriteFile(Paths().databaseFile, "");
  WriteFile(Paths().defaultDatabaseFile, "{");
  EXPECT_TRUE(Start());  // bad default data is encrypted all the same
  EXPECT_EQ(log_.Errors(), (Names{fallback, "Failed to restore subscriptions by db file.",
                                  "Failed to parse default DB file to redis."}));

  WriteFile(Paths().databaseFile, "");
  RemoveFile(Paths().defaultDatabaseFile);
  log_.Clear();
  EXPECT_FALSE(Start());
  EXPECT_EQ(log_.Errors(),
            (Names{fallback, "Cannot initialize db file due to the failure of copying static data.",
                   "Failed to encode the file " + Paths().plainDatabaseFile + " by " + Paths().openssl}));
  EXPECT_FALSE(FileExists(Paths().plainDatabaseFile));
}

TEST_F(DbStartUpTest, AStartThatFailsForAnotherReasonLeavesTheDatabaseFileForTheNext) {
  Store({"A"});
  const std::string before = ReadFile(Paths().databaseFile);
  bool full = false;
  beforeCommand_ = [&](const std::string& command) -> std::optional<int> {
    if (command.find(" enc ") == std::string::npos) return std::nullopt;
    if (full) {
      RemoveFile(Paths().plainDatabaseFile);
      std::filesystem::create_directory(Paths().plainDatabaseFile);  // nothing can be written there
    }
    return -1;  // the tool is broken
  };
  for (int attempt = 0; attempt < 3; ++attempt) {
    full = attempt == 2;
    EXPECT_FALSE(Start());
    EXPECT_EQ(ReadFile(Paths().databaseFile), before);
    RemoveFile(Paths().plainDatabaseFile);
    EXPECT_EQ(FileNames(), (Names{kDatabase, kKey}));
  }
  EXPECT_EQ(log_.Errors().back(),
            "The file " + Paths().plainDatabaseFile + " cannot be written; the start is given up.");
  beforeCommand_ = [](const std::string&) { return std::nullopt; };
  EXPECT_TRUE(Start());
  EXPECT_EQ(StoredIds(), Names{"A"});
}

// The states that a crash leaves behind during the legacy move: D the database file, P the plain file, L its second
// name, K the password file.
TEST_F(DbStartUpTest, ALegacyMoveThatWasCutShortIsFinishedByTheNextStart) {
  const std::string legacy = Paths().databaseFile + ".legacy";
  const std::string text = DocumentOf({"A", "B"}).dump();
  const auto move = [&] {
    WriteFile(Paths().plainDatabaseFile, text);
    std::filesystem::create_hard_link(Paths().plainDatabaseFile, legacy);
  };
  const auto makeKey = [&] { ASSERT_TRUE(NewDb().EnsureDbPassword()); };
  const struct {
    const char* name;
    std::function<void()> prepare;
  } cases[] = {
      {"D and L",
       [&] {
         WriteFile(Paths().databaseFile, text);
         std::filesystem::create_hard_link(Paths().databaseFile, legacy);
       }},
      {"P and L", move},
      {"P, L and K",
       [&] {
         move();
         makeKey();
       }},
      {"P, L, K and half of D",
       [&] {
         move();
         makeKey();
         WriteFile(Paths().databaseFile, "Salted__");
       }},
      {"P, L, K and D empty",
       [&] {
         move();
         makeKey();
         WriteFile(Paths().databaseFile, "");
       }},
      {"L, K and D",
       [&] {
         Store({"A", "B"});
         WriteFile(legacy, text);
       }},
      {"L alone", [&] { WriteFile(legacy, text); }},
      {"L and D empty",
       [&] {
         WriteFile(legacy, text);
         WriteFile(Paths().databaseFile, "");
       }},
  };
  for (const auto& row : cases) {
    sandbox_.Clear();
    WriteFile(Paths().defaultDatabaseFile, DocumentOf({}).dump());
    row.prepare();
    EXPECT_TRUE(Start()) << row.name;
    EXPECT_EQ(StoredIds(), (Names{"A", "B"})) << row.name;
    EXPECT_EQ(FileNames(), (Names{kDatabase, kKey})) << row.name;
  }
}

}  // namespace
}  // namespace event_service
