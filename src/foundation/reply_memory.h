/// Where replies lie. The library makes two allocations for each element of a reply; here a reply lies in one block
/// with all that it holds, or in a few, and the small integers that answer most writes lie nowhere at all: there is one
/// of each. Everything else about them is the library's.
#pragma once

#include <hiredis/hiredis.h>

namespace event_service {

/// Has the replies of this connection laid out so from now on, for RedisReply to own. A connection that others use as
/// well, with the library's functions, must stay without. No part of a reply may wait in its reader.
void UseReplyMemory(redisContext* redis);

/// The same, and an array with which the replies that this thread holds would have more than 32,768 elements comes as
/// an error: for a connection on which what others have made large would take much memory.
void LimitReplies(redisContext* redis);

/// The next reply of such a connection when it is a small integer that has been read already, null otherwise: most
/// replies are, and the library's parser takes forty times as long for one.
redisReply* NextSmallInteger(redisContext* redis);

/// Releases a whole reply of such a connection; nothing for a null one.
void ReleaseReply(redisReply* reply);

}  // namespace event_service
