/// Classes of ASCII characters, in every locale the same.
#pragma once

namespace event_service {

inline bool IsDigit(char c) { return c >= '0' && c <= '9'; }

inline bool IsAlphanumeric(char c) { return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

}  // namespace event_service
