/// The forms that URIs in a subscription have to have: its Destination, judged by its protocol, and references to
/// resources.
#pragma once

#include <string_view>

namespace event_service {

/// Whether `destination` is what the protocol delivers to: an http or https URI for Redfish (a redfish-sse URI for the
/// subscription of a stream), snmp and mailto URIs, and for syslog a host, host:port or syslog URI. A protocol that is
/// not served gives false. Callers bound the length first.
bool IsDestinationFor(std::string_view protocol, bool isSse, std::string_view destination);

/// Whether `uri` names something below "/redfish/v1/", without "." or ".." segments that would lead out of it.
bool IsResourceReference(std::string_view uri);

}  // namespace event_service
