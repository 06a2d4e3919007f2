#include "tests/system/daemon.h"

#include <fcntl.h>
#include <signal.h>  // NOLINT(modernize-deprecated-headers): kill
#include <stdlib.h>  // NOLINT(modernize-deprecated-headers): setenv
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>

namespace event_service {

void Daemon::Start(const std::string& root, const std::string& outputFile) {
  Kill();
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("cannot start the daemon");
  if (pid_ > 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(1);
  const int output = open(outputFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  setenv("EVENT_SERVICE_ROOT", root.c_str(), 1);
  execl(EVENT_SERVICE_BINARIES "/EventService", "EventService", static_cast<char*>(nullptr));
  _exit(127);
}

void Daemon::Kill() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  Reap(0);
}

bool Daemon::IsRunning() { return pid_ > 0 && !Reap(WNOHANG); }

std::optional<int> Daemon::WaitForExit() {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (IsRunning()) {
    if (std::chrono::steady_clock::now() > deadline) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (!WIFEXITED(status_)) return std::nullopt;
  return WEXITSTATUS(status_);
}

bool Daemon::Reap(int options) {
  if (waitpid(pid_, &status_, options) != pid_) return false;
  pid_ = 0;
  return true;
}

}  // namespace event_service
