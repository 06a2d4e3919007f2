/// What the code under test wrote: to the process log, to standard output, to standard error.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "foundation/logging.h"
#include "tests/support/sandbox_root.h"

namespace event_service {

/// What stands behind this tag in the lines of a log.
std::vector<std::string> MessagesIn(const std::string& log, const std::string& tag);

/// Makes the process log a temporary file while it lives.
class LogCapture {
 public:
  LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture() { SetLogger(nullptr); }

  /// The messages of the error lines so far, of the debug lines so far.
  std::vector<std::string> Errors() const { return MessagesIn(ReadFile(path_), "[Error]: "); }
  std::vector<std::string> DebugLines() const { return MessagesIn(ReadFile(path_), "[Debug]: "); }
  void Clear() { WriteFile(path_, ""); }

 private:
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
