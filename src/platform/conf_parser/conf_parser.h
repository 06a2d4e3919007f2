/// The configuration reader of the platform (libconfParser). This is our own version of it; a board may link its own.
///
/// A configuration file holds "KEY=value" lines. Blanks around key and value are dropped, lines that begin with "#"
/// are comments, and the last of two equal keys counts.
#pragma once

#include <cstddef>
#include <string>

/// The value of `key` in `file`, or an empty text when the file cannot be read, the key is absent, or the value is
/// longer than `limit` - 1 bytes. Logs nothing.
std::string getConfigValue(const std::string& file, const std::string& key, size_t limit);

/// Copies the value of `key` into `buffer` (`size` bytes, terminating NUL included), with `separator` between keys and
/// values. Returns 0 when found; otherwise, also for a value that does not fit, -1 with an empty text in `buffer`.
int getPropertyValue(const char* file, const char* separator, const char* key, char* buffer, size_t size);
