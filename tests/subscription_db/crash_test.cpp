// Whatever step a process is stopped or refused at, the next start with an emptied Redis brings back what was
// acknowledged, with or without the change in flight.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <sstream>

#include "foundation/shell.h"
#include "resource_store/resource_editor.h"
#include "resource_store/resource_reader.h"
#include "subscription_db/subscription_db.h"
#include "tests/subscription_db/db_sandbox.h"
#include "tests/support/redis_test.h"

namespace fs = std::filesystem;

namespace event_service {
namespace {

const std::string kCollection = "/redfish/v1/EventService/Subscriptions";

/// Id -> Context of each subscription.
using Subscriptions = std::map<std::string, std::string>;

Subscriptions SetOf(std::string_view ids) {
  Subscriptions set;
  for (const char id : ids) set[std::string(1, id)] = "here";
  return set;
}

struct Outcome {
  std::vector<std::string> results;  // "ok" or "failed", an operation each
  int steps = 0;                     // taken in all; 0 for a process that was stopped
};

/// The operations, such as "insert:A", of a line.
std::vector<std::string> WordsOf(const std::string& line) {
  std::istringstream text(line);
  return {std::istream_iterator<std::string>(text), {}};
}

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
    WriteFile(Sandbox().Paths().defaultDatabaseFile, DocumentOf("").dump());
    umask(077);
  }
  void TearDown() override { umask(022); }

  static void LayOut(const std::string& files) { LayOutFiles(Sandbox().Paths(), files); }

  /// Runs the operations in a process of their own.
  static Outcome Run(const std::string& operations, const std::string& fault = "") {
    const std::string output = Sandbox().Root() + "/output";
    RunShell("EVENT_SERVICE_ROOT=" + Sandbox().Root() + " STEP_FAULT='" + fault + "' " CRASH_STEPS " " + operations +
             " >" + output + " 2>/dev/null");
    Outcome outcome = {.results = WordsOf(ReadFile(output))};
    if (outcome.results.empty() || std::isdigit(static_cast<unsigned char>(outcome.results.back()[0])) == 0) {
      return outcome;
    }
    outcome.steps = std::stoi(outcome.results.back());
    outcome.results.pop_back();
    return outcome;
  }

  /// What a start with an emptied Redis finds.
  Subscriptions Restart() {
    SendArguments(redis(), {"FLUSHALL"});
    EXPECT_EQ(Run("start").results, WordsOf("ok"));
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
    ExpectPrivateFiles();
    return found;
  }

  static void ExpectPrivateFiles() {
    for (const auto& entry : fs::directory_iterator(Sandbox().Root() + "/var/nginx")) {
      EXPECT_EQ(fs::status(entry).permissions() & fs::perms(077), fs::perms::none) << entry.path();
    }
  }

  void ExpectOneOf(const std::vector<Subscriptions>& allowed, const std::string& what) {
    const Subscriptions found = Restart();
    EXPECT_GT(std::ranges::count(allowed, found), 0) << what << ": " << testing::PrintToString(found);
  }
};

TEST_F(CrashTest, EachFileIsOnTheDiskBeforeTheOtherIsGivenUp) {
  LayOut("D=A");
  const std::string trace = Sandbox().Root() + "/trace";
  setenv("STEP_TRACE", trace.c_str(), 1);
  Run("insert:B");
  unsetenv("STEP_TRACE");
  std::istringstream text(ReadFile(trace));
  std::string steps;
  for (std::string line; std::getline(text, line);) {
    const bool encrypts = line.find(" enc -aes") != std::string::npos;
    const bool flushes = line.starts_with("flush ");
    steps += encrypts ? "encrypt\n" : (flushes ? "flush " : "to ") + line.substr(line.rfind('/') + 1) + "\n";
  }
  EXPECT_EQ(steps,
            "to EventSubscriptionInfo.tmp.json\nto EventSubscriptionInfo.tmp.json\n"
            "flush EventSubscriptionInfo.tmp.json\nflush nginx\nencrypt\n"
            "flush EventSubscriptionInfo.json\nflush nginx\nto EventSubscriptionInfo.tmp.json\n");
}

