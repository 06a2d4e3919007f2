/// The store's log lines. They go to standard error in a style of their own, not to the process log:
/// "[ERROR] Gets redis resource failed. RESOURCE=/redfish/v1/EventService".
#pragma once

#include <initializer_list>
#include <string_view>

namespace event_service {

/// One piece of context behind a message: one of the labels below and its value, which may be any bytes: control
/// characters are shown as "?", long values are cut.
struct StoreLogField {
  std::string_view label;
  std::string_view value;
};

inline constexpr std::string_view kLogResource = " RESOURCE=";  // a key
inline constexpr std::string_view kLogFields = " FIELDS=";      // a member's name
inline constexpr std::string_view kLogElement = ", ELEMENT=";
inline constexpr std::string_view kLogResultCode = ", RESULT_CODE=";

/// Writes one line, "[ERROR] " first. Any thread.
void LogStoreError(std::string_view message, std::initializer_list<StoreLogField> context = {});

/// Writes one line, "[INFO] " first. Any thread.
void LogStoreInfo(std::string_view message);

}  // namespace event_service
