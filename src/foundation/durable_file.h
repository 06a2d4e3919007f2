/// Files read whole, and files that survive the loss of power.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace event_service {

/// Flushes a file's content to the disk. False when it cannot be opened or flushed. Logs nothing.
[[nodiscard]] bool SyncFile(const std::string& path);

/// Flushes the entries of the folder that holds `path`: what was created, renamed or removed there. Logs nothing.
[[nodiscard]] bool SyncFolderOf(const std::string& path);

/// Replaces `path` by a file of mode 600 with this content, wholly or not at all: writes "<path>.new", flushes it,
/// renames it over the old one and flushes the folder. False leaves the old file, unless the folder alone could not be
/// flushed. One caller at a time for each path. Logs nothing.
[[nodiscard]] bool ReplaceFile(const std::string& path, std::string_view content);

/// The content of a file; nothing when it cannot be opened or read to its end, as a folder cannot: errno tells why.
/// Logs nothing.
std::optional<std::string> ReadWholeFile(const std::string& path);

/// The first line of a file without its line end; empty when the file cannot be read or is empty. Logs nothing.
std::string FirstLineOf(const std::string& path);

}  // namespace event_service
