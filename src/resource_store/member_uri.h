/// The URIs of a collection's members, by their form.
#pragma once

#include <string_view>

namespace event_service {

/// The Id of the member of this collection that `uri` names: the one segment behind the collection's URI. Empty when it
/// names none: another resource, the collection itself, or something below a member.
std::string_view MemberIdOf(std::string_view collectionUri, std::string_view uri);

/// True for such a URI in characters that a marker can hold: no blanks, no controls. The resource loader refuses a
/// whole file for any other.
bool CanBeStoredAsMember(std::string_view collectionUri, std::string_view uri);

}  // namespace event_service
