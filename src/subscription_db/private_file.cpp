#include "subscription_db/private_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <system_error>

#include "foundation/durable_file.h"
#include "foundation/logging.h"
#include "foundation/open_file.h"

namespace event_service {
namespace {

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

std::string ReasonOf(int error) { return std::generic_category().message(error); }

bool MakePrivate(const std::string& path) {
  // A descriptor that needs no right to read, and that no FIFO keeps waiting.
  const Descriptor file(open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat status;
  if (!file.IsOpen() || fstat(file.Get(), &status) != 0) return false;
  errno = WhyNotRegular(status.st_mode);
  if (errno != 0) return false;
  if (status.st_uid != geteuid() && fchownat(file.Get(), "", geteuid(), gid_t(-1), AT_EMPTY_PATH) != 0) return false;
  if ((status.st_mode & ALLPERMS) == kOwnerOnly) return true;
  return chmod(("/proc/self/fd/" + std::to_string(file.Get())).c_str(), kOwnerOnly) == 0;
}

bool MakeEmptyFile(const std::string& path) { return Descriptor(CreateFile(path)).IsOpen(); }

bool MakeWritable(const std::string& path) {
  struct stat status;
  if (lstat(path.c_str(), &status) != 0) return errno == ENOENT && MakeEmptyFile(path);
  if (S_ISREG(status.st_mode) && status.st_nlink > 1) return ReplaceFile(path, "");
  return MakePrivate(path);
}

bool WritePrivateFile(const std::string& path, std::string_view content) {
  const Descriptor file(CreateFile(path));
  return file.IsOpen() && WriteAll(file.Get(), content);
}

bool WriteBlanks(const std::string& path, uint64_t size) {
  const Descriptor file(CreateFile(path));
  const std::string blanks(static_cast<size_t>(std::min(size, uint64_t{64 * 1024})), ' ');
  bool written = file.IsOpen();
  for (; written && size > blanks.size(); size -= blanks.size()) written = WriteAll(file.Get(), blanks);
  return written && WriteAll(file.Get(), std::string_view(blanks).substr(0, static_cast<size_t>(size)));
}

bool FileIsThere(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}

uint64_t FileSize(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) ? static_cast<uint64_t>(status.st_size) : 0;
}

bool IsSameFile(const std::string& path, const std::string& other) {
  struct stat first;
  struct stat second;
  return lstat(path.c_str(), &first) == 0 && lstat(other.c_str(), &second) == 0 && first.st_dev == second.st_dev &&
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
  const bool isReady =
      MakePrivate(from) && (!FileIsThere(keptAs) || std::rename(keptAs.c_str(), NameOfOlder(keptAs).c_str()) == 0);
  if (!isReady || std::rename(from.c_str(), keptAs.c_str()) != 0 || !SyncFolderOf(path)) {
    LogError("Failed to keep the file %s aside: %s.", path.c_str(), ReasonOf(errno).c_str());
    return false;
  }
  LogError("The file %s could not be read and is kept as %s.", path.c_str(), keptAs.c_str());
  return true;
}

}  // namespace event_service
