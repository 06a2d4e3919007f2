/// Files that only their owner may read, from their first byte on, and the names that they are kept under.
#pragma once

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

/// The name of a file that a start has set aside and that is put back unless the start comes to its end.
std::string AsideName(const std::string& path);

/// Renames a file to a name that no file has, on the disk as well. False after a logged line.
[[nodiscard]] bool SetAside(const std::string& path, const std::string& aside);

/// Gives a file that was set aside its name back, in the place of what has the name now. True also when there is none.
/// Not flushed to the disk. Logs nothing.
[[nodiscard]] bool PutBack(const std::string& path);

/// Keeps a file that could not be read for good: renames it (`from` is its present name) to its own name with
/// ".unreadable" at the end, says so in the log, and flushes the folder. An older one of that name gets the epoch
/// seconds appended. False after a logged line.
[[nodiscard]] bool KeepAside(const std::string& path, const std::string& from);

}  // namespace event_service
