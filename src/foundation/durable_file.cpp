#include "foundation/durable_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>

namespace event_service {
namespace {

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

bool Sync(const char* path) {
  const Descriptor file(open(path, O_RDONLY | O_CLOEXEC));
  return file.IsOpen() && fsync(file.Get()) == 0;
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

bool WriteNewFile(const std::string& path, std::string_view content) {
  const Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (!file.IsOpen()) return false;
  // A file that an interrupted run left there keeps its mode when it is opened.
  return fchmod(file.Get(), S_IRUSR | S_IWUSR) == 0 && WriteAll(file.Get(), content) && fsync(file.Get()) == 0;
}

}  // namespace

bool SyncFile(const std::string& path) { return Sync(path.c_str()); }

bool SyncFolderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return Sync(".");
  return Sync(slash == 0 ? "/" : path.substr(0, slash).c_str());
}

bool ReplaceFile(const std::string& path, std::string_view content) {
  // One fixed name: whatever an interrupted run left behind is overwritten by the next.
  const std::string temporary = path + ".new";
  if (WriteNewFile(temporary, content) && std::rename(temporary.c_str(), path.c_str()) == 0) return SyncFolderOf(path);
  unlink(temporary.c_str());
  return false;
}

std::optional<std::string> ReadWholeFile(const std::string& path) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.IsOpen()) return std::nullopt;
  std::string content;
  struct stat status;
  if (fstat(file.Get(), &status) == 0 && S_ISREG(status.st_mode)) content.reserve(static_cast<size_t>(status.st_size));
  char part[16 * 1024];
  for (;;) {
    const ssize_t count = read(file.Get(), part, sizeof part);
    if (count == 0) return content;
    if (count > 0) {
      content.append(part, static_cast<size_t>(count));
    } else if (errno != EINTR) {
      return std::nullopt;
    }
  }
}

std::string FirstLineOf(const std::string& path) {
  struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  // Closed on exec: a child that another thread starts meanwhile must not inherit a password file.
  const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "re"));
  std::string line;
  for (int c; file && (c = std::fgetc(file.get())) != EOF && c != '\n';) line += static_cast<char>(c);
  return line;
}

}  // namespace event_service
