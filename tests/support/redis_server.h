/// A redis-server of the tests' own.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace event_service {

/// Runs redis-server on a Unix socket, without persistence, from construction (which waits until it answers) to
/// destruction. The server ends with the process that started it, however that one ends.
class RedisServer {
 public:
  /// `options` are further ones of redis-server, such as {"--requirepass", "secret"}.
  explicit RedisServer(const std::string& socketPath, std::vector<std::string> options = {});
  RedisServer(const RedisServer&) = delete;
  RedisServer& operator=(const RedisServer&) = delete;
  ~RedisServer() { Kill(); }

  /// Ends it at once, as a crash would: all data is lost. Start brings an empty one up again.
  void Kill();
  void Start();

  pid_t Pid() const { return pid_; }
  const std::string& SocketPath() const { return socketPath_; }

 private:
  void WaitUntilItAnswers() const;

  std::string socketPath_;
  std::vector<std::string> options_;
  pid_t pid_ = 0;
};

}  // namespace event_service
