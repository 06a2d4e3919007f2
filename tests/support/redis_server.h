/// A redis-server of the tests' own.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "foundation/redis_commands.h"
#include "tests/support/child_process.h"

namespace event_service {

/// Runs redis-server on a Unix socket from construction (which waits until it answers) to destruction. Killed, it has
/// lost all data; with a folder for an append-only file nothing that it has answered.
class RedisServer : public ChildProcess {
 public:
  explicit RedisServer(const std::string& socketPath, const std::string& dataFolder = {}) : socketPath_(socketPath) {
    std::vector<std::string> words = {"redis-server", "--port", "0",          "--unixsocket", socketPath,
                                      "--save",       "",       "--loglevel", "warning"};
    if (!dataFolder.empty()) {
      words.insert(words.end(), {"--dir", dataFolder, "--appendonly", "yes", "--appendfsync", "always"});
    }
    Start(words, "/dev/null");
    const auto answers = [this] {
      return TextOf(SendCommand(RedisContext(redisConnectUnix(socketPath_.c_str())).get(), "PING")) == "PONG";
    };
    if (!Eventually(answers)) throw std::runtime_error("redis-server does not answer at " + socketPath);
  }

  const std::string& SocketPath() const { return socketPath_; }

 private:
  std::string socketPath_;
};

}  // namespace event_service
