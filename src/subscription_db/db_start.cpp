#include "subscription_db/db_start.h"

#include <jansson.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "foundation/durable_file.h"
#include "foundation/logging.h"
#include "subscription_db/private_file.h"

namespace event_service {
namespace {

constexpr int kRestoreRuns = 3;
constexpr std::chrono::microseconds kRestoreInterval{1'000'000};
constexpr const char* kEmptyCollection = R"({"Members": [], "@odata.etag": ""})";

/// True for a status of the resource loader that says nothing about the file.
bool IsNotTheFile(int status) {
  constexpr std::array kOthers = {-1, 75, 126, 127};  // a signal, Redis, a program that cannot be run
  const bool isSignal = status > 128 && status <= 128 + 64;
  return isSignal || std::ranges::find(kOthers, status) != kOthers.end();
}

}  // namespace

bool DbStart::InitSubscriptionDb() {
  const FilePaths& paths = environment_.paths;
  LogDebug("The subscription DB file path is %s.", paths.databaseFile.c_str());
  LogDebug("The subscription plain DB file path is %s.", paths.plainDatabaseFile.c_str());
  LogDebug("The subscription password file path is %s.", paths.passwordFile.c_str());
  if (!file_.Password().SecureFile() || !DropForeignName(paths.plainDatabaseFile)) return false;

  const std::string plainAside = AsideName(paths.plainDatabaseFile);
  if (CheckDbFile(paths.plainDatabaseFile) == DbFileState::kFilled) {
    [[maybe_unused]] const bool isPrivate = MakePrivate(paths.plainDatabaseFile);
    const Restored restored = RestoreDbToRedis(paths.plainDatabaseFile);
    if (restored == Restored::kYes) return FinishStart();
    // Out of the way of the decryption: it may be a whole document that the loader could not load today.
    if (restored == Restored::kNotNow || !SetAside(paths.plainDatabaseFile, plainAside)) return false;
  }

  const Restored restored = LoadDatabaseFile();
  if (restored == Restored::kNotNow) return false;
  databaseFileLoaded_ = restored == Restored::kYes;
  if (!databaseFileLoaded_) return FallBackToDefaultData() && FinishStart();
  if (!ReadDbDocument(plainAside)) unlink(plainAside.c_str());  // what a dump or decryption left that was cut short
  if (FileIsThere(plainAside)) {
    // Whoever puts the plain file back needs a whole database file, also while this one is being encrypted.
    const bool safe = FileIsFilled(paths.databaseFile) ? SetAside(paths.databaseFile, AsideName(paths.databaseFile))
                                                       : KeepAside(paths.plainDatabaseFile, plainAside);
    if (!safe) return false;
  }
  return FinishStart();
}

DbStart::Restored DbStart::LoadDatabaseFile() {
  const FilePaths& paths = environment_.paths;
  if (CheckDbFile(paths.databaseFile) != DbFileState::kFilled) return Restored::kRefused;
  const bool isEncrypted = file_.Password().ReadDbPassword() && !file_.Password().Text().empty() && !IsLegacyFile();
  if (!isEncrypted && !NameLegacyFile()) return Restored::kNotNow;
  plainFileIsDerived_ = true;
  const bool isPlain = isEncrypted ? file_.DecodeDbFile(true) : MoveLegacyFile();
  return isPlain ? RestoreDbToRedis(paths.plainDatabaseFile) : Restored::kRefused;
}

bool DbStart::FinishStart() {
  if (!file_.Password().EnsureDbPassword()) return false;
  plainFileIsDerived_ = false;  // from here on the database file may be a part
  return file_.EncodeDbFile();
}

bool DbStart::IsLegacyFile() const {
  // A start that failed may have generated a password after the move.
  const std::string& databaseFile = environment_.paths.databaseFile;
  return IsSameFile(databaseFile, LegacyName(environment_.paths)) && ReadDbDocument(databaseFile);
}

bool DbStart::NameLegacyFile() {
  const std::string& databaseFile = environment_.paths.databaseFile;
  const std::string legacyFile = LegacyName(environment_.paths);
  if (IsSameFile(databaseFile, legacyFile)) return true;
  if (FileIsThere(legacyFile) && !KeepAside(legacyFile, legacyFile)) return false;
  if (link(databaseFile.c_str(), legacyFile.c_str()) == 0 && SyncFolderOf(databaseFile)) return true;
  // Once it is moved, the next start would copy default data over it.
  LogError("Failed to give the file %s a second name before it is moved.", databaseFile.c_str());
  return false;
}

bool DbStart::MoveLegacyFile() {
  const std::string command = "mv " + environment_.paths.databaseFile + " " + environment_.paths.plainDatabaseFile;
  if (environment_.runShell(command) == 0) return true;
  LogError("Failed to move subscription DB file.");
  return false;
}

bool DbStart::FallBackToDefaultData() {
  const std::string& databaseFile = environment_.paths.databaseFile;
  const std::string& plainFile = environment_.paths.plainDatabaseFile;
  const std::string databaseAside = AsideName(databaseFile);
  LogError("Failed to decode db file. Uses default DB file instead.");
  if (FileIsFilled(databaseFile)) {
    if (!CanWritePlainFile() || !SetAside(databaseFile, databaseAside)) return false;
  } else if (FileIsFilled(plainFile)) {
    if (!SetAside(plainFile, databaseAside)) return false;  // the database file was moved here
  }
  plainFileIsDerived_ = true;
  if (!CopyDefaultData()) {
    unlink(plainFile.c_str());  // half a copy must not become the database file
    LogError("Cannot initialize db file due to the failure of copying static data.");
    return true;
  }
  const Restored restored = RestoreDbToRedis(plainFile);
  if (restored == Restored::kNotNow) return false;
  if (restored == Restored::kRefused) LogError("Failed to parse default DB file to redis.");
  // Of what is no collection no change could be kept.
  const bool isUsable = TakeUris(plainFile) || WritePrivateFile(plainFile, kEmptyCollection);
  if (!isUsable) LogError("The file %s cannot be written; the start is given up.", plainFile.c_str());
  return isUsable;
}

bool DbStart::CanWritePlainFile() const {
  // On a full disk a decryption fails just as with a damaged file, which says nothing about the file.
  const std::string& plainFile = environment_.paths.plainDatabaseFile;
  const uint64_t size = FileSize(environment_.paths.databaseFile);
  const bool written = size > kLargestFile || (WriteBlanks(plainFile, size) && SyncFile(plainFile));
  unlink(plainFile.c_str());
  if (!written) LogError("The file %s cannot be written; the start is given up.", plainFile.c_str());
  return written;
}

DbStart::Restored DbStart::RestoreDbToRedis(const std::string& plainFile) {
  const std::string command =
      environment_.paths.resourceLoader + " UPDATE " + plainFile + " " + std::string(kDbCollection);
  int status = environment_.runShell(command);
  for (int runs = 1; runs < kRestoreRuns && IsNotTheFile(status); ++runs) {
    environment_.sleep(kRestoreInterval);
    LogDebug("Retry to restore subscriptions by db file.");
    status = environment_.runShell(command);
  }
  if (status == 0 && TakeUris(plainFile)) return Restored::kYes;
  LogError("Failed to restore subscriptions by db file.");
  return IsNotTheFile(status) ? Restored::kNotNow : Restored::kRefused;
}

bool DbStart::TakeUris(const std::string& plainFile) {
  restoredUris_.clear();
  const DbValue root = ReadDbDocument(plainFile);
  const json_t* members = json_object_get(root.get(), "Members");
  for (size_t i = 0; i < json_array_size(members); ++i) {
    const char* uri = UriOfMember(json_array_get(members, i));
    if (uri != nullptr) restoredUris_.emplace_back(uri);
  }
  return json_is_array(members);
}

}  // namespace event_service
