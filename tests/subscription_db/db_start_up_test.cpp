#include <sys/stat.h>

#include "tests/subscription_db/db_sandbox.h"

namespace event_service {
namespace {

const std::string kFallback = "Failed to decode db file. Uses default DB file instead.\n";

TEST_F(DbSandboxTest, EveryStateOfTheFilesGivesTheRightSetAndLosesNoFile) {
  const struct {
    const char* files;
    std::string ids = "";
    std::string filesAfter = "D K ";
    std::vector<int> loads = {};
    size_t failingDecodings = 0;
  } cases[] = {
      {""},
      {"D=A", "A"},
      {"D=A", "A", "D K ", {}, 2},
      {"D=A", "", "D D.unreadable K ", {}, 3},
      {"D=A P:AB", "AB"},
      {"D=A P:AB", "A", "D K P.unreadable ", {1}},
      {"D=A P:AB", "AB", "D K ", {75, 9 + 128}},
      {"D=A D/ P:AB", "AB"},
      {"D=A P:B P/", "A"},
      {"D=A D/", "", "D D.unreadable K "},
      {"D=A D/ A:B", "", "D D.unreadable D.unreadableN! K "},
      {"D!", "", "D D.unreadable K "},
      {"D=A D/ P:A P/", "", "D D.unreadable K P.unreadable "},
      {"D=A K-", "", "D K P.unreadable "},
      {"D:AB", "AB"},  // an unencrypted database file
      {"D=AB L:C", "AB"},
      {"D:AB L:C", "AB", "D D.legacy.unreadable K "},
      {"L:AB", "AB"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.files);
    LayOut(row.files);
    std::string before;
    for (const auto& [name, content] : Files()) before += content;
    loads_ = row.loads;
    size_t failures = row.failingDecodings;
    fails_ = [&](const std::string& command) { return command.find(" -d ") != std::string::npos && failures-- > 0; };
    SubscriptionDb db = NewDb();
    EXPECT_TRUE(StartDb(db));
    EXPECT_EQ(Stored(), DocumentOf(row.ids));
    std::vector<std::string> uris;
    for (const char id : row.ids) uris.push_back(kUris + id);
    EXPECT_EQ(db.Start().RestoredUris(), uris);
    EXPECT_EQ(FileNames(), row.filesAfter);
    for (const auto& [name, content] : Files()) {
      const bool isKeptAside = name.find(".unreadable") != std::string::npos;
      EXPECT_TRUE(!isKeptAside || before.find(content) != std::string::npos) << name;
    }
    EXPECT_EQ(Errors().find("Failed to read p"), std::string::npos) << "a missing password file is no failure";
    const bool fallsBack = row.ids.empty() && row.files[0] != '\0';
    EXPECT_EQ(Errors().find(kFallback) != std::string::npos, fallsBack) << Errors();
  }
}

TEST_F(DbSandboxTest, ALoaderThatCannotTellIsRunThreeTimesThenTheStartFailsAndLeavesEveryFile) {
  const mode_t umaskBefore = umask(077);
  for (const char* files : {"D=A", "D=A P:AB", "D:AB", "D=A D/", "D=A D/ P:A P/", "L:AB"}) {
    for (const int status : {75, 126, 127, -1, 128 + 9}) {
      LayOut(files);
      SubscriptionDb db = NewDb();
      ASSERT_TRUE(db.Start().PrepareFiles());
      const auto before = Files();
      // What does not load is passed over before the loader is lost.
      loads_ = std::string(files).find("P:A P/") != std::string::npos ? std::vector{1} : std::vector<int>();
      loads_.insert(loads_.end(), 3, status);
      EXPECT_FALSE(db.Start().InitSubscriptionDb());
      EXPECT_TRUE(db.Start().PutBackFiles());
      EXPECT_EQ(Files(), before) << files << " " << status;
      const bool isDamaged = std::string(files).find(" D/") != std::string::npos;  // decoding is tried thrice as well
      EXPECT_EQ(waits_, std::vector<std::chrono::microseconds>(isDamaged ? 4 : 2, std::chrono::seconds(1))) << files;
      EXPECT_TRUE(loads_.empty());
    }
  }
  umask(umaskBefore);
}

TEST_F(DbSandboxTest, NothingThatWasLaidOutBeforehandIsUsedOrHoldsUpTheStart) {
  const struct {
    std::string files, kind;
    std::string failure = "";  // the beginning of its lines; the start succeeds without
  } cases[] = {
      {"PdpL", "second name"},
      {"Pdk", "link"},
      {"Pd", "fifo"},
      {"P", "folder", "Failed to remove the file P.\n"},
      {"d", "folder", "Failed to remove the file D.aside.\n"},
      {"D", "link", "The subscription DB file D cannot be used: Too many levels of symbolic links.\n"},
      {"D", "folder", "The subscription DB file D cannot be used: Is a directory.\n"},
      {"K", "link", "Failed to read password: Too many levels of symbolic links.\n"},
      {"K", "fifo", "Failed to read password: Invalid argument.\n"},
  };
  for (const auto& row : cases) {
    for (const char file : row.files) {
      SCOPED_TRACE(file + (" " + row.kind));
      LayOut(file == 'k' ? "D:A" : "D=A");
      Obstruct(PathOf(Paths(), file), row.kind, victim_);
      SubscriptionDb db = NewDb();
      EXPECT_EQ(StartDb(db), row.failure.empty());
      EXPECT_EQ(ReadFile(victim_), "victim");
      EXPECT_TRUE(Errors().starts_with(row.failure)) << Errors();
      EXPECT_TRUE(!row.failure.empty() || (Stored() == DocumentOf("A") && FileNames() == "D K ")) << FileNames();
    }
  }
  // A start that is sure of the plain file writes over the database file.
  LayOut("D=A P:AB");
  Obstruct(Paths().databaseFile, "second name", victim_);
  WriteFile(Paths().passwordFile, "known to all");
  std::filesystem::permissions(Paths().passwordFile, std::filesystem::perms(0666));
  chmod((sandbox_.Root() + "/var/nginx").c_str(), 0777);
  SubscriptionDb db = NewDb();
  EXPECT_TRUE(StartDb(db));
  EXPECT_EQ(ReadFile(victim_), "victim");
  EXPECT_EQ(Stored(), DocumentOf("AB"));
  EXPECT_EQ(FileNames(), "D K ") << "private";
  EXPECT_EQ(Errors(), "The folder FOLDER may be written by others, who can take or replace the files in it.\n");
}

TEST_F(DbSandboxTest, TheFolderIsOneDaemonsAndItsCommandsAlone) {
  LayOut("D=A");
  SubscriptionDb later = NewDb();
  {
    SubscriptionDb first = NewDb();
    EXPECT_TRUE(first.Start().PrepareFiles());
    EXPECT_FALSE(later.Start().PrepareFiles());
    RunShell("sleep 1 &");
  }
  EXPECT_FALSE(later.Start().PrepareFiles());
  EXPECT_EQ(waits_, std::vector<std::chrono::microseconds>(200, std::chrono::milliseconds(100))) << "10 s each";
  const std::string kLine =
      "Another daemon, or a command that it left running, uses the folder FOLDER; the start is given up.\n";
  EXPECT_EQ(Errors(), kLine + kLine);
  SubscriptionDb patient({.paths = Paths()});
  EXPECT_TRUE(patient.Start().PrepareFiles());
}

TEST_F(DbSandboxTest, WhatAStartTakesChangesCanBeMadeTo) {
  const std::string mark = "\xEF\xBB\xBF";
  const struct {
    std::string plain, defaults;
    const char* after;  // with B inserted
  } cases[] = {
      {mark + DocumentOf("A").dump(), "", "AB"},
      {R"({"Members": [{"@odata.id": "\u0000"}]})", DocumentOf("C").dump(), "CB"},
      {"", "[]", "B"},
      {"", "{\"Members\": {}}", "B"},
      {"", "no JSON", "B"},
  };
  for (const auto& row : cases) {
    LayOut("");
    WriteFile(Paths().plainDatabaseFile, row.plain);
    WriteFile(Paths().databaseFile, "");
    WriteFile(Paths().defaultDatabaseFile, row.defaults);
    WriteFile(Paths().resourceLoader, "#!/bin/sh\n");
    SubscriptionDb db = NewDb();
    EXPECT_TRUE(StartDb(db)) << row.plain << row.defaults << Errors();
    EXPECT_TRUE(db.InsertDbSubscription("B", MemberOf('B').dump(), kPrivileges, kEtagText)) << row.defaults << Errors();
    EXPECT_EQ(Stored()["Members"], DocumentOf(row.after)["Members"]) << row.plain << row.defaults;
    const bool hasFailed = Errors().find("Failed to parse default DB file to redis.") != std::string::npos;
    EXPECT_EQ(hasFailed, row.after == std::string("B"));
  }
}

TEST_F(DbSandboxTest, AToolThatHasDoneNothingCostsNoFile) {
  LayOut("D/ P:AB");
  FilePaths paths = Paths();
  paths.openssl = "/bin/true";
  SubscriptionDb db({.paths = paths});
  EXPECT_FALSE(StartDb(db));
  EXPECT_EQ(ReadFile(Paths().plainDatabaseFile), DocumentOf("AB").dump());
}

}  // namespace
}  // namespace event_service
