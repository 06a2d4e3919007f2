/// The form of time stamps that clients send.
#pragma once

#include <string_view>

namespace event_service {

/// True for a valid date and time: "2026-01-31T23:59:59.5+02:00". The fraction of a second is optional, the offset (or
/// "Z") is not (DSP0266, Date-Time values).
bool IsTimeStamp(std::string_view text);

}  // namespace event_service
