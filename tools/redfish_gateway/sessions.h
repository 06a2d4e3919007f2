/// The sessions of the gateway's clients. They live in memory: a restart of the gateway ends them. Any thread.
#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace event_service {

struct Session {
  std::string id;
  std::string token;
  std::string userName;
  std::string clientAddress;
  std::chrono::steady_clock::time_point lastUse;
};

class Sessions {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Sessions(Clock::time_point (*now)() = Clock::now) : now_(now) {}

  /// Nothing when there are as many as there may be, or no random numbers for a token.
  std::optional<Session> Create(std::string_view userName, std::string_view clientAddress);
  /// True for the token of a session that has not timed out; its time begins anew.
  bool Use(std::string_view token);
  std::optional<Session> Find(std::string_view id);
  std::vector<std::string> Ids();
  bool Remove(std::string_view id);

  /// Seconds that a session may lie unused.
  int64_t Timeout();
  void SetTimeout(int64_t seconds);

 private:
  void DropExpired();

  Clock::time_point (*const now_)();
  std::mutex mutex_;
  std::chrono::seconds timeout_{1800};
  std::vector<Session> sessions_;
};

/// Compares in a time that does not depend on where two texts differ.
bool EqualSecrets(std::string_view a, std::string_view b);

}  // namespace event_service
