/// The built daemon as a child process.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace event_service {

/// Runs the daemon below a root. It ends with this object, and with the process that started it.
class Daemon {
 public:
  Daemon() = default;
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;
  ~Daemon() { Kill(); }

  /// `root` becomes EVENT_SERVICE_ROOT; both standard streams go to `outputFile`.
  void Start(const std::string& root, const std::string& outputFile);
  /// Ends it at once, as a crash would.
  void Kill();

  bool IsRunning();
  /// The exit status, or nothing when it does not end by itself within half a minute or is ended by a signal.
  std::optional<int> WaitForExit();
  pid_t Pid() const { return pid_; }

 private:
  bool Reap(int options);

  pid_t pid_ = 0;
  int status_ = 0;
};

}  // namespace event_service
