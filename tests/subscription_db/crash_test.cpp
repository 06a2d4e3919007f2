// Whatever step a process is stopped or refused at, the next start with an emptied Redis brings back what was
// acknowledged, with or without the change in flight.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <sstream>

#include "foundation/shell.h"
#include "resource_store/resource_editor.h"
#include "resource_store/resource_reader.h"
#include "subscription_db/subscription_db.h"
#include "tests/subscription_db/db_documents.h"
#include "tests/support/redis_test.h"

namespace fs = std::filesystem;

namespace event_service {
namespace {

const std::string kCollection = "/redfish/v1/EventService/Subscriptions";

/// Id -> Context of each subscription.
using Subscriptions = std::map<std::string, std::string>;

struct Outcome {
  std::vector<std::string> results;  // "ok" or "failed", an operation each
  int steps = 0;                     // taken in all; 0 for a process that was stopped
};

void Apply(const std::string& operation, Subscriptions& set) {
  const std::string id = operation.substr(operation.find(':') + 1);
  if (operation.starts_with("insert")) set[id] = "here";
  if (operation.starts_with("update") && set.contains(id)) set[id] = "changed";
  if (operation.starts_with("delete")) set.erase(id);
}

/// The sets that may be found after these results: what was acknowledged is there, so is what an acknowledged change
/// followed; a change at the end that failed or was cut short is there wholly or not at all.
std::vector<Subscriptions> AllowedSets(const std::vector<std::string>& operations, const Outcome& outcome,
                                       const Subscriptions& before) {
  const auto lastDone = std::find(outcome.results.rbegin(), outcome.results.rend(), "ok");
  const auto certain = static_cast<size_t>(outcome.results.rend() - lastDone);
  const size_t begun = std::min(operations.size(), outcome.results.size() + (outcome.steps == 0 ? 1 : 0));
  std::vector<Subscriptions> sets = {before};
  for (size_t i = 0; i < begun; ++i) {
    std::vector<Subscriptions> changed = sets;
    for (Subscriptions& set : changed) Apply(operations[i], set);
    if (i >= certain) changed.insert(changed.end(), sets.begin(), sets.end());
    sets = std::move(changed);
  }
  return sets;
}

class CrashTest : public RedisTest {
 public:
  void SetUp() override {
    RedisTest::SetUp();
    fs::create_symlink(RESOURCE_LOADER, Sandbox().Paths().resourceLoader);
    WriteFile(Sandbox().Paths().defaultDatabaseFile, DocumentOf({}).dump());
    umask(077);
  }
  void TearDown() override { umask(022); }

  static std::string Plain() { return Sandbox().Paths().plainDatabaseFile; }
  static std::string Folder() { return Sandbox().Root() + "/var/nginx"; }

  /// Runs the operations in a process of their own.
  static Outcome Run(const std::vector<std::string>& operations, const std::string& fault = "") {
    std::string command = "EVENT_SERVICE_ROOT=" + Sandbox().Root() + " STEP_FAULT='" + fault + "' " CRASH_STEPS;
    for (const std::string& operation : operations) command += " " + operation;
    RunShell(command + " >" + Sandbox().Root() + "/output 2>/dev/null");
    std::istringstream output(ReadFile(Sandbox().Root() + "/output"));
    Outcome outcome;
    for (std::string line; output >> line;) {
      if (std::isdigit(static_cast<unsigned char>(line[0])) != 0) {
        outcome.steps = std::stoi(line);
      } else {
        outcome.results.push_back(line);
      }
    }
    return outcome;
  }

  /// What a start with an emptied Redis finds.
  Subscriptions Restart() {
    SendArguments(redis(), {"FLUSHALL"});
    EXPECT_EQ(Run({"start"}).results, std::vector<std::string>{"ok"});
    Subscriptions found;
    const RedisReply entries = SendArguments(redis(), {"LRANGE", MembersKey(kCollection), "0", "-1"});
    for (size_t i = 0; IsArray(entries) && i < entries->elements; ++i) {
      Json member;
      const std::string uri(MemberUriOf(TextOf(entries->element[i])));
      EXPECT_TRUE(ReadResource(redis(), uri, member, {.withControlFields = true})) << uri;
      const std::string id = member.value("Id", "");
      found[id] = member.value("Context", "");
      Json whole = MemberOf(id, found[id]);
      whole["&&Privileges"] = kPrivileges;
      EXPECT_EQ(member, whole) << uri;
    }
    for (const auto& entry : fs::directory_iterator(Folder())) {
      EXPECT_EQ(fs::status(entry).permissions() & fs::perms(077), fs::perms::none) << entry.path();
    }
    return found;
  }

  /// Empties the folder and lays out what a scenario begins with.
  static void LayOut(const std::function<void()>& prepare) {
    fs::remove_all(Folder());
    fs::create_directories(Folder());
    prepare();
    fs::remove_all(Saved());
    fs::copy(Folder(), Saved(), fs::copy_options::recursive);
  }
  static void LayOutAgain() {
    fs::remove_all(Folder());
    fs::copy(Saved(), Folder(), fs::copy_options::recursive);
  }
  static std::string Saved() { return Sandbox().Root() + "/saved"; }

