/// Opening files so that no open waits and nothing is used that somebody else has put under the name: a FIFO, a link to
/// another file, a file that others may write. Nothing here logs: the log itself is opened by it.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <string_view>

namespace event_service {

/// Closes what it holds; -1 is nothing.
class Descriptor {
 public:
  explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (descriptor_ >= 0) close(descriptor_);
  }
  bool IsOpen() const { return descriptor_ >= 0; }
  int Get() const { return descriptor_; }

 private:
  int descriptor_;
};

/// The mode of every file that this service makes.
inline constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;

/// 0 for the mode of a regular file; else the error number that names what it is: EISDIR for a folder, ELOOP for a
/// symbolic link, EINVAL for a FIFO, a socket or a device.
int WhyNotRegular(mode_t mode);

/// True for what keeps a program that opens it waiting: there is something, links followed, that is neither a regular
/// file nor a folder. For paths that shell commands open.
bool CanBlock(const std::string& path);

/// Opens a regular file for reading; symbolic links are followed. -1 with errno when there is none (see
/// WhyNotRegular). The caller closes it.
int OpenToRead(const std::string& path);

/// Creates a file that was not there; what had the name is removed. -1 with errno, also for a folder. The caller
/// closes it.
int CreateFile(const std::string& path);

/// Opens a file of this service's own: regular, this user's, with no other name and no link itself. What else has the
/// name is removed; a folder or a device stays, and the result is -1 with errno. `flags` as for open, without O_TRUNC;
/// with O_CREAT a missing file is made. The caller closes it.
int OpenOwnFile(const std::string& path, int flags);

enum class Foreign { kNone, kRemoved, kStays };

/// Removes what has this name unless it is a file as OpenOwnFile opens, with at most `names` names, or nothing. Folders
/// and devices stay, with errno.
Foreign RemoveForeignFile(const std::string& path, nlink_t names = 1);

/// Writes all of it, however many calls that takes.
[[nodiscard]] bool WriteAll(int file, std::string_view content);

}  // namespace event_service
