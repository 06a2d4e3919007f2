/// The document in the database file, as jansson holds it. For this folder only.
#pragma once

#include <jansson.h>

#include <string>
#include <string_view>

#include "subscription_db/subscription_db.h"

namespace event_service {

inline constexpr std::string_view kDbCollection = "/redfish/v1/EventService/Subscriptions";

/// Lets the thread sleep, or what a test has put in the place of that.
void Sleep(const DbEnvironment& environment, std::chrono::microseconds time);

/// The object in a plain file; null when the file cannot be read or holds anything else. Logs nothing.
DbValue ReadDbDocument(const std::string& path);

/// A member's "@odata.id"; null when it has none.
inline const char* UriOfMember(const json_t* member) { return json_string_value(json_object_get(member, "@odata.id")); }

}  // namespace event_service
