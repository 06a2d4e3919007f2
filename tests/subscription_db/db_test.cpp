#include <fcntl.h>
#include <sys/stat.h>

#include "tests/subscription_db/db_sandbox.h"

namespace event_service {
namespace {

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
    EXPECT_EQ(Errors().find("Uses default DB file instead.") != std::string::npos, fallsBack) << Errors();
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

using Change = std::function<bool(SubscriptionDb&)>;

/// The descriptors that a child of this process would be given, without the standard streams.
std::set<int> Inheritable() {
  std::set<int> result;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int descriptor = std::stoi(entry.path().filename());
    if (descriptor > 2 && fcntl(descriptor, F_GETFD) == 0) result.insert(descriptor);
  }
  return result;
}

TEST_F(DbSandboxTest, OnlyTheCipherToolIsGivenThePassPhraseAndEveryFileIsPrivate) {
  LayOut("D=A");
  const mode_t umaskBefore = umask(022);
  const std::set<int> givenToThisProcess = Inheritable();
  fails_ = [&](const std::string& command) {
    EXPECT_EQ(FileNames(), "D K P ") << command;
    std::set<int> expected = givenToThisProcess;
    std::smatch pipe;
    if (std::regex_search(command, pipe, std::regex("enc .* -pass fd:([0-9]+) "))) expected.insert(std::stoi(pipe[1]));
    EXPECT_EQ(Inheritable(), expected) << command;
    EXPECT_EQ(command.find(ReadFile(Paths().passwordFile)), std::string::npos);
    return false;
  };
  EXPECT_TRUE(NewDb().RefreshDbEtag(kEtagText));
  umask(umaskBefore);
  EXPECT_EQ(FileNames(), "D K ");
  EXPECT_EQ(Inheritable(), givenToThisProcess);
}

TEST_F(DbSandboxTest, AChangeRunsFourCommandsAndTouchesWhatItNamesOnlyOrNothing) {
  const auto insert = [](const std::string& text) -> Change {
    return [text](SubscriptionDb& db) { return db.InsertDbSubscription("B", text, kPrivileges, kEtagText); };
  };
  const auto insertWithout = [&](const char* name) {
    Json member = MemberOf('B');
    member.erase(name);
    return insert(member.dump());
  };
  const auto remove = [](const char* id) -> Change {
    return [id](SubscriptionDb& db) { return db.DeleteDbSubscription(kUris + id, kEtagText); };
  };
  const Change refresh = [](SubscriptionDb& db) { return db.RefreshDbEtag(kEtagText); };
  const Change update = [](SubscriptionDb& db) { return db.UpdateDbSubscription(kUris + "C", Json::object(), {}, ""); };
  const Change writeBack = [](SubscriptionDb& db) {
    Json outside = MemberOf('C');
    outside["@odata.id"] = kUris + "C/D";
    return !db.WriteBackDbSubscriptions(std::vector{MemberOf('D'), outside, MemberOf('a'), MemberOf(' ')}, kEtagText);
  };
  const struct {
    std::string before;  // members, or a text that is no document
    Change change;
    std::string after;  // a line where it is refused
  } cases[] = {
      {"A", insertWithout("&&Privileges"), "AB"},
      {"AAB", insert(MemberOf('a').dump()), "Ba"},
      {"ABB", remove("B"), "AB"},
      {"A", remove(""), "A"},
      {"A", refresh, "A"},
      {"AB", writeBack, "BDa"},
      {"cut {", refresh, "Cannot load database from file.\n"},
      {"{\"x\": " + std::string(64, '[') + std::string(64, ']') + "}", refresh, "Cannot load database from file.\n"},
      {"[]", insert("{}"), "DB root object is empty.\n"},
      {"{}", insert("{}"), "Subscription DB file lack of \"Members\" field.\n"},
      {R"({"Members": 1})", update, "Failed to get \"Members\" array from DB file\n"},
      {"A", update, "Failed to update the subscription " + kUris + "C in the DB file.\n"},
      {"A", insert(R"({"@odata.id": "\u0000"})"), "Subscription B is empty.\n"},
      {"A", insertWithout("@odata.id"), "The DB file cannot hold a subscription with the URI \"\".\n"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.before + " becomes " + row.after);
    LayOut("");
    StoreText(Paths(), std::isupper(row.before[0]) != 0 ? DocumentOf(row.before).dump() : row.before);
    log_.Clear();
    const auto filesBefore = Files();
    SubscriptionDb db = NewDb();
    const bool isRefused = row.after.ends_with('\n');
    EXPECT_NE(row.change(db), isRefused);
    if (isRefused) {
      EXPECT_EQ(Errors(), row.after);
      EXPECT_EQ(Files(), filesBefore);
    } else {
      EXPECT_EQ(commands_, 4U);
      EXPECT_EQ(Stored(), DocumentOf(row.after, "\"ABC\""));
    }
  }
  WriteFile(Paths().databaseFile, "Salted__");
  SubscriptionDb db = NewDb();
  EXPECT_FALSE(refresh(db));
  EXPECT_TRUE(waits_.empty()) << "a change does not wait";
  std::filesystem::resize_file(Paths().databaseFile, size_t{64} * 1024 * 1024 + 1);
  commands_ = 0;
  EXPECT_FALSE(refresh(db));
  EXPECT_EQ(commands_, 1U) << "what is larger than any file of ours is not decrypted";
}

TEST_F(DbSandboxTest, AnUpdateMergesObjectsReplacesTheRestAndTakesOutWhatIsNamed) {
  const std::string kRawTag = "W/\\\"" + std::string(65, '[');
  LayOut("D=AB");
  const Json changes = Json::parse(R"({
    "Context": null, "Status": {"State": "Disabled"}, "SNMP": {"TrapCommunity": "EF56"}, "HttpHeaders": []})");
  EXPECT_TRUE(NewDb().UpdateDbSubscription(kUris + "B", changes, {"SNMP/AuthenticationKey", "No/Such"}, kRawTag));
  Json expected = DocumentOf("AB", kRawTag);
  expected["Members"][1].update(changes);
  expected["Members"][1]["SNMP"] = {{"AuthenticationKeySet", true}, {"TrapCommunity", "EF56"}};
  EXPECT_EQ(Stored(), expected);
  EXPECT_TRUE(NewDb().InsertDbSubscription("C", MemberOf('C').dump(), "\xff", std::string_view("\"a\"\0b", 5)));
  EXPECT_EQ(Errors(),
            "Subscription C goes into the DB file without its privileges: they are no text.\n"
            "Failed to set etag into db file.\n");
  EXPECT_EQ(Stored()["@odata.etag"], kRawTag);
}

