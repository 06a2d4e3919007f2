/// Both listeners in the process of a benchmark, beside a Redis of its own, and requests that can be made again and
/// again from the same beginning.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/redis_commands.h"
#include "tests/support/child_process.h"
#include "tests/support/redis_server.h"
#include "tests/support/sandbox_root.h"
#include "tools/front_end/front_end.h"

namespace event_service {

/// An enabled service whose scripts only take what they are given. One for a process, for as long as it runs.
class InProcessDaemon {
 public:
  InProcessDaemon();

  redisContext* Redis() const { return redis_.get(); }
  const std::string& Root() const { return sandbox_.Root(); }

  /// Runs `entry` as a thread of its own, for as long as the process runs.
  static void StartThread(void* (*entry)(void*));
  /// Waits until somebody listens on the channel.
  void AwaitListener(std::string_view channel) const;

 private:
  SandboxRoot sandbox_;
  RedisServer server_;
  RedisContext redis_;
};

/// That of RunBesideDaemon.
extern InProcessDaemon* theDaemon;

/// The main function of a benchmark beside the daemon: stays on one CPU, starts the daemon, calls `prepare`, runs the
/// benchmarks.
int RunBesideDaemon(int argc, char** argv, const std::function<void()>& prepare);

/// A program of the build that serves this daemon's Redis. At its end it says what memory it has come to use.
class ToolBesideDaemon {
 public:
  explicit ToolBesideDaemon(const char* program);
  ~ToolBesideDaemon();

 private:
  ChildProcess process_;
};

/// Everything that Redis holds, to be brought back.
class Snapshot {
 public:
  explicit Snapshot(redisContext* redis);
  void Restore(redisContext* redis) const;

 private:
  std::vector<std::pair<std::string, std::string>> dumps_;
};

/// A connection that has subscribed to a channel.
RedisContext ListenTo(std::string_view channel);
/// Waits for the next message.
RedisReply Receive(redisContext* subscriber);

/// The destination that the goals speak of: two prefixes, one origin, one header object, no SNMP, a generated Id.
const Json& TypicalBody();

}  // namespace event_service
