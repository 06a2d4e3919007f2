/// One change of a stored subscription on its way: into Redis, into the database file, to those who watch. PATCH,
/// resume and the delivery side's state changes end here.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "foundation/redis_pipeline.h"
#include "requests/answer.h"
#include "requests/request.h"
#include "resource_store/store_encoding.h"

namespace event_service {

struct MemberChange {
  std::string_view uri = {};
  bool isSse = false;                     // streams are not in the file
  Json changes = Json::object();          // as the file takes them
  std::vector<std::string> removed = {};  // paths of members taken out ("SNMP/AuthenticationKey")
  std::string_view eventKind = {};        // of the life-cycle event
  const char* done = "changed";           // for the log
  const char* who = "client";
  int64_t nextSequence = kNoSequence;  // the first sequence id that the writes left free, when they took any
};

/// Whether the last change of this member failed half-way. Then nothing is known to be in the file, and a wanted value
/// that stands in Redis already counts as a change.
bool IsHalfChanged(const Request& request, std::string_view uri);

/// Sends `writes`, which change the resource, and all that follows from them: new etags, the file, the event. False
/// when a write failed, with nothing done after it; the next change that succeeds brings the whole member into the
/// file. What fails later is logged and the change stands.
[[nodiscard]] bool ApplyMemberChange(Request& request, RedisPipeline& writes, MemberChange change);

}  // namespace event_service
