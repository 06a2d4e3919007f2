/// A redis-server of the tests' own.
#pragma once

#include <string>

#include "tests/support/child_process.h"

namespace event_service {

/// Runs redis-server on a Unix socket, without persistence, from construction (which waits until it answers) to
/// destruction. Killed, it has lost all data.
class RedisServer : public ChildProcess {
 public:
  explicit RedisServer(const std::string& socketPath);

  const std::string& SocketPath() const { return socketPath_; }

 private:
  std::string socketPath_;
};

}  // namespace event_service
