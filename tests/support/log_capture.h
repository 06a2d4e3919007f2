/// What the code under test wrote: to the process log, to standard output, to standard error.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "foundation/logging.h"
#include "tests/support/sandbox_root.h"

namespace event_service {

/// Makes the process log a temporary file while it lives.
class LogCapture {
 public:
  struct Line {
    std::string level;  // "Error" or "Debug"
    std::string message;
    bool operator==(const Line&) const = default;
  };

  LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture() { SetLogger(nullptr); }

  /// Every line so far, in order.
  std::vector<Line> Lines() const;
  /// The messages of the error lines alone, of the debug lines alone.
  std::vector<std::string> Errors() const { return Messages("Error"); }
  std::vector<std::string> DebugLines() const { return Messages("Debug"); }
  void Clear() { WriteFile(path_, ""); }

 private:
  std::vector<std::string> Messages(const std::string& level) const;

  SandboxRoot folder_;
  std::string path_;
  Logger logger_;
};

/// Takes one of the process's standard streams while it lives.
class StreamCapture {
 public:
  explicit StreamCapture(int descriptor);  // STDOUT_FILENO or STDERR_FILENO
  StreamCapture(const StreamCapture&) = delete;
  StreamCapture& operator=(const StreamCapture&) = delete;
  ~StreamCapture();

  /// Everything written so far, by child processes too.
  std::string Text() const;

 private:
  SandboxRoot folder_;
  std::string path_;
  int descriptor_;
  int original_;
};

}  // namespace event_service
