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

/// "NOT_FOUND" for a target that does not exist.
Answer MemberMissing(std::string_view uri);

/// An etag that cannot be set does not stop a change; it is logged.
void LogEtagFailure(std::string_view uri);

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

/// Sends `writes`, which change the resource, and all that follows from them: new etags, the file, the event. False
/// when a write failed, with nothing done after it; what fails later is logged and the change stands.
[[nodiscard]] bool ApplyMemberChange(Request& request, RedisPipeline& writes, MemberChange change);

}  // namespace event_service
