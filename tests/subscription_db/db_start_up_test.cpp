#include "tests/subscription_db/db_sandbox.h"

namespace event_service {
namespace {

const std::string kFallback = "Failed to decode db file. Uses default DB file instead.\n";

TEST_F(DbSandboxTest, EveryStateOfTheFilesGivesTheRightSetAndLosesNoFile) {
  const struct {
    const char* files;
    std::string ids = "";
    std::string filesAfter = "D K ";
    size_t failingLoads = 0;
  } cases[] = {
      {""},
      {"D=A", "A"},
      {"D=A P:AB", "AB"},
      {"D=A P:AB", "A", "D K P.unreadable ", 1},
      {"D=A D/ P:AB", "AB"},
      {"D=A P:B P/", "A"},
      {"D=A D/", "", "D D.unreadable K "},
      {"D=A D/ A:B", "", "D D.unreadable D.unreadableN! K "},
      {"D!", "", "D D.unreadable K "},
      {"D=A D/ P:A P/", "", "D D.unreadable K P.unreadable "},
      {"D=A K-", "", "D K P.unreadable "},
      {"D:AB", "AB"},  // an unencrypted database file
      {"D=AB L:C", "AB"},
      {"L:AB", "AB"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.files);
    LayOut(row.files);
    std::string before;
    for (const auto& [name, content] : Files()) before += content;
    size_t loads = 0;
    fails_ = [&](const std::string& command) {
      return command.starts_with(Paths().resourceLoader) && ++loads <= row.failingLoads;
    };
    SubscriptionDb db = NewDb();
    EXPECT_TRUE(StartDb(db));
    EXPECT_EQ(Stored(), DocumentOf(row.ids));
    std::vector<std::string> uris;
    for (const char id : row.ids) uris.push_back(kUris + id);
    EXPECT_EQ(db.RestoredUris(), uris);
    EXPECT_EQ(FileNames(), row.filesAfter);
    for (const auto& [name, content] : Files()) {
      const bool isKeptAside = name.find(".unreadable") != std::string::npos;
      EXPECT_TRUE(!isKeptAside || before.find(content) != std::string::npos) << name;
    }
    EXPECT_EQ(Errors().find("Failed to read p"), Errors().rfind("Failed to read p")) << "said once";
    const bool fallsBack = row.ids.empty() && row.files[0] != '\0';
    EXPECT_EQ(Errors().find(kFallback) != std::string::npos, fallsBack) << Errors();
  }
}

TEST_F(DbSandboxTest, DecodingIsTriedThreeTimesASecondApart) {
  for (const size_t failures : {2U, 3U}) {
    LayOut("D=A");
    size_t left = failures;
    fails_ = [&](const std::string& command) { return command.find(" -d ") != std::string::npos && left-- > 0; };
    SubscriptionDb db = NewDb();
    EXPECT_TRUE(StartDb(db));
    EXPECT_EQ(Stored(), DocumentOf(failures == 2 ? "A" : ""));
    EXPECT_EQ(waits_, std::vector<std::chrono::microseconds>(2, std::chrono::seconds(1)));
    EXPECT_EQ(log_.DebugLines().back(), "Retry to decode the DB file.");
  }
  EXPECT_EQ(Errors(), "Failed to decode the DB file D by /usr/bin/openssl\n" + kFallback +
                          "The file D could not be read and is kept as D.unreadable.\n");
}

TEST_F(DbSandboxTest, AStartThatCannotEncryptLeavesTheDatabaseFileForTheNext) {
  LayOut("D=A");
  const std::string before = ReadFile(Paths().databaseFile);
  fails_ = [](const std::string& command) { return command.find(" enc ") != std::string::npos; };
  SubscriptionDb db = NewDb();
  EXPECT_FALSE(StartDb(db));
  EXPECT_TRUE(Errors().ends_with("A start did not come to its end: the files that it set aside are put back.\n"))
      << Errors();
  EXPECT_EQ(ReadFile(Paths().databaseFile), before);
  EXPECT_EQ(FileNames(), "D K ");
}

}  // namespace
}  // namespace event_service
