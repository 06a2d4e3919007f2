#include "subscription_db/private_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <system_error>

#include "foundation/durable_file.h"
#include "foundation/logging.h"

namespace event_service {
namespace {

constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;

/// A descriptor of a file of mode 600, or -1.
int OpenPrivateFile(const std::string& path, int truncate) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | truncate, kOwnerOnly);
  // One that was there before keeps its mode when it is opened.
  if (file < 0 || fchmod(file, kOwnerOnly) == 0) return file;
  close(file);
  return -1;
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

int64_t EpochSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

/// A name that no file has yet.
std::string NameOfOlder(const std::string& path) {
  int64_t seconds = EpochSeconds();
  while (FileIsThere(path + std::to_string(seconds))) ++seconds;
  return path + std::to_string(seconds);
}

}  // namespace

bool MakePrivateFile(const std::string& path, bool truncate) {
  const int file = OpenPrivateFile(path, truncate ? O_TRUNC : 0);
  if (file >= 0) close(file);
  return file >= 0;
}

bool WritePrivateFile(const std::string& path, std::string_view content) {
  const int file = OpenPrivateFile(path, O_TRUNC);
  if (file < 0) return false;
  const bool written = WriteAll(file, content);
  return close(file) == 0 && written;
}

bool FileIsThere(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}

bool FileIsFilled(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && status.st_size > 0;
}

bool IsSameFile(const std::string& path, const std::string& other) {
  struct stat first;
  struct stat second;
  return stat(path.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 && first.st_dev == second.st_dev &&
         first.st_ino == second.st_ino;
}

std::string AsideName(const std::string& path) { return path + ".aside"; }

bool SetAside(const std::string& path, const std::string& aside) {
  if (!FileIsThere(aside) && std::rename(path.c_str(), aside.c_str()) == 0 && SyncFolderOf(path)) return true;
  LogError("Failed to set the file %s aside.", path.c_str());
  return false;
}

bool PutBack(const std::string& path) {
  return std::rename(AsideName(path).c_str(), path.c_str()) == 0 || errno == ENOENT;
}

bool KeepAside(const std::string& path, const std::string& from) {
  const std::string keptAs = path + ".unreadable";
  const bool hasRoom = !FileIsThere(keptAs) || std::rename(keptAs.c_str(), NameOfOlder(keptAs).c_str()) == 0;
  if (!hasRoom || std::rename(from.c_str(), keptAs.c_str()) != 0 || !SyncFolderOf(path)) {
    LogError("Failed to keep the file %s aside: %s.", path.c_str(), std::generic_category().message(errno).c_str());
    return false;
  }
  LogError("The file %s could not be read and is kept as %s.", path.c_str(), keptAs.c_str());
  return true;
}

}  // namespace event_service
