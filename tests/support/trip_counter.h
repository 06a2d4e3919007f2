/// A proxy before the Redis server that counts what passes and injects faults.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "foundation/redis_commands.h"

namespace event_service {

/// What becomes of a command. All but kLost keep it from being executed; the last two end every connection.
enum class RedisFault { kError, kNil, kWrongType, kCut, kLost };

/// What goes wrong, counted in commands.
struct RedisFaults {
  size_t failedCommand = 0;  // the first is 1
  RedisFault fault = RedisFault::kError;
  std::string failedText = {};  // every command with this in its text fails, such as "HSET response:1 &&ReturnStatus"
  size_t cutAfter = SIZE_MAX;   // so many are answered; the next ends every connection, unseen by the server
};

/// Listens on a Unix socket of its own and hands every connection on to the server's. A round trip is counted when a
/// client sends something for the first time since it has read what it was sent. All connections are counted together.
class TripCounter {
 public:
  explicit TripCounter(const std::string& serverSocket);
  ~TripCounter();

  const std::string& SocketPath() const { return socketPath_; }
  RedisContext Connect() const { return RedisContext(redisConnectUnix(socketPath_.c_str())); }

  /// Sets the counts to 0; from here on these faults occur and no others.
  void Reset(RedisFaults faults = {});
  size_t trips() const;
  /// The commands since Reset, each with its words joined by blanks.
  std::vector<std::string> commands() const;

 private:
  struct Connection;

  void Run();
  void Accept();
  bool Serve(Connection& connection, int clientEvents, int serverEvents);
  void HandOn(Connection& connection);
  void EndConnections(RedisFault fault);

  std::string socketPath_;
  std::string serverSocket_;
  int listener_;
  std::list<std::unique_ptr<Connection>> connections_;  // the proxy thread's; stays whole while one is taken out
  mutable std::mutex mutex_;                            // guards what follows
  RedisFaults faults_;
  size_t trips_ = 0;
  std::vector<std::string> commands_;
  std::thread thread_;
};

}  // namespace event_service
