/// The document in the database file, as jansson holds it.
#pragma once

#include <memory>
#include <string>
#include <string_view>

struct json_t;  // jansson's

namespace event_service {

inline constexpr std::string_view kDbCollection = "/redfish/v1/EventService/Subscriptions";

struct DbValueDeleter {
  void operator()(json_t* value) const;
};
using DbValue = std::unique_ptr<json_t, DbValueDeleter>;

/// The object in a plain file; null when the file cannot be read or holds anything else. Logs nothing.
DbValue ReadDbDocument(const std::string& path);

/// A member's "@odata.id"; null when it has none.
const char* UriOfMember(const json_t* member);

}  // namespace event_service
