/// Encryption of single property values (libDataEncrypt). This is our own version of it; a board may link its own.
#pragma once

#include <optional>
#include <string>
#include <string_view>

/// Encrypts `text` with a key derived from `password` and a fresh salt, and returns the result as upper-case
/// hexadecimal digits; nothing when the password is empty or the library refuses. Equal texts give different results.
/// Logs nothing.
std::optional<std::string> encryptToHexString(std::string_view text, std::string_view password);

/// The text that `encryptToHexString` was given; nothing when `hex` was made with another password, was changed in any
/// digit, or is no such text.
std::optional<std::string> decryptHexString(std::string_view hex, std::string_view password);
