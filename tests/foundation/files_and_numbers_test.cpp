#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <regex>

#include "foundation/durable_file.h"
#include "foundation/file_paths.h"
#include "foundation/random.h"
#include "foundation/shell.h"
#include "foundation/text_numbers.h"
#include "tests/support/log_capture.h"

namespace event_service {
namespace {

TEST(DurableFile, ReplacesTheWholeFileOrLeavesIt) {
  const SandboxRoot sandbox;
  const std::string path = sandbox.Root() + "/folder/file";
  EXPECT_FALSE(ReplaceFile(path, "x")) << "no folder";
  WriteFile(path, "old content, longer than the new one");
  WriteFile(path + ".new", "left over from an interrupted run, longer still than the others");
  chmod((path + ".new").c_str(), 0644);
  const std::string content("new\0content\n", 12);
  ASSERT_TRUE(ReplaceFile(path, content));
  EXPECT_EQ(ReadFile(path), content);
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);

  std::filesystem::create_directory(path + ".new");
  EXPECT_FALSE(ReplaceFile(path, "x"));
  EXPECT_EQ(ReadFile(path), content);
  std::filesystem::remove(path + ".new");

  std::filesystem::create_directories(sandbox.Root() + "/taken/inside");
  EXPECT_FALSE(ReplaceFile(sandbox.Root() + "/taken", "x")) << "a folder stands there";
  EXPECT_FALSE(FileExists(sandbox.Root() + "/taken.new")) << "nothing is left behind";
}

TEST(FilePathsTest, ARootMovesEveryPath) {
  EXPECT_EQ(MakeFilePaths("")->configuration, "/usr/local/etc/nginx/eventingMode.conf");
  EXPECT_EQ(MakeFilePaths("/")->configuration, "/usr/local/etc/nginx/eventingMode.conf");
  EXPECT_EQ(MakeFilePaths("/a-b_c.d+e/")->databaseFile, "/a-b_c.d+e/var/nginx/EventSubscriptionInfo.json");
  EXPECT_EQ(MakeFilePaths("/r")->systemCertificates, "/r/etc/default/obmc/cert/");
  for (const char* root :
       {"/a b", "/a'b", "/a\"b", "/$HOME", "/a;b", "/a\nb", "~", "/a*", "/(a)", "-rf", "/\xC3\xA4"}) {
    EXPECT_EQ(MakeFilePaths(root), std::nullopt) << root;
  }
}

TEST(Shell, OnlyExitStatusZeroIsSuccess) {
  EXPECT_EQ(RunShell("exit 0"), 0);
  for (const char* command : {"exit 1", "exit 255", "kill -9 $$", "/missing/program 2>/dev/null"}) {
    EXPECT_EQ(RunShell(command), -1) << command;
  }
}

TEST(Random, FailuresAreLoggedAndGiveZero) {
  const SandboxRoot sandbox;
  const std::string device = sandbox.Root() + "/device";
  LogCapture log;
  EXPECT_EQ(RandomNumber(device.c_str()), 0u);
  EXPECT_EQ(log.Errors().back(), "Failed to read /dev/urandom.");
  WriteFile(device, "abc");
  EXPECT_EQ(RandomNumber(device.c_str()), 0u);
  EXPECT_EQ(log.Errors().back(), "Failed to generate random number.");
  const uint32_t number = 0x01020304;
  WriteFile(device, std::string_view(reinterpret_cast<const char*>(&number), sizeof number));
  EXPECT_EQ(RandomNumber(device.c_str()), number);

  log.Clear();
  const std::string etag = NewEtag();
  EXPECT_TRUE(std::regex_match(etag, std::regex("\"[0-9A-F]{16}\""))) << etag;
  EXPECT_NE(etag, NewEtag());
  EXPECT_TRUE(log.Lines().empty());
}

TEST(ParseIntegerTest, ConvertsWholeTextsOnly) {
  const struct {
    const char* text;
    std::errc error;
    int32_t value = -77;  // what it held before
  } cases[] = {
      {"0", {}, 0},
      {"+5", {}, 5},
      {"2147483647", {}, 2147483647},
      {"-2147483648", {}, -2147483648},
      {"2147483648", std::errc::result_out_of_range},
      {"-99999999999999999999", std::errc::result_out_of_range},
      {"99999999999999999999x", std::errc::invalid_argument},
      {"", std::errc::invalid_argument},
      {"+", std::errc::invalid_argument},
      {" 5", std::errc::invalid_argument},
      {"5 ", std::errc::invalid_argument},
  };
  for (const auto& row : cases) {
    int32_t value = -77;
    EXPECT_EQ(ParseInteger(std::string_view(row.text), value), row.error) << row.text;
    EXPECT_EQ(value, row.value) << row.text;
  }
  uint32_t count = 1;
  EXPECT_EQ(ParseInteger("-1", count), std::errc::invalid_argument);
}

}  // namespace
}  // namespace event_service
