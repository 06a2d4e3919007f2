/// The syslog side: takes the daemon's messages from its queue and answers creations.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace event_service {

/// Serves from construction to destruction, on a connection of its own.
class SyslogServer {
 public:
  /// `answer` is given to every creation.
  explicit SyslogServer(std::string answer = "OK");
  SyslogServer(const SyslogServer&) = delete;
  SyslogServer& operator=(const SyslogServer&) = delete;
  ~SyslogServer();

  /// The messages so far, as they came.
  std::vector<std::string> Messages() const;

 private:
  void Serve();

  std::string answer_;
  mutable std::mutex mutex_;  // guards messages_
  std::vector<std::string> messages_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace event_service
