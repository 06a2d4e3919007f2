#include "foundation/open_file.h"

#include <fcntl.h>

#include <cerrno>

namespace event_service {
namespace {

constexpr int kNeverWait = O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

bool IsOwn(const struct stat& status, nlink_t names) {
  return S_ISREG(status.st_mode) && status.st_uid == geteuid() && status.st_nlink <= names;
}

/// Returns the descriptor when it is good and closes it otherwise.
int Checked(int file, int error) {
  if (error == 0) return file;
  close(file);
  errno = error;
  return -1;
}

}  // namespace

int WhyNotRegular(mode_t mode) {
  if (S_ISREG(mode)) return 0;
  if (S_ISDIR(mode)) return EISDIR;
  return S_ISLNK(mode) ? ELOOP : EINVAL;
}

bool CanBlock(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && WhyNotRegular(status.st_mode) == EINVAL;
}

int OpenToRead(const std::string& path) {
  const int file = open(path.c_str(), O_RDONLY | kNeverWait);
  struct stat status;
  if (file < 0) return -1;
  return Checked(file, fstat(file, &status) == 0 ? WhyNotRegular(status.st_mode) : errno);
}

int CreateFile(const std::string& path) {
  if (unlink(path.c_str()) != 0 && errno != ENOENT) return -1;
  return open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kOwnerOnly);
}

int OpenOwnFile(const std::string& path, int flags) {
  for (int tries = 0; tries < 2; ++tries) {
    const int file = open(path.c_str(), flags | O_NOFOLLOW | kNeverWait, kOwnerOnly);
    struct stat status;
    if (file >= 0 && fstat(file, &status) == 0 && IsOwn(status, 1)) return file;
    const int error = file < 0 ? errno : EPERM;
    if (file >= 0) close(file);
    if (RemoveForeignFile(path) == Foreign::kStays) return -1;
    errno = error;
  }
  return -1;
}

Foreign RemoveForeignFile(const std::string& path, nlink_t names) {
  struct stat status;
  if (lstat(path.c_str(), &status) != 0 || IsOwn(status, names)) return Foreign::kNone;
  // Devices are the machine's, and so are the links beside them (/dev/stderr).
  const bool isDevice = S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode) || path.starts_with("/dev/");
  errno = EPERM;
  return !isDevice && unlink(path.c_str()) == 0 ? Foreign::kRemoved : Foreign::kStays;
}

bool WriteAll(int file, std::string_view content) {
  while (!content.empty()) {
    const ssize_t written = write(file, content.data(), content.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    content.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

}  // namespace event_service
