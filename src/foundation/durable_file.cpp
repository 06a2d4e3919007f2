#include "foundation/durable_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "foundation/logging.h"
#include "foundation/open_file.h"

namespace event_service {
namespace {

bool WriteNewFile(const std::string& path, std::string_view content) {
  const Descriptor file(CreateFile(path));
  return file.IsOpen() && WriteAll(file.Get(), content) && fsync(file.Get()) == 0;
}

/// Up to `limit` bytes of a file, of which about `expected` are there; nothing, with errno, when it cannot be read.
std::optional<std::string> ReadUpTo(int file, size_t limit, size_t expected) {
  std::string content;
  content.reserve(expected);
  char part[16 * 1024];
  while (content.size() < limit) {
    const ssize_t count = read(file, part, std::min(sizeof part, limit - content.size()));
    if (count == 0) break;
    if (count > 0) {
      content.append(part, static_cast<size_t>(count));
    } else if (errno != EINTR) {
      return std::nullopt;
    }
  }
  return content;
}

std::optional<std::string> ReadWhole(const Descriptor& file, size_t limit) {
  struct stat status;
  if (!file.IsOpen() || fstat(file.Get(), &status) != 0) return std::nullopt;
  if (status.st_size <= static_cast<off_t>(limit)) {
    return ReadUpTo(file.Get(), limit, static_cast<size_t>(status.st_size));
  }
  errno = EFBIG;
  return std::nullopt;
}

void LogRemoval(const std::string& path) {
  LogError("The file %s was not made by this service and has been removed.", path.c_str());
}

}  // namespace

bool SyncFile(const std::string& path) {
  const Descriptor file(OpenToRead(path));
  return file.IsOpen() && fsync(file.Get()) == 0;
}

std::string FolderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool SyncFolderOf(const std::string& path) {
  const Descriptor folder(open(FolderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return folder.IsOpen() && fsync(folder.Get()) == 0;
}

bool ReplaceFile(const std::string& path, std::string_view content) {
  // The name is fixed, so that the next run overwrites what an interrupted one has left.
  const std::string temporary = path + ".new";
  if (WriteNewFile(temporary, content) && std::rename(temporary.c_str(), path.c_str()) == 0) return SyncFolderOf(path);
  unlink(temporary.c_str());
  return false;
}

std::optional<std::string> ReadWholeFile(const std::string& path) {
  return ReadWhole(Descriptor(OpenToRead(path)), kLargestFile);
}

std::optional<std::string> ReadOwnFile(const std::string& path, size_t limit) {
  const Foreign foreign = RemoveForeignFile(path);
  if (foreign == Foreign::kStays) return std::nullopt;
  if (foreign == Foreign::kRemoved) LogRemoval(path);
  const Descriptor file(OpenOwnFile(path, O_RDONLY));
  if (file.IsOpen() && fchmod(file.Get(), kOwnerOnly) != 0) return std::nullopt;
  return ReadWhole(file, limit);
}

bool DropForeignFile(const std::string& path, nlink_t names) {
  const Foreign foreign = RemoveForeignFile(path, names);
  if (foreign == Foreign::kRemoved) LogRemoval(path);
  if (foreign == Foreign::kStays) LogError("Failed to remove the file %s.", path.c_str());
  return foreign != Foreign::kStays;
}

std::optional<std::string> ReadFirstLine(const std::string& path) {
  const Descriptor file(OpenToRead(path));
  if (!file.IsOpen()) return std::nullopt;
  std::optional<std::string> line = ReadUpTo(file.Get(), kLongestLine + 1, 0);
  if (!line) return std::nullopt;
  const size_t end = line->find('\n');
  if (end == std::string::npos && line->size() > kLongestLine) {
    errno = EMSGSIZE;
    return std::nullopt;
  }
  line->resize(std::min(end, line->size()));
  line->resize(std::min(line->find('\0'), line->size()));
  return line;
}

}  // namespace event_service
