/// The owners of hiredis handles.
#pragma once

#include <hiredis/hiredis.h>

#include <memory>

#include "foundation/reply_memory.h"

namespace event_service {

struct RedisContextDeleter {
  void operator()(redisContext* context) const { redisFree(context); }
};
struct RedisReplyDeleter {
  void operator()(redisReply* reply) const { ReleaseReply(reply); }
};
using RedisContext = std::unique_ptr<redisContext, RedisContextDeleter>;  // owned by one thread
using RedisReply = std::unique_ptr<redisReply, RedisReplyDeleter>;        // ReadReply's; null: the connection failed

}  // namespace event_service
