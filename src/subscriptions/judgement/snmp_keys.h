/// The forms of SNMP credentials. A key is "Passphrase:" and a passphrase, "Hex:" and hexadecimal digits, or a
/// passphrase as it stands; printable ASCII characters throughout.
#pragma once

#include <string_view>

namespace event_service {

/// Hexadecimal keys have 24 to 96 digits.
bool IsSnmpAuthenticationKey(std::string_view text);

/// Hexadecimal keys have 16 to 64 digits.
bool IsSnmpEncryptionKey(std::string_view text);

}  // namespace event_service