TEST_F(DbSandboxTest, AChangeThatFailedIsMadeWithTheNextAndNotAgain) {
  LayOut("D=A");
  SubscriptionDb db = NewDb();
  const auto remove = [&](const std::string& id) { return db.DeleteDbSubscription(kUris + id, kEtagText); };
  const auto insertB = [&] { return db.InsertDbSubscription("B", MemberOf('B').dump(), kPrivileges, kEtagText); };
  const auto failWhile = [&](const std::string& option, const std::function<void()>& changes) {
    fails_ = [option](const std::string& command) { return command.find(option) != std::string::npos; };
    changes();
    fails_ = [](const std::string&) { return false; };
  };
  const auto expectAfter = [&](const std::string& removed, const std::string& ids) {
    EXPECT_TRUE(remove(removed));
    EXPECT_EQ(Stored(), DocumentOf(ids, "\"ABC\"")) << "without " << removed;
  };
  failWhile(" -d ", [&] { EXPECT_FALSE(remove("B") || insertB()); });  // in their order
  EXPECT_TRUE(db.RefreshDbEtag(kEtagText));
  EXPECT_EQ(Stored(), DocumentOf("AB", "\"ABC\""));
  for (const auto& [removed, after] : {std::pair("C", "AB"), {"B", "A"}, {"C", "A"}}) expectAfter(removed, after);
  for (const auto& [changes, after] : {std::pair(255, "AB"), {256, "A"}}) {  // beyond 256 the oldest is given up
    failWhile(" -d ", [&, count = changes] {
      EXPECT_FALSE(insertB());
      for (int i = 0; i < count; ++i) EXPECT_FALSE(remove("C"));
    });
    expectAfter("D", after);
    expectAfter("B", "A");
  }
  for (const auto& [isTaken, after] : {std::pair(true, "AB"), {false, "A"}}) {  // a startup loads what is written now
    failWhile(" -d ", [&, settles = !isTaken] {
      EXPECT_FALSE(insertB());
      if (settles) db.SettleUnwritten();
    });
    db.SettleUnwritten();
    EXPECT_EQ(Stored(), DocumentOf(after, "\"ABC\"")) << isTaken;
    expectAfter("D", after);
    expectAfter("B", "A");
  }
  commands_ = 0;
  db.SettleUnwritten();
  EXPECT_EQ(commands_, 0U) << "nothing is left";
  failWhile(" enc -aes", [&] { EXPECT_FALSE(insertB() || remove("A")); });
  EXPECT_EQ(Json::parse(ReadFile(Paths().plainDatabaseFile)), DocumentOf("AB", "\"ABC\"")) << "what is ahead stays";
  std::filesystem::remove(Paths().plainDatabaseFile);
  EXPECT_TRUE(remove("C")) << "goes on without a plain file that somebody took";
}

TEST_F(DbSandboxTest, APasswordIsTheFirstLineOfItsFileOrGeneratedOnce) {
  const struct {
    std::string content;
    bool isUsed;
    const char* files = "D K ";
  } cases[] = {{"two words\nmore", true},
               {std::string(1022, 'a') + "\n", true},
               {std::string(1023, 'a'), false, "D K K.unreadable "},
               {"", false},
               {"\nsecret", false}};
  for (const auto& row : cases) {
    LayOut("");
    WriteFile(Paths().passwordFile, row.content);
    std::filesystem::permissions(Paths().passwordFile, std::filesystem::perms(0600));
    EXPECT_TRUE(NewDb().File().Password().EnsureDbPassword()) << row.content;
    const std::string password = ReadFile(Paths().passwordFile);
    EXPECT_EQ(password == row.content, row.isUsed) << row.content;
    EXPECT_TRUE(row.isUsed || std::regex_match(password, std::regex("[0-9A-Za-z]{16}"))) << password;
    StoreText(Paths(), DocumentOf("A").dump());
    EXPECT_EQ(Stored(), DocumentOf("A")) << row.content;
    EXPECT_EQ(ReadFile(Paths().passwordFile), password) << "not once: " << row.content;
    EXPECT_EQ(FileNames(), row.files) << row.content;
  }
}

TEST_F(DbSandboxTest, APasswordFileThatIsLostIsWrittenAgainBeforeTheNextEncryption) {
  LayOut("D=A");
  SubscriptionDb db = NewDb();
  ASSERT_TRUE(db.RefreshDbEtag(kEtagText));
  WriteFile(Paths().passwordFile, "another");
  EXPECT_TRUE(db.RefreshDbEtag(kEtagText));
  EXPECT_EQ(Errors(), "The password file was missing or changed and has been written again.\n");
  EXPECT_EQ(Stored(), DocumentOf("A", "\"ABC\""));
}

}  // namespace
}  // namespace event_service
