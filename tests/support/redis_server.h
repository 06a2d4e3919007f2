/// A redis-server of the tests' own.
#pragma once

#include <string>

#include "tests/support/child_process.h"

namespace event_service {

/// Runs redis-server on a Unix socket from construction (which waits until it answers) to destruction. Killed, it has
/// lost all data; with a folder for an append-only file nothing that it has answered.
class RedisServer : public ChildProcess {
 public:
  explicit RedisServer(const std::string& socketPath, const std::string& dataFolder = {});

  const std::string& SocketPath() const { return socketPath_; }

 private:
  std::string socketPath_;
};

}  // namespace event_service