  void ExpectOneOf(const std::vector<Subscriptions>& allowed, const std::string& what) {
    const Subscriptions found = Restart();
    EXPECT_GT(std::ranges::count(allowed, found), 0) << what << ": " << testing::PrintToString(found);
  }

  /// Tries the operations with the fault at their first step, their second, and so on to the last.
  void TryEveryStep(const std::string& name, const std::string& kind, const std::vector<std::string>& operations,
                    const Subscriptions& before) {
    for (int step = 1;; ++step) {
      LayOutAgain();
      const std::string fault = kind + " " + std::to_string(step);
      const Outcome outcome = Run(operations, fault);
      ExpectOneOf(AllowedSets(operations, outcome, before),
                  name + ", " + fault + ", " + testing::PrintToString(outcome.results));
      if (outcome.steps != 0 && outcome.steps < step) break;  // the fault was not reached
    }
  }
};

const Subscriptions kNone;
const Subscriptions kTwo = {{"A", "here"}, {"B", "here"}};

void StorePlain(const std::vector<std::string>& ids) { WriteFile(CrashTest::Plain(), DocumentOf(ids).dump()); }

/// The first word of a command's program, or the flushed file; paths without their folders.
std::string Short(const std::string& line) {
  const std::string last = line.substr(line.rfind('/') + 1);
  if (line.starts_with("flush ")) return "flush " + last;
  return line.find(" -d ") != std::string::npos    ? "decrypt"
         : line.find(" enc ") != std::string::npos ? "encrypt"
                                                   : last;
}

TEST_F(CrashTest, EachFileIsOnTheDiskBeforeTheOtherIsGivenUp) {
  StorePlain({"A"});
  WriteFile(Sandbox().Paths().databaseFile, "");
  const std::string trace = Sandbox().Root() + "/trace";
  setenv("STEP_TRACE", trace.c_str(), 1);
  Run({"start"});
  RemoveFile(trace);
  Run({"insert:B"});
  unsetenv("STEP_TRACE");
  std::vector<std::string> lines;
  std::istringstream text(ReadFile(trace));
  for (std::string line; std::getline(text, line);) lines.push_back(Short(line));
  const std::string plain = "EventSubscriptionInfo.tmp.json";
  EXPECT_EQ(lines, (std::vector<std::string>{"decrypt", plain, "flush " + plain, "flush nginx", "encrypt",
                                             "flush EventSubscriptionInfo.json", "flush nginx", plain}));
}

TEST_F(CrashTest, StartsAndChangesThatAreStoppedOrRefusedAtAnyStep) {
  const FilePaths& paths = Sandbox().Paths();
  const auto store = [&](const std::vector<std::string>& ids) {
    StorePlain(ids);
    WriteFile(paths.databaseFile, "");
    EXPECT_EQ(Run({"start"}).results.size(), 1U);
  };
  const auto damage = [](const std::string& path) { WriteFile(path, ReadFile(path).substr(0, 40)); };
  const std::vector<std::string> start = {"start"};
  const struct {
    const char* name;
    std::function<void()> prepare;
    std::vector<std::string> operations;
    Subscriptions before;
    std::vector<const char*> faults;
  } scenarios[] = {
      {"first start", [] {}, start, kNone, {"stop", "fail"}},
      {"restart",
       [&] {
         store({"A", "B"});
       },
       start,
       kTwo,
       {"stop", "fail", "full"}},
      {"plain file ahead",
       [&] {
         store({"A"});
         damage(paths.databaseFile);
         StorePlain({"A", "B"});
       },
       start,
       kTwo,
       {"stop", "full"}},
      {"plain file cut short",
       [&] {
         store({"A", "B"});
         StorePlain({"C"});
         damage(paths.plainDatabaseFile);
       },
       start,
       kTwo,
       {"stop", "full"}},
      {"fallback",
       [&] {
         store({"A"});
         damage(paths.databaseFile);
       },
       start,
       kNone,
       {"stop", "full"}},
      {"legacy file",
       [&] {
         WriteFile(paths.databaseFile, DocumentOf({"A", "B"}).dump());
       },
       start,
       kTwo,
       {"stop", "full"}},
      {"insert",
       [&] {
         store({"A", "B"});
       },
       {"insert:C"},
       kTwo,
       {"stop", "full"}},
      {"update",
       [&] {
         store({"A", "B"});
       },
       {"update:B"},
       kTwo,
       {"stop"}},
      {"delete",
       [&] {
         store({"A", "B"});
       },
       {"delete:A"},
       kTwo,
       {"stop"}},
      {"change after a refused one",
       [&] {
         store({"A", "B"});
       },
       {"update:B", "delete:A"},
       kTwo,
       {"fail"}},
  };
  for (const auto& row : scenarios) {
    LayOut(row.prepare);
    for (const char* fault : row.faults) TryEveryStep(row.name, fault, row.operations, row.before);
  }
}

TEST_F(CrashTest, RandomStopsDuringStreamsOfChangesAndDuringTheStartsThatFollow) {
  std::mt19937 random(20240229);
  const auto below = [&](int limit) { return std::uniform_int_distribution<int>(0, limit - 1)(random); };
  std::vector<Subscriptions> possible = {kNone};
  ExpectOneOf(possible, "first start");
  for (int round = 0; round < 25; ++round) {
    std::vector<std::string> changes = {"start"};
    for (int i = 0; i < 3; ++i) {
      const char* const kinds[] = {"insert:", "update:", "delete:"};
      changes.push_back(kinds[below(3)] + std::string(1, static_cast<char>('A' + below(4))));
    }
    const std::string fault = (below(2) != 0 ? "stop " : "fail ") + std::to_string(1 + below(100));
    const Outcome outcome = Run(changes, fault);
    std::vector<Subscriptions> after;
    for (const Subscriptions& set : possible) {
      for (Subscriptions& changed : AllowedSets(changes, outcome, set)) after.push_back(std::move(changed));
    }
    Run({"start"}, "stop " + std::to_string(1 + below(60)));
    const Subscriptions found = Restart();
    EXPECT_GT(std::ranges::count(after, found), 0)
        << "round " << round << ", " << fault << ", " << testing::PrintToString(outcome.results) << ": "
        << testing::PrintToString(found);
    possible = {found};
  }
}

TEST_F(CrashTest, AFileWithAFlippedBitOrCutShortIsTakenWhenWholeAndKeptWhenNot) {
  const FilePaths& paths = Sandbox().Paths();
  LayOut([&] {
    StorePlain({"A", "B"});
    WriteFile(paths.databaseFile, "");
    Run({"start"});
  });
  std::mt19937 random(20240301);
  for (int round = 0; round < 40; ++round) {
    LayOutAgain();
    const std::string& path = round % 8 == 0 ? paths.passwordFile : paths.databaseFile;
    std::string content = ReadFile(path);
    const size_t position = random() % content.size();
    if (round % 4 == 1) {
      content.resize(position);
    } else {
      content[position] = static_cast<char>(content[position] ^ (1 << random() % 8));
    }
    WriteFile(path, content);
    const std::string damaged = ReadFile(paths.databaseFile);
    if (Restart() == kTwo) continue;
    // Moved first when no password was left.
    const std::string moved = paths.plainDatabaseFile + ".unreadable";
    EXPECT_EQ(ReadFile(FileExists(moved) ? moved : paths.databaseFile + ".unreadable"), damaged) << "round " << round;
  }
}

TEST_F(CrashTest, NoSecretIsSeenOutsideTheFilesOfTheOwner) {
  const FilePaths& paths = Sandbox().Paths();
  // Records what anyone sees in the process list and in the tool's own environment while it runs.
  const std::string tool = Sandbox().Root() + "/usr/bin/openssl";
  const std::string seen = Sandbox().Root() + "/seen";
  WriteFile(tool, "#!/bin/sh\nexport >> " + seen + "\nfor p in /proc/[0-9]*; do tr '\\0' ' ' < $p/cmdline; done >> " +
                      seen + " 2>/dev/null\nexec /usr/bin/openssl \"$@\"\n");
  fs::permissions(tool, fs::perms::owner_all);
  umask(022);
  const std::string all = Sandbox().Root() + "/all";
  const std::string operations = " start insert:A update:A start delete:A insert:B";
  EXPECT_EQ(RunShell("EVENT_SERVICE_ROOT=" + Sandbox().Root() + " " CRASH_STEPS + operations + " >" + all + " 2>&1"),
            0);
  EXPECT_EQ(ReadFile(all).find("failed"), std::string::npos) << ReadFile(all);

  const std::string password = ReadFile(paths.passwordFile);
  ASSERT_EQ(password.size(), 16U);
  const std::string process = ReadFile(seen);
  ASSERT_NE(process.find("-pass fd:"), std::string::npos);
  for (const std::string& text : {process, ReadFile(all)}) {
    for (const std::string& secret : {password, std::string("AB12"), std::string("CD34"), std::string("X-Token")}) {
      EXPECT_EQ(text.find(secret), std::string::npos) << secret;
    }
  }
  for (const auto& entry : fs::directory_iterator(Folder())) {
    EXPECT_EQ(fs::status(entry).permissions() & fs::perms(077), fs::perms::none) << entry.path();
  }
  // What everybody is told to read it with.
  const std::string decrypted = Sandbox().Root() + "/decrypted";
  EXPECT_EQ(RunShell("/usr/bin/openssl enc -d -aes-256-cbc  -in " + paths.databaseFile + " -k " + password + " >" +
                     decrypted + " 2>/dev/null"),
            0);
  EXPECT_EQ(Json::parse(ReadFile(decrypted), nullptr, false)["Members"][0]["Id"], "B");
}

}  // namespace
}  // namespace event_service
