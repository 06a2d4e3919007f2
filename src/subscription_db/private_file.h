/// Files that only their owner may read, from their first byte on, and the names that they are kept under.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace event_service {

/// Makes sure that there is a file of mode 600, whatever the process's umask; `truncate` empties one that exists. Tools
/// that write into it afterwards keep its mode. Logs nothing.
[[nodiscard]] bool MakePrivateFile(const std::string& path, bool truncate);

/// Writes a whole file of mode 600. False when any of it fails; there may be a part of the file then. Not flushed to
/// the disk. Logs nothing.
[[nodiscard]] bool WritePrivateFile(const std::string& path, std::string_view content);

bool FileIsThere(const std::string& path);
bool FileIsFilled(const std::string& path);
/// True when both names stand for one and the same file.
bool IsSameFile(const std::string& path, const std::string& other);

/// Renames a file to its own name with ".unreadable" at the end and returns that name; an older one of that name gets
/// the epoch seconds appended. Nothing, after a logged line, when that fails.
std::optional<std::string> MoveAside(const std::string& path);

/// The same, and says in the log where the file is.
[[nodiscard]] bool KeepAside(const std::string& path);
void LogKeptAside(const std::string& path, const std::string& keptAs);

}  // namespace event_service
