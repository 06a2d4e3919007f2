/// Files that only their owner may read, from their first byte on, and the names that they are kept under.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "foundation/file_paths.h"

namespace event_service {

/// The system's text for an error number.
std::string ReasonOf(int error);

/// Makes a file this user's alone (mode 600), and keeps what it holds. False with errno when it cannot be done, for
/// anything but a regular file as WhyNotRegular says; symbolic links are not followed. Logs nothing.
[[nodiscard]] bool MakePrivate(const std::string& path);

/// Puts an empty file of mode 600 in the place of what has the name. Tools that write into it keep its mode. False for
/// a folder. Logs nothing.
[[nodiscard]] bool MakeEmptyFile(const std::string& path);

/// Makes a file ready to be written over in place: mode 600, and none of its bytes under another name. A missing one is
/// made. False for anything but a regular file. Logs nothing.
[[nodiscard]] bool MakeWritable(const std::string& path);

/// Writes a whole new file of mode 600. False when any of it fails; there may be a part of the file then. Not flushed
/// to the disk. Logs nothing.
[[nodiscard]] bool WritePrivateFile(const std::string& path, std::string_view content);

/// The same with `size` blanks, to learn whether there is space.
[[nodiscard]] bool WriteBlanks(const std::string& path, uint64_t size);

/// True for whatever has this name, a dangling link included.
bool FileIsThere(const std::string& path);
/// The size of a regular file; 0 for anything else. Links are not followed.
uint64_t FileSize(const std::string& path);
inline bool FileIsFilled(const std::string& path) { return FileSize(path) > 0; }
/// True when both names stand for one and the same file. Links are not followed.
bool IsSameFile(const std::string& path, const std::string& other);

/// The name of a file that startup has set aside; it is put back unless startup succeeds.
std::string AsideName(const std::string& path);

/// The second name of an unencrypted database file while it is moved and encrypted.
inline std::string LegacyName(const FilePaths& paths) { return paths.databaseFile + ".legacy"; }

/// Renames a file to a name that no file has, on the disk as well. False after a logged line.
[[nodiscard]] bool SetAside(const std::string& path, const std::string& aside);

/// Gives a file that was set aside its name back, in the place of what has the name now. True also when there is none.
/// Not flushed to the disk. Logs nothing.
[[nodiscard]] bool PutBack(const std::string& path);

/// Keeps a file that could not be read for good: renames it (`from` is its present name) to its own name with
/// ".unreadable" at the end and mode 600, says so in the log, and flushes the folder. An older one of that name gets
/// the epoch seconds appended. False after a logged line.
[[nodiscard]] bool KeepAside(const std::string& path, const std::string& from);

}  // namespace event_service
