#include "tests/support/redis_server.h"

#include <fcntl.h>
#include <signal.h>  // NOLINT(modernize-deprecated-headers): kill
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>
#include <utility>

#include "foundation/redis_commands.h"

namespace event_service {

RedisServer::RedisServer(const std::string& socketPath, std::vector<std::string> options)
    : socketPath_(socketPath), options_(std::move(options)) {
  Start();
}

void RedisServer::Start() {
  const std::string folder = socketPath_.substr(0, socketPath_.rfind('/'));
  std::vector<std::string> words = {"redis-server", "--port", "0", "--unixsocket", socketPath_, "--dir",
                                    folder,         "--save", "",  "--appendonly", "no",        "--loglevel",
                                    "warning"};
  words.insert(words.end(), options_.begin(), options_.end());
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);

  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("cannot start redis-server");
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(nowhere, stream);
    execvp(arguments[0], arguments.data());
    _exit(127);
  }
  WaitUntilItAnswers();
}

void RedisServer::Kill() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = 0;
  unlink(socketPath_.c_str());
}

void RedisServer::WaitUntilItAnswers() const {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (std::chrono::steady_clock::now() < deadline) {
    const RedisContext context(redisConnectUnix(socketPath_.c_str()));
    // With a password set, the refusal is an answer as well.
    if (context && context->err == 0 && SendCommand(context.get(), "PING")) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  throw std::runtime_error("redis-server does not answer at " + socketPath_);
}

}  // namespace event_service
