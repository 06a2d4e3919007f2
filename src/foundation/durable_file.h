/// Files read whole, and files that survive the loss of power.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace event_service {

/// The largest file that is read: several times what the limits of the service let any of its files become.
inline constexpr size_t kLargestFile = size_t{64} * 1024 * 1024;
/// The longest first line that is read: the cipher tool takes no longer pass phrase, and cuts one silently.
inline constexpr size_t kLongestLine = 1022;

/// Flushes a file's content to the disk. False when it cannot be opened or flushed. Logs nothing.
[[nodiscard]] bool SyncFile(const std::string& path);

/// The folder that holds `path`.
std::string FolderOf(const std::string& path);

/// Flushes the entries of the folder that holds `path`: what was created, renamed or removed there. Logs nothing.
[[nodiscard]] bool SyncFolderOf(const std::string& path);

/// Replaces `path` by a file of mode 600 with this content, wholly or not at all: writes "<path>.new", flushes it,
/// renames it over the old one and flushes the folder. False leaves the old file, unless the folder alone could not be
/// flushed. One caller at a time for each path. Logs nothing.
[[nodiscard]] bool ReplaceFile(const std::string& path, std::string_view content);

/// The content of a regular file; nothing when it cannot be read to its end or is larger than kLargestFile: errno tells
/// why. Logs nothing.
std::optional<std::string> ReadWholeFile(const std::string& path);

/// The same, up to `limit` bytes, for a file that only this service makes; it gets mode 600. What else has the name is
/// removed first, with a logged line; a folder or a device is one that cannot be read.
std::optional<std::string> ReadOwnFile(const std::string& path, size_t limit);

/// Removes what has this name unless it is a file of this service's own, with at most `names` names, and says so in the
/// log. False, after a logged line, when it stays: a folder or a device.
[[nodiscard]] bool DropForeignFile(const std::string& path, nlink_t names = 1);

/// The first line of a file without its line end, up to its first NUL; empty for an empty file. Nothing when it cannot
/// be read or is longer than kLongestLine: errno tells why. Logs nothing.
std::optional<std::string> ReadFirstLine(const std::string& path);

/// The same; empty also when it cannot be read.
inline std::string FirstLineOf(const std::string& path) { return ReadFirstLine(path).value_or(""); }

}  // namespace event_service
