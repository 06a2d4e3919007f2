#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <regex>

#include "foundation/durable_file.h"
#include "foundation/file_paths.h"
#include "foundation/random.h"
#include "foundation/time_stamp.h"
#include "tests/support/log_capture.h"

namespace event_service {
namespace {

TEST(DurableFile, NothingThatWasLaidOutBeforehandIsReadOrWritten) {
  const SandboxRoot sandbox;
  const std::string path = sandbox.Root() + "/file", victim = sandbox.Root() + "/victim";
  const struct {
    const char* kind;
    bool isRemoved, isReadable;
  } cases[] = {{"link", true, true},
               {"second name", true, true},
               {"fifo", true, false},
               {"foreign", geteuid() == 0, true},
               {"folder", false, false}};
  for (const auto& row : cases) {
    const LogCapture log;
    Obstruct(path, row.kind, victim);
    EXPECT_EQ(ReadWholeFile(path).has_value(), row.isReadable) << row.kind << ": others' files may be links";
    EXPECT_EQ(ReadFirstLine(path).has_value(), row.isReadable) << row.kind;
    EXPECT_EQ(ReadOwnFile(path, 7).has_value(), std::string(row.kind) == "foreign" && !row.isRemoved) << row.kind;
    EXPECT_EQ(std::filesystem::exists(std::filesystem::symlink_status(path)), !row.isRemoved) << row.kind;
    EXPECT_EQ(log.Errors().size(), row.isRemoved ? 1U : 0U) << row.kind;
    Obstruct(path + ".new", row.kind, victim);
    const bool isFolder = std::string(row.kind) == "folder";
    EXPECT_EQ(ReplaceFile(path, "own"), !isFolder) << row.kind;
    EXPECT_EQ(ReadFile(path), isFolder ? "" : "own") << row.kind;
    EXPECT_EQ(std::filesystem::exists(path + ".new"), isFolder) << row.kind << ": nothing is left behind";
    EXPECT_EQ(ReadFile(victim), "victim") << row.kind;
    std::filesystem::remove_all(path);
  }
  std::filesystem::create_directories(path + "/inside");
  std::filesystem::remove_all(path + ".new");
  EXPECT_FALSE(ReplaceFile(path, "x") || std::filesystem::exists(path + ".new")) << "a folder stands there";
  std::filesystem::remove_all(path);
  WriteFile(path, "");
  std::filesystem::resize_file(path, kLargestFile + 1);
  EXPECT_EQ(ReadWholeFile(path), std::nullopt) << "larger than any file of ours";
  WriteFile(path, "content");
  chmod(path.c_str(), 0666);
  EXPECT_EQ(ReadOwnFile(path, 7), "content");
  EXPECT_EQ(ReadOwnFile(path, 6), std::nullopt);
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0600));
}

TEST(FilePathsTest, ARootMovesEveryPathUnlessAShellWouldHaveToQuoteIt) {
  EXPECT_EQ(MakeFilePaths("/a-b_c.d+e/")->databaseFile, "/a-b_c.d+e/var/nginx/EventSubscriptionInfo.json");
  for (const char* root :
       {"/a b", "/a'b", "/a\"b", "/$HOME", "/a;b", "/a\nb", "~", "/a*", "/(a)", "-rf", "/\xC3\xA4"}) {
    EXPECT_EQ(MakeFilePaths(root), std::nullopt) << root;
  }
}

TEST(Random, GivesQuotedEtagsAndZeroFromABadDevice) {
  const LogCapture log;
  const std::string etag = NewEtag();
  EXPECT_TRUE(std::regex_match(etag, std::regex("\"[0-9A-F]{16}\""))) << etag;
  EXPECT_NE(etag, NewEtag());
  EXPECT_EQ(RandomNumber("/missing"), 0U);
  EXPECT_EQ(log.Errors(), std::vector<std::string>{"Failed to read /dev/urandom."});
}

TEST(TimeStamps, CarryTheOffsetWithAColon) {
  for (const auto& [zone, stamp] :
       {std::pair("IST-5:30", "2024-03-01T05:29:58+05:30"), {"YYY+3", "2024-02-29T20:59:58-03:00"}}) {
    setenv("TZ", zone, 1);
    tzset();
    EXPECT_EQ(TimeStamp(1709251198), stamp);
  }
  unsetenv("TZ");
  tzset();
}

}  // namespace
}  // namespace event_service
