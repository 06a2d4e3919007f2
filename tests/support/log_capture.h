/// What the code under test wrote: to the process log, to standard output, to standard error.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "foundation/logging.h"
#include "tests/support/sandbox_root.h"

namespace event_service {

/// What stands behind this tag in the lines of a log.
inline std::vector<std::string> MessagesIn(const std::string& log, const std::string& tag) {
  std::vector<std::string> messages;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    if (const size_t at = line.find(tag); at != std::string::npos) messages.push_back(line.substr(at + tag.size()));
  }
  return messages;
}

/// Makes the process log a temporary file while it lives.
class LogCapture {
 public:
  LogCapture() : path_(folder_.Root() + "/captured.log") {
    WriteFile(folder_.Paths().configuration, "LOG_FILE=" + path_ + "\n");
    logger_.Initialise(folder_.Paths().configuration);
    SetLogger(&logger_);
  }
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
  explicit StreamCapture(int descriptor)  // STDOUT_FILENO or STDERR_FILENO
      : path_(folder_.Root() + "/captured.txt"), descriptor_(descriptor), original_(dup(descriptor)) {
    std::fflush(nullptr);
    const int file = open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    dup2(file, descriptor_);
    close(file);
  }
  ~StreamCapture() {
    std::fflush(nullptr);
    dup2(original_, descriptor_);
    close(original_);
  }

  /// Everything written so far, by child processes too.
  std::string Text() const {
    std::fflush(nullptr);
    return ReadFile(path_);
  }

 private:
  SandboxRoot folder_;
  std::string path_;
  int descriptor_;
  int original_;
};

}  // namespace event_service
