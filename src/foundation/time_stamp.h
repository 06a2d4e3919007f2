/// Points in time as events and resources carry them.
#pragma once

#include <ctime>
#include <string>

namespace event_service {

/// Local time with its offset from UTC, such as "2024-05-01T13:45:10+02:00" (Redfish Specification, "Date-Time
/// values").
std::string TimeStamp(std::time_t time = std::time(nullptr));

}  // namespace event_service
