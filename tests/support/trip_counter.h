/// A proxy before the Redis server that counts what passes and injects faults.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "foundation/redis_commands.h"

namespace event_service {

/// Listens on a Unix socket of its own and hands every connection on to the server's. A round trip is counted when a
/// client sends something for the first time since it was given an answer; pushed messages are no answers that a client
/// waits for, but a command after them counts as one trip all the same. All connections are counted together.
class TripCounter {
 public:
  explicit TripCounter(const std::string& serverSocket);
  TripCounter(const TripCounter&) = delete;
  TripCounter& operator=(const TripCounter&) = delete;
  ~TripCounter();

  const std::string& SocketPath() const { return socketPath_; }
  RedisContext Connect() const;

  /// Sets the counts to 0 and takes back all faults.
  void Reset();
  size_t trips() const;
  size_t commands() const;
  /// The commands since Reset, each with its words joined by blanks.
  std::vector<std::string> CommandTexts() const;

  /// The `position`-th command from Reset on (the first is 1) is answered by an error and not executed.
  void FailCommand(size_t position);
  /// So is every command with this in its text, such as "HSET response:1 &&ReturnStatus".
  void FailCommandsWith(std::string text);
  /// The first `count` commands from Reset on are answered; the next one never reaches the server and its connection,
  /// like every one that sends after that, is closed.
  void CutAfter(size_t count);

 private:
  struct Connection;
  struct Script {
    size_t trips = 0;
    std::vector<std::string> commands;
    std::optional<size_t> failedPosition;
    std::vector<std::string> failedTexts;
    std::optional<size_t> cutAfter;
  };

  void Run();
  void Accept();
  bool Serve(Connection& connection, short clientEvents, short serverEvents);
  bool TakeFromClient(Connection& connection);
  void HandOn(Connection& connection);
  bool TakeFromServer(Connection& connection);
  std::string Judge(const std::string& text, std::string_view command);

  std::string socketPath_;
  std::string serverSocket_;
  int listener_ = -1;
  int stopSignal_ = -1;
  std::vector<std::unique_ptr<Connection>> connections_;  // the proxy thread's
  mutable std::mutex mutex_;                              // guards script_
  Script script_;
  std::thread thread_;
};

}  // namespace event_service
