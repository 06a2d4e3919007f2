/// The subscriptions that these tests store.
#pragma once

#include <string>
#include <string_view>

#include "resource_store/store_encoding.h"

namespace event_service {

inline const std::string kUris = "/redfish/v1/EventService/Subscriptions/";
inline const std::string kEtagText = R"("\"ABC\"")";
inline const std::string kPrivileges = "Login";

/// A member as a creation hands it over.
Json MemberOf(const std::string& id, const std::string& context = "here");
/// A whole document with these members; each letter is an Id.
Json DocumentOf(std::string_view ids);

}  // namespace event_service
