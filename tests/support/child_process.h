/// A program of the machine or of the build as a child process.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace event_service {

/// True as soon as `holds` does, false when it does not within half a minute.
bool Eventually(const std::function<bool()>& holds);

/// It ends with this object, and with the process that started it, however that one ends.
class ChildProcess {
 public:
  ChildProcess() = default;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess() { Kill(); }

  /// The first word is found as a shell finds it. Both standard streams are appended to `outputFile`.
  void Start(std::vector<std::string> words, const std::string& outputFile);
  /// Ends it at once, as a crash would.
  void Kill();

  bool IsRunning();
  /// Waits for its end; -1 when it does not end by itself or is ended by a signal.
  int ExitStatus();
  pid_t Pid() const { return pid_; }

 private:
  pid_t pid_ = 0;  // 0: none
  int status_ = 0;
};

}  // namespace event_service
