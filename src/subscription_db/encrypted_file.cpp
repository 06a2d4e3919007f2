#include "subscription_db/encrypted_file.h"

#include <fcntl.h>
#include <jansson.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <utility>

#include "foundation/durable_file.h"
#include "foundation/logging.h"
#include "subscription_db/private_file.h"

namespace event_service {
namespace {

constexpr const char* kCipherOptions = "";  // further options of the cipher tool
constexpr size_t kCipherOverhead = 32;      // bytes by which an encrypted file may be longer
constexpr int kDecodeRuns = 3;
constexpr std::chrono::microseconds kDecodeInterval{1'000'000};

/// A pipe that holds a pass phrase. The children of this process inherit its read end and nothing else.
class PassPhrasePipe {
 public:
  explicit PassPhrasePipe(const std::string& passPhrase) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return;
    readEnd_ = ends[0];
    const std::string line = passPhrase + "\n";
    filled_ = write(ends[1], line.data(), line.size()) == static_cast<ssize_t>(line.size());
    close(ends[1]);
    filled_ = filled_ && fcntl(readEnd_, F_SETFD, 0) == 0;
  }
  PassPhrasePipe(const PassPhrasePipe&) = delete;
  PassPhrasePipe& operator=(const PassPhrasePipe&) = delete;
  ~PassPhrasePipe() {
    if (readEnd_ >= 0) close(readEnd_);
  }

  bool IsFilled() const { return filled_; }
  int ReadEnd() const { return readEnd_; }

 private:
  int readEnd_ = -1;
  bool filled_ = false;
};

struct Freer {
  void operator()(char* text) const { std::free(text); }
};

}  // namespace

DbFileState CheckDbFile(const std::string& path) {
  if (FileIsFilled(path)) return DbFileState::kFilled;
  if (FileIsThere(path)) {
    LogDebug("File %s is empty.", path.c_str());
    return DbFileState::kEmpty;
  }
  LogDebug("File %s doesn't exist.", path.c_str());
  return DbFileState::kMissing;
}

EncryptedFile::EncryptedFile(DbEnvironment environment)
    : environment_(std::move(environment)), password_(environment_) {}

int EncryptedFile::RunCipher(const std::string& commandStart, const std::string& commandEnd) const {
  const PassPhrasePipe pipe(password_.Text());
  if (!pipe.IsFilled()) return -1;
  return environment_.runShell(commandStart + " -pass fd:" + std::to_string(pipe.ReadEnd()) + commandEnd);
}

bool EncryptedFile::EncodeDbFile() {
  plainFileIsAhead_ = !EncryptPlainFile();
  if (!plainFileIsAhead_) return true;
  const FilePaths& paths = environment_.paths;
  LogError("Failed to encode the file %s by %s", paths.plainDatabaseFile.c_str(), paths.openssl.c_str());
  return false;
}

bool EncryptedFile::EncryptPlainFile() {
  const std::string& plainFile = environment_.paths.plainDatabaseFile;
  const std::string& databaseFile = environment_.paths.databaseFile;
  if (!password_.ReadDbPassword() || password_.Text().empty()) return false;
  // The database file is written over in place; until that is done and on the disk, the plain file has to be there.
  if (!SyncFile(plainFile) || !SyncFolderOf(plainFile)) return false;
  password_.KeepInFile();
  if (!MakeWritable(databaseFile)) return false;
  const int status = RunCipher(environment_.paths.openssl + " enc -aes-256-cbc " + kCipherOptions + " -in " +
                                   plainFile + " -out " + databaseFile,
                               " && chmod 600 " + databaseFile);
  if (status != 0 || !FileIsFilled(databaseFile)) return false;
  if (!SyncFile(databaseFile) || !SyncFolderOf(databaseFile)) return false;
  return environment_.runShell("rm -f " + plainFile) == 0;
}

bool EncryptedFile::DecodeDbFile(bool retry) {
  const std::string& plainFile = environment_.paths.plainDatabaseFile;
  const std::string& databaseFile = environment_.paths.databaseFile;
  const std::string& tool = environment_.paths.openssl;
  const std::string commandStart =
      tool + " enc -d -aes-256-cbc " + kCipherOptions + " -in " + databaseFile + " -out " + plainFile;
  const std::string commandEnd = " && chmod 600 " + plainFile;

  // A file that is larger than any of ours would only fill the disk.
  const bool isOfOurs = FileSize(databaseFile) <= kLargestFile;

  for (int runsLeft = retry && isOfOurs ? kDecodeRuns : 1;;) {
    if (isOfOurs && MakeEmptyFile(plainFile) && RunCipher(commandStart, commandEnd) == 0) return true;
    if (--runsLeft == 0) break;
    environment_.sleep(kDecodeInterval);
    LogDebug("Retry to decode the DB file.");
  }
  LogError("Failed to decode the DB file %s by %s", databaseFile.c_str(), tool.c_str());
  return false;
}

DbValue EncryptedFile::LoadDb() {
  const std::string& plainFile = environment_.paths.plainDatabaseFile;
  // Decrypting would write over the only file that holds the last change.
  plainFileIsAhead_ = plainFileIsAhead_ && FileIsThere(plainFile);
  if (plainFileIsAhead_ && !EncodeDbFile()) return nullptr;

  const bool isReadable =
      CheckDbFile(environment_.paths.databaseFile) == DbFileState::kFilled && password_.ReadDbPassword();
  if (!isReadable) return nullptr;
  DbValue root;
  if (DecodeDbFile(false)) root = ReadDbDocument(plainFile);
  if (environment_.runShell("rm -f " + plainFile) != 0) LogError("Failed to remove temporary file.");
  return root;
}

bool EncryptedFile::DumpDbFile(const json_t* root) {
  const std::string& plainFile = environment_.paths.plainDatabaseFile;
  const std::unique_ptr<char, Freer> text(json_dumps(root, 0));
  const std::string_view content = text ? text.get() : "";
  const bool dumped = text && content.size() <= kLargestFile - kCipherOverhead && WritePrivateFile(plainFile, content);
  if (dumped && EncodeDbFile()) return true;
  if (!dumped) unlink(plainFile.c_str());  // half a document: the database file is the whole one
  LogError("Failed to dump db file.");
  return false;
}

}  // namespace event_service
