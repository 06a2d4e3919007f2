/// The test event as a client words it: the judgement of its parameters and the event that they make. Pure functions.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "requests/answer.h"
#include "resource_store/resource_walk.h"

namespace event_service {

/// The action's name, as messages about its parameters give it.
inline constexpr std::string_view kSubmitTestEventAction = "EventService.SubmitTestEvent";

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

}  // namespace event_service
