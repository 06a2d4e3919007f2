/// Replies that a real server will not give: none at all, an error in the middle, a connection lost half-way.
#pragma once

#include <string>
#include <string_view>

#include "foundation/redis_commands.h"

namespace event_service {

/// A connection whose other end has already written its replies.
class CannedConnection {
 public:
  enum class Then {
    kEnd,           // the connection ends after the replies; commands are still taken
    kRefuseWrites,  // nobody is there: not even a command can be sent
  };

  /// `replies` is in the wire format (":1\r\n-ERR no\r\n"), at most some 100 KiB.
  explicit CannedConnection(std::string_view replies, Then then = Then::kEnd);
  CannedConnection(const CannedConnection&) = delete;
  CannedConnection& operator=(const CannedConnection&) = delete;
  ~CannedConnection();

  redisContext* redis() { return redis_.get(); }
  /// What the client has sent since the last call, in the wire format.
  std::string Received();

 private:
  int otherEnd_ = -1;
  RedisContext redis_;
};

}  // namespace event_service
