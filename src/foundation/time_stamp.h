/// Points in time as events and resources carry them.
#pragma once

#include <ctime>
#include <optional>
#include <string>

namespace event_service {

/// The local time in the machine's zone as it is set now; nothing for a time beyond any date.
std::optional<std::tm> LocalTime(std::time_t time);

/// Local time with its offset from UTC, such as "2024-05-01T13:45:10+02:00" (DSP0266, Date-Time values).
std::string TimeStamp(std::time_t time = std::time(nullptr));

}  // namespace event_service
