/// The forms that URIs in a subscription have to have: its Destination, judged by its protocol, and references to
/// resources.
#pragma once

#include <string>
#include <string_view>

namespace event_service {

/// Whether `destination` is what the protocol delivers to: an http or https URI for Redfish, a mailto URI with one
/// plain address for SMTP, a host, host:port or a URI of their own for SNMP and syslog. None holds a password; only
/// snmp URIs may name a user. A protocol that is not served gives false. Callers bound the length first.
bool IsDestinationFor(std::string_view protocol, std::string_view destination);

/// The text as it may be shown: in the place of all that stands before the "@" there are three dots when a password may
/// be among it.
std::string WithoutPassword(std::string_view destination);

/// Whether `uri` names something below "/redfish/v1/", without "." or ".." segments that would lead out of it.
bool IsResourceReference(std::string_view uri);

}  // namespace event_service
