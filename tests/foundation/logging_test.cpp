#include "foundation/logging.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <thread>
#include <vector>

#include "tests/support/log_capture.h"

namespace event_service {
namespace {

class LoggingTest : public testing::Test {
 protected:
  ~LoggingTest() override { SetLogger(nullptr); }

  /// Initialises the process's logger from this configuration, in which "LOG_FILE" may stand for LogFile().
  void Configure(const std::string& content) {
    WriteFile(sandbox_.Paths().configuration, content);
    logger_ = {};
    SetLogger(&logger_);
    logger_.Initialise(sandbox_.Paths().configuration);
  }
  std::string LogFile() const { return sandbox_.Root() + "/var/event.log"; }
  std::string UseLogFile() const { return "LOG_FILE=" + LogFile() + "\n"; }

  SandboxRoot sandbox_;
  Logger logger_;
};

TEST_F(LoggingTest, InitialisationFallsBackToStandardError) {
  const std::string noFolder = sandbox_.Root() + "/missing/event.log";
  const struct {
    std::string configuration;
    std::string said;
    bool enabled;
  } cases[] = {
      {UseLogFile(), "", true},
      {"", "Log filename is not specified. Messages will be written to stderr.\n", false},
      {"LOG_FILE=" + noFolder,
       "Failed to create the log filename - " + noFolder + " Messages will be written to stderr.\n", false},
      {UseLogFile() + "LOG_SYSTEM=foundation_test", "foundation_test is found. Messages will be written to stderr.\n",
       false},
      {UseLogFile() + "LOG_SYSTEM=no-such-process", "", true},
      {UseLogFile() + "LOG_FILE_SIZE=-5", "", true},
      {UseLogFile() + "LOG_FILE_SIZE=letters", "Error: Invalid argument\n", true},
      {UseLogFile() + "LOG_FILE_SIZE=2147483648", "Error: Numerical result out of range\n", true},
  };
  for (const auto& row : cases) {
    RemoveFile(LogFile());
    const StreamCapture output(STDOUT_FILENO);  // pidof writes there
    const StreamCapture error(STDERR_FILENO);
    Configure(row.configuration);
    EXPECT_EQ(error.Text(), row.said) << row.configuration;
    EXPECT_EQ(logger_.IsEnabled(), row.enabled) << row.configuration;
    EXPECT_EQ(FileExists(LogFile()), row.enabled) << row.configuration;
    LogError("%s %d", "a line", 1);
    EXPECT_EQ(error.Text(), row.said + (row.enabled ? "" : "[Error]: a line 1\n")) << row.configuration;
  }
}

TEST_F(LoggingTest, ARunningSystemLoggerLeavesTheOldLogAlone) {
  WriteFile(LogFile(), "previous run");
  const StreamCapture output(STDOUT_FILENO);
  const StreamCapture error(STDERR_FILENO);
  Configure("LOG_SYSTEM=foundation_test\n" + UseLogFile() + "LOG_FILE_BAK=" + LogFile() + ".bak\nLOG_LEVEL=error\n");
  EXPECT_EQ(ReadFile(LogFile()), "previous run");
  EXPECT_FALSE(FileExists(LogFile() + ".bak"));
  EXPECT_TRUE(logger_.WritesDebugLines()) << "initialisation ends before the level is read";
}

TEST_F(LoggingTest, KeepsThePreviousRunsLogOnce) {
  const std::string backup = LogFile() + ".bak";
  WriteFile(LogFile(), "previous run");
  WriteFile(backup, "the run before");
  Configure(UseLogFile() + "LOG_FILE_BAK=" + backup);
  EXPECT_EQ(ReadFile(backup), "previous run");
  EXPECT_EQ(ReadFile(LogFile()), "");

  WriteFile(LogFile(), "previous run");
  Configure(UseLogFile());
  EXPECT_EQ(ReadFile(LogFile()), "") << "without a backup path the file is emptied";
}

TEST_F(LoggingTest, OnlyTheExactLevelErrorSuppressesDebugLines) {
  const struct {
    const char* level;
    bool debug;
  } cases[] = {{"error", false}, {"ERROR", true}, {"errors", true}, {"", true}};
  for (const bool toFile : {true, false}) {
    for (const auto& row : cases) {
      const StreamCapture error(STDERR_FILENO);
      Configure((toFile ? UseLogFile() : "") + "LOG_LEVEL=" + row.level);
      LogDebug("detail");
      const std::string& text = toFile ? ReadFile(LogFile()) : error.Text();
      EXPECT_EQ(text.ends_with("[Debug]: detail\n"), row.debug) << row.level << (toFile ? " file" : " standard error");
    }
  }
}

TEST_F(LoggingTest, ALineHoldsTheLocalTimeTheSecondsTheTagAndTheMessage) {
  Configure(UseLogFile());
  const std::string longMessage(100'000, 'x');
  const time_t before = std::time(nullptr);
  LogError("%s", longMessage.c_str());
  const std::string line = ReadFile(LogFile());
  bool matches = false;
  for (time_t second = before; second <= before + 5; ++second) {
    tm local{};
    char date[64];
    std::strftime(date, sizeof date, "%b %e %T", localtime_r(&second, &local));
    matches |= line == std::string(date) + " " + std::to_string(second) + " [Error]: " + longMessage + "\n";
  }
  EXPECT_TRUE(matches) << line.substr(0, 60);
}

TEST_F(LoggingTest, AFullLogIsMovedAsideBeforeTheNextLine) {
  const struct {
    const char* limit;
    size_t size;
    bool rotates;
  } cases[] = {{"1000", 999, false}, {"1000", 1000, true}, {"0", 1000, false}, {"-5", 1000, false}, {"x", 1000, false}};
  for (const auto& row : cases) {
    SCOPED_TRACE(std::string(row.limit) + " " + std::to_string(row.size));
    const StreamCapture error(STDERR_FILENO);
    Configure(UseLogFile() + "LOG_FILE_SIZE=" + row.limit);
    const std::string content(row.size, 'x');
    WriteFile(LogFile(), content);
    const time_t before = std::time(nullptr);
    LogError("next");

    std::vector<std::string> rotated;
    for (time_t second = before; second <= before + 5; ++second) {
      const std::string path = LogFile() + std::to_string(second);
      if (FileExists(path)) rotated.push_back(path);
    }
    ASSERT_EQ(rotated.size(), row.rotates ? 1u : 0u);
    EXPECT_EQ(ReadFile(row.rotates ? rotated[0] : LogFile()).substr(0, row.size), content);
    EXPECT_TRUE(ReadFile(LogFile()).ends_with("[Error]: next\n"));
    if (row.rotates) RemoveFile(rotated[0]);
  }
}

TEST(LogCaptureTest, NoLineOfManyThreadsIsLostOrTorn) {
  constexpr size_t kThreads = 8;
  constexpr size_t kLines = 250;
  LogCapture log;
  std::vector<std::thread> threads;
  for (size_t thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([thread] {
      const std::string padding(thread * 1000, 'x');
      for (size_t line = 0; line < kLines; ++line) LogError("%zu %zu %s", thread, line, padding.c_str());
    });
  }
  for (std::thread& thread : threads) thread.join();

  std::vector<size_t> next(kThreads);
  for (const std::string& message : log.Errors()) {
    const size_t thread = static_cast<size_t>(message[0] - '0');
    ASSERT_LT(thread, kThreads);
    EXPECT_EQ(message,
              std::to_string(thread) + " " + std::to_string(next[thread]++) + " " + std::string(thread * 1000, 'x'));
  }
  EXPECT_EQ(next, std::vector<size_t>(kThreads, kLines));
}

}  // namespace
}  // namespace event_service