TEST_F(CrashTest, StartsAndChangesThatAreStoppedOrRefusedAtAnyStep) {
  const struct {
    const char* files;
    const char* operations;
    const char* before;
    const char* faults;
  } scenarios[] = {
      {"", "start", "", "stop fail"},               // the first start
      {"D=AB", "start", "AB", "stop fail full"},    //
      {"D=A D/ P:AB", "start", "AB", "stop full"},  // the plain file is ahead
      {"D=AB P:C P/", "start", "AB", "stop full"},  // the plain file was cut short
      {"D=A D/", "start", "", "stop full"},         // falls back
      {"D:AB", "start", "AB", "stop full"},         // an unencrypted file
      {"D=AB", "insert:C", "AB", "stop full"},
      {"D=AB", "start update:B delete:A insert:C", "AB", "stop"},
      {"D=AB", "update:B", "AB", "stop"},
      {"D=AB", "delete:A", "AB", "stop"},
      {"D=AB", "update:B delete:A", "AB", "fail"},
  };
  for (const auto& row : scenarios) {
    for (const std::string& kind : WordsOf(row.faults)) {
      Outcome outcome;
      // Until the fault lies behind the last step.
      for (int step = 1; outcome.steps == 0 || outcome.steps >= step - 1; ++step) {
        LayOut(row.files);
        const std::string fault = kind + " " + std::to_string(step);
        outcome = Run(row.operations, fault);
        if (step % 3 == 0) Run("start", "stop " + std::to_string(1 + step * 7 % 24));
        ExpectOneOf(AllowedSets(WordsOf(row.operations), outcome, SetOf(row.before)),
                    std::string(row.files) + ", " + row.operations + ", " + fault);
      }
    }
  }
}

TEST_F(CrashTest, AFileWithAFlippedBitOrCutShortIsTakenWhenWholeAndKeptWhenNot) {
  const FilePaths& paths = Sandbox().Paths();
  std::mt19937 random(20240301);
  for (int round = 0; round < 40; ++round) {
    LayOut("D=AB");
    const std::string& path = round % 8 == 0 ? paths.passwordFile : paths.databaseFile;
    std::string content = ReadFile(path);
    const size_t position = random() % content.size();
    content[position] = static_cast<char>(content[position] ^ (1 << random() % 8));
    if (round % 4 == 1) content.resize(position);
    WriteFile(path, content);
    const std::string damaged = ReadFile(paths.databaseFile);
    if (Restart() == SetOf("AB")) continue;
    // Moved first when no password was left.
    const std::string moved = paths.plainDatabaseFile + ".unreadable";
    EXPECT_EQ(ReadFile(FileExists(moved) ? moved : paths.databaseFile + ".unreadable"), damaged) << "round " << round;
  }
}

TEST_F(CrashTest, NoSecretIsSeenOutsideTheFilesOfTheOwner) {
  const std::string root = Sandbox().Root();
  // Records what anyone sees in the process list and in the tool's own environment while it runs.
  WriteFile(root + "/usr/bin/openssl", "#!/bin/sh\nexport >> " + root + "/seen\n" +
                                           "for p in /proc/[0-9]*; do tr '\\0' ' ' < $p/cmdline; done >> " + root +
                                           "/seen 2>/dev/null\nexec /usr/bin/openssl \"$@\"\n");
  fs::permissions(root + "/usr/bin/openssl", fs::perms::owner_all);
  umask(022);
  LayOut("");
  EXPECT_EQ(RunShell("EVENT_SERVICE_ROOT=" + root + " " CRASH_STEPS " start insert:A update:A start delete:A insert:B" +
                     " >" + root + "/said 2>&1"),
            0);
  const std::string said = ReadFile(root + "/said");
  EXPECT_EQ(said.find("failed"), std::string::npos) << said;
  const std::string seen = ReadFile(root + "/seen");
  EXPECT_NE(seen.find("-pass fd:"), std::string::npos);
  const std::string password = ReadFile(Sandbox().Paths().passwordFile);
  ASSERT_EQ(password.size(), 16U);
  for (const std::string& secret : {password, std::string("AB12"), std::string("CD34"), std::string("X-Token")}) {
    EXPECT_EQ((seen + said).find(secret), std::string::npos) << secret;
  }
  ExpectPrivateFiles();
}

}  // namespace
}  // namespace event_service
