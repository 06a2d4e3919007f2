#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <regex>

#include "foundation/durable_file.h"
#include "foundation/file_paths.h"
#include "foundation/logging.h"
#include "foundation/random.h"
#include "foundation/time_stamp.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"

namespace event_service {
namespace {

TEST(DurableFile, NothingThatWasLaidOutBeforehandIsReadOrWritten) {
  const SandboxRoot sandbox;
  const std::string path = sandbox.Root() + "/file", victim = sandbox.Root() + "/victim";
  for (const std::string kind : {"link", "second name", "fifo", "foreign", "folder"}) {
    SCOPED_TRACE(kind);
    const bool isFolder = kind == "folder", isRemoved = kind == "foreign" ? geteuid() == 0 : !isFolder;
    const bool isReadable = kind != "fifo" && !isFolder;  // others' files may be links
    const LogCapture log;
    Obstruct(path, kind, victim);
    EXPECT_TRUE(ReadWholeFile(path).has_value() == isReadable && ReadFirstLine(path).has_value() == isReadable);
    EXPECT_EQ(ReadOwnFile(path, 7).has_value(), kind == "foreign" && !isRemoved);
    EXPECT_EQ(std::filesystem::exists(std::filesystem::symlink_status(path)), !isRemoved);
    EXPECT_EQ(log.Errors().size(), isRemoved ? 1U : 0U);
    Obstruct(path + ".new", kind, victim);
    EXPECT_EQ(ReplaceFile(path, "own"), !isFolder);
    EXPECT_EQ(ReadFile(path), isFolder ? "" : "own");
    EXPECT_EQ(std::filesystem::exists(path + ".new"), isFolder) << "nothing is left behind";
    EXPECT_EQ(ReadFile(victim), "victim");
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

const std::string kInstead = " Messages will be written to stderr.\n";

class LoggingTest : public testing::Test {
 protected:
  ~LoggingTest() override { SetLogger(nullptr); }

  /// Makes the process's logger one with this configuration.
  void Configure(const std::string& content) {
    WriteFile(sandbox_.Paths().configuration, content);
    logger_ = {};
    SetLogger(&logger_);
    logger_.Initialise(sandbox_.Paths().configuration);
  }

  SandboxRoot sandbox_;
  const std::string file_ = sandbox_.Root() + "/var/event.log";
  const std::string useFile_ = "LOG_FILE=" + file_ + "\n";
  Logger logger_;
};

TEST_F(LoggingTest, WhatCannotBeConfiguredIsSaidOnStandardErrorWhichTakesTheLines) {
  const std::string badFile = sandbox_.Root() + "/missing/log";
  ChildProcess other;  // under an emulator no process has this program's name
  other.Start({"sleep", "60"}, sandbox_.Root() + "/output");
  const std::pair<std::string, std::string> cases[] = {
      {useFile_, ""},
      {"", "Log filename is not specified." + kInstead},
      {"LOG_FILE=" + badFile, "Failed to create the log filename - " + badFile + kInstead},
      {useFile_ + "LOG_SYSTEM=sleep", "sleep is found." + kInstead},
      {useFile_ + "LOG_SYSTEM=no-such-process", ""},
      {useFile_ + "LOG_FILE_SIZE=letters", "Error: Invalid argument\n"},
      {useFile_ + "LOG_FILE_SIZE=2147483648", "Error: Numerical result out of range\n"},
  };
  for (const auto& [configuration, said] : cases) {
    std::filesystem::remove(file_);
    const StreamCapture output(STDOUT_FILENO);  // pidof writes there
    const StreamCapture error(STDERR_FILENO);
    Configure(configuration);
    LogError("%s %d", "a line", 1);
    const bool isInstead = said.ends_with(kInstead);
    EXPECT_EQ(error.Text(), said + (isInstead ? "[Error]: a line 1\n" : "")) << configuration;
    EXPECT_NE(ReadFile(file_).ends_with(" [Error]: a line 1\n"), isInstead) << configuration;
  }
}

TEST_F(LoggingTest, ThePreviousRunsLogIsKeptOnce) {
  WriteFile(file_, "previous run");
  WriteFile(file_ + ".bak", "the run before");
  Configure(useFile_ + "LOG_FILE_BAK=" + file_ + ".bak");
  EXPECT_EQ(ReadFile(file_ + ".bak"), "previous run");
  EXPECT_EQ(ReadFile(file_), "");
}

TEST_F(LoggingTest, ALinkAtTheLogsPathIsReplaced) {
  const std::string victim = sandbox_.Root() + "/victim";
  Obstruct(file_, "link", victim);
  Configure(useFile_);
  Obstruct(file_, "link", victim);
  LogError("a line");
  EXPECT_TRUE(ReadFile(victim) == "victim" && ReadFile(file_).ends_with(" [Error]: a line\n"));
}

TEST_F(LoggingTest, OnlyTheExactLevelErrorSuppressesDebugLines) {
  for (const std::string level : {"error", "ERROR", "errors", ""}) {
    Configure(useFile_ + "LOG_LEVEL=" + level);
    LogDebug("detail");
    EXPECT_EQ(ReadFile(file_).ends_with("[Debug]: detail\n"), level != "error") << level;
  }
}

TEST_F(LoggingTest, ALineHoldsTheLocalTimeTheSecondsTheTagAndTheMessage) {
  Configure(useFile_);
  const std::string message(100'000, 'x');
  for (const int hoursEast : {0, 5, -11}) {  // the machine's zone may change while the daemon runs
    ASSERT_EQ(setenv("TZ", ("XYZ" + std::to_string(-hoursEast)).c_str(), 1), 0);
    std::filesystem::remove(file_);
    const time_t before = std::time(nullptr);
    LogError("%s", message.c_str());
    const std::string line = ReadFile(file_);
    const time_t seconds = std::stol(line.substr(line.find(':') + 6));
    EXPECT_TRUE(before <= seconds && seconds <= std::time(nullptr)) << line.substr(0, 60);
    const time_t shifted = seconds + hoursEast * 3600;
    tm local{};
    char date[64];
    std::strftime(date, sizeof date, "%b %e %T ", gmtime_r(&shifted, &local));
    EXPECT_EQ(line, date + std::to_string(seconds) + " [Error]: " + message + "\n");
  }
  unsetenv("TZ");
}

TEST_F(LoggingTest, WhatAMessageRepeatsCannotSteerATerminalNorBeginALine) {
  Configure(useFile_);
  LogError("URI %s", "\x1b[2J\n\t\x7f\xC2\x9B\xC2\xA0\xC3\xA4");
  EXPECT_TRUE(ReadFile(file_).ends_with("URI ?[2J????\xC2\xA0\xC3\xA4\n")) << ReadFile(file_);
}

TEST_F(LoggingTest, AFullLogIsMovedAsideBeforeTheNextLine) {
  for (const auto& [limit, size] : {std::pair("1000", 999u), {"1000", 1000u}, {"0", 1000u}, {"-5", 1000u}}) {
    Configure(useFile_ + "LOG_FILE_SIZE=" + limit);
    const std::string content(size, 'x');
    WriteFile(file_, content);
    LogError("next");
    std::string moved;
    for (const auto& entry : std::filesystem::directory_iterator(sandbox_.Root() + "/var")) {
      if (!std::regex_match(entry.path().string(), std::regex(file_ + "[0-9]{10}"))) continue;
      moved += ReadFile(entry.path());
      std::filesystem::remove(entry.path());
    }
    const bool rotates = std::stoul(limit) == size;
    EXPECT_EQ(moved, rotates ? content : "") << limit << " " << size;
    EXPECT_EQ(ReadFile(file_).find("Error") < 40, rotates) << "the first line of a new file";
  }
}

}  // namespace
}  // namespace event_service
