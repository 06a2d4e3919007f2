// The encrypted file and its plain working copy: encryption, decryption, loading, dumping.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string_view>
#include <thread>
#include <utility>

#include "foundation/durable_file.h"
#include "foundation/logging.h"
#include "subscription_db/db_document.h"
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

/// Deeper than any document of ours; the parser recurses for each level, and the listeners' stacks are small.
constexpr size_t kMaxLevels = 64;

/// Where the string ends that begins at `begin`, with its closing quote; the end of the text when it has none.
size_t EndOfString(std::string_view text, size_t begin) {
  size_t end = begin;
  do {
    end = text.find('"', end + 1);
    if (end == std::string_view::npos) return text.size();
  } while ((end - text.find_last_not_of('\\', end - 1)) % 2 == 0);  // an odd number of them escapes the quote
  return end;
}

/// True when the brackets of a JSON text lie no deeper inside each other than that.
bool IsShallow(std::string_view text) {
  size_t levels = 0;
  for (size_t i = 0; i < text.size() && levels <= kMaxLevels; ++i) {
    if (text[i] == '"') i = EndOfString(text, i);
    if (i == text.size()) break;
    if (text[i] == '{' || text[i] == '[') ++levels;
    if ((text[i] == '}' || text[i] == ']') && levels > 0) --levels;
  }
  return levels <= kMaxLevels;
}

}  // namespace

void DbValueDeleter::operator()(json_t* value) const { json_decref(value); }

void Sleep(const DbEnvironment& environment, std::chrono::microseconds time) {
  if (environment.sleep) {
    environment.sleep(time);
  } else {
    std::this_thread::sleep_for(time);
  }
}

DbValue ReadDbDocument(const std::string& path) {
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";  // of an editor
  const std::optional<std::string> file = ReadWholeFile(path);
  std::string_view text = file ? std::string_view(*file) : std::string_view();
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  DbValue root(IsShallow(text) ? json_loadb(text.data(), text.size(), 0, nullptr) : nullptr);
  if (!json_is_object(root.get())) root.reset();
  return root;
}

DbFileState CheckDbFile(const std::string& path) {
  if (FileIsFilled(path)) return DbFileState::kFilled;
  if (FileIsThere(path)) {
    LogDebug("File %s is empty.", path.c_str());
    return DbFileState::kEmpty;
  }
  LogDebug("File %s doesn't exist.", path.c_str());
  return DbFileState::kMissing;
}

SubscriptionDb::SubscriptionDb(DbEnvironment environment) : environment_(std::move(environment)) {}

int SubscriptionDb::RunCipher(const std::string& commandStart, const std::string& commandEnd) const {
  const PassPhrasePipe pipe(password_);
  if (!pipe.IsFilled()) return -1;
  return environment_.runShell(commandStart + " -pass fd:" + std::to_string(pipe.ReadEnd()) + commandEnd);
}

bool SubscriptionDb::EncodeDbFile() {
  plainFileIsAhead_ = !EncryptPlainFile();
  if (!plainFileIsAhead_) return true;
  const FilePaths& paths = environment_.paths;
  LogError("Failed to encode the file %s by %s", paths.plainDatabaseFile.c_str(), paths.openssl.c_str());
  return false;
}

bool SubscriptionDb::EncryptPlainFile() {
  const std::string& plainFile = environment_.paths.plainDatabaseFile;
  const std::string& databaseFile = environment_.paths.databaseFile;
  if (!ReadDbPassword() || password_.empty()) return false;
  // The database file is written over in place; until that is done and on the disk, the plain file has to be there.
  if (!SyncFile(plainFile) || !SyncFolderOf(plainFile)) return false;
  KeepPasswordFile();
  if (!MakeWritable(databaseFile)) return false;
  const int status = RunCipher(environment_.paths.openssl + " enc -aes-256-cbc " + kCipherOptions + " -in " +
                                   plainFile + " -out " + databaseFile,
                               " && chmod 600 " + databaseFile);
  if (status != 0 || !FileIsFilled(databaseFile)) return false;
  if (!SyncFile(databaseFile) || !SyncFolderOf(databaseFile)) return false;
  return environment_.runShell("rm -f " + plainFile) == 0;
}

bool SubscriptionDb::DecodeDbFile(bool retry) {
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
    Sleep(environment_, kDecodeInterval);
    LogDebug("Retry to decode the DB file.");
  }
  LogError("Failed to decode the DB file %s by %s", databaseFile.c_str(), tool.c_str());
  return false;
}

DbValue SubscriptionDb::LoadDb() {
  const std::string& plainFile = environment_.paths.plainDatabaseFile;
  // Decrypting would write over the only file that holds the last change.
  plainFileIsAhead_ = plainFileIsAhead_ && FileIsThere(plainFile);
  if (plainFileIsAhead_ && !EncodeDbFile()) return nullptr;

  if (CheckDbFile(environment_.paths.databaseFile) != DbFileState::kFilled || !ReadDbPassword()) return nullptr;
  DbValue root;
  if (DecodeDbFile(false)) root = ReadDbDocument(plainFile);
  if (environment_.runShell("rm -f " + plainFile) != 0) LogError("Failed to remove temporary file.");
  return root;
}

bool SubscriptionDb::DumpDbFile(const json_t* root) {
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
