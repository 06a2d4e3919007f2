/// The action "EventService.SubmitTestEvent": an event as a client words it is handed to the delivery side.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "requests/answer.h"
#include "requests/request.h"
#include "resource_store/resource_walk.h"

namespace event_service {

/// The faults of the action's parameters, in the order of their names. Which of them must be there, and the form of a
/// MessageId, are for the script to judge.
std::vector<Message> JudgeTestEvent(const Json& parameters, const NumberTexts& numbers);

/// What a test event gets where its client gave nothing.
struct TestEventDefaults {
  std::string eventId;
  std::string timeStamp;
  int64_t eventGroupId = 0;
};

/// The event that faultless parameters describe, as it stands in an event object's list.
Json BuildTestEvent(const Json& parameters, const TestEventDefaults& defaults);

/// Performs the action and, on success, sets the status "OK_RES" itself: then there is no further answer.
Answer SubmitTestEvent(const Request& request);

}  // namespace event_service
