#include "tests/support/child_process.h"

#include <fcntl.h>
#include <signal.h>  // NOLINT(modernize-deprecated-headers): kill
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>

namespace event_service {

bool Eventually(const std::function<bool()>& holds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!holds()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

void ChildProcess::Start(std::vector<std::string> words, const std::string& outputFile) {
  Kill();
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("cannot start " + words[0]);
  if (pid_ > 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(1);
  const int output = open(outputFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) dup2(output, stream);
  execvp(arguments[0], arguments.data());
  _exit(127);
}

void ChildProcess::Kill() {
  if (!IsRunning()) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = 0;
}

bool ChildProcess::IsRunning() {
  if (pid_ > 0 && waitpid(pid_, &status_, WNOHANG) == pid_) pid_ = 0;
  return pid_ > 0;
}

int ChildProcess::ExitStatus() {
  return Eventually([this] { return !IsRunning(); }) && WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
}

}  // namespace event_service
