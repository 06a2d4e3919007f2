/// Replies that a real server will not give: none at all, an error in the middle, a connection lost half-way.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string_view>

#include "foundation/redis_commands.h"

namespace event_service {

/// A connection whose other end has already written its replies, and nothing after them; commands are still taken.
class CannedConnection {
 public:
  /// `replies` is in the wire format (":1\r\n-ERR no\r\n"), at most some 100 KiB.
  explicit CannedConnection(std::string_view replies) {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_), 0);
    redis_.reset(redisConnectFd(ends_[0]));
    EXPECT_EQ(write(ends_[1], replies.data(), replies.size()), static_cast<ssize_t>(replies.size()));
    shutdown(ends_[1], SHUT_WR);
  }
  ~CannedConnection() { close(ends_[1]); }

  redisContext* redis() { return redis_.get(); }

 private:
  int ends_[2] = {-1, -1};
  RedisContext redis_;
};

}  // namespace event_service
