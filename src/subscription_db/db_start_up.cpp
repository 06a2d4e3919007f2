// What start-up does with the files: it takes the first of plain file, database file and default data that loads.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "foundation/durable_file.h"
#include "foundation/logging.h"
#include "subscription_db/db_document.h"
#include "subscription_db/private_file.h"
#include "subscription_db/subscription_db.h"

namespace event_service {
namespace {

/// The second name of an unencrypted database file while it is moved and encrypted.
std::string LegacyName(const FilePaths& paths) { return paths.databaseFile + ".legacy"; }

}  // namespace

bool SubscriptionDb::PutBackFiles() {
  const std::string& databaseFile = environment_.paths.databaseFile;
  const std::string& plainFile = environment_.paths.plainDatabaseFile;
  const bool isUndone = FileIsThere(AsideName(databaseFile)) || FileIsThere(AsideName(plainFile));
  if (isUndone) {
    // While anything is aside, the plain file holds default data or the database file's, which is whole. It has to be
    // gone first: a start would take it before the database file.
    const bool done = (unlink(plainFile.c_str()) == 0 || errno == ENOENT) && SyncFolderOf(plainFile) &&
                      PutBack(databaseFile) && PutBack(plainFile) && SyncFolderOf(plainFile);
    if (!done) {
      LogError("The files that a start without success has set aside cannot be put back.");
      return false;
    }
    LogError("A start did not come to its end: the files that it set aside are put back.");
  }
  return PutBackLegacyFile();
}

bool SubscriptionDb::PutBackLegacyFile() const {
  const std::string& databaseFile = environment_.paths.databaseFile;
  const std::string legacyFile = LegacyName(environment_.paths);
  if (!FileIsThere(legacyFile) || FileIsFilled(databaseFile)) return true;
  // Once moved, the same file is the plain file, which goes first; an empty database file keeps default data from being
  // copied over it. Were it put back, the plain file would be encrypted over itself.
  const bool moved = IsSameFile(environment_.paths.plainDatabaseFile, legacyFile);
  const bool putBack =
      moved ? MakePrivateFile(databaseFile, false) : std::rename(legacyFile.c_str(), databaseFile.c_str()) == 0;
  if (putBack && SyncFolderOf(databaseFile)) return true;
  LogError("Failed to put the file %s back as the subscription DB file.", legacyFile.c_str());
  return false;
}

bool SubscriptionDb::InitSubscriptionDb() {
  const FilePaths& paths = environment_.paths;
  LogDebug("The subscription DB file path is %s.", paths.databaseFile.c_str());
  LogDebug("The subscription plain DB file path is %s.", paths.plainDatabaseFile.c_str());
  LogDebug("The subscription password file path is %s.", paths.passwordFile.c_str());

  const std::string plainAside = AsideName(paths.plainDatabaseFile);
  if (CheckDbFile(paths.plainDatabaseFile) == DbFileState::kFilled) {
    chmod(paths.plainDatabaseFile.c_str(), S_IRUSR | S_IWUSR);
    if (RestoreDbToRedis(paths.plainDatabaseFile)) return FinishStart();
    // Out of the way of the decryption: it may be a whole document that the loader could not load today.
    if (!SetAside(paths.plainDatabaseFile, plainAside)) return false;
  }

  databaseFileLoaded_ = false;
  if (CheckDbFile(paths.databaseFile) == DbFileState::kFilled) {
    const bool isEncrypted = ReadDbPassword() && !password_.empty() && !IsLegacyFile();
    if (!isEncrypted && !NameLegacyFile()) return false;
    databaseFileLoaded_ =
        (isEncrypted ? DecodeDbFile(true) : MoveLegacyFile()) && RestoreDbToRedis(paths.plainDatabaseFile);
  }
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

bool SubscriptionDb::SettleStart() {
  const FilePaths& paths = environment_.paths;
  const std::string plainAside = AsideName(paths.plainDatabaseFile);
  const std::string databaseAside = AsideName(paths.databaseFile);
  const std::string legacyFile = LegacyName(paths);
  if (FileIsThere(plainAside) && !KeepAside(paths.plainDatabaseFile, plainAside)) return false;
  if (FileIsThere(databaseAside) && databaseFileLoaded_) {
    if (unlink(databaseAside.c_str()) != 0 || !SyncFolderOf(databaseAside)) {
      LogError("Failed to remove the file %s.", databaseAside.c_str());
      return false;
    }
  } else if (FileIsThere(databaseAside)) {
    // An unencrypted one was found unreadable as the plain file.
    const bool wasMoved = IsSameFile(databaseAside, legacyFile);
    if (!KeepAside(wasMoved ? paths.plainDatabaseFile : paths.databaseFile, databaseAside)) return false;
  }
  unlink(legacyFile.c_str());
  return true;
}

bool SubscriptionDb::FinishStart() {
  GatherRestoredUris();
  return EnsureDbPassword() && EncodeDbFile();
}

bool SubscriptionDb::IsLegacyFile() const {
  // A start that failed may have generated a password after the move.
  const std::string& databaseFile = environment_.paths.databaseFile;
  return IsSameFile(databaseFile, LegacyName(environment_.paths)) && ReadDbDocument(databaseFile);
}

bool SubscriptionDb::NameLegacyFile() {
  const std::string& databaseFile = environment_.paths.databaseFile;
  const std::string legacyFile = LegacyName(environment_.paths);
  chmod(databaseFile.c_str(), S_IRUSR | S_IWUSR);
  if (IsSameFile(databaseFile, legacyFile)) return true;
  if (FileIsThere(legacyFile) && !KeepAside(legacyFile, legacyFile)) return false;
  if (link(databaseFile.c_str(), legacyFile.c_str()) == 0 && SyncFolderOf(databaseFile)) return true;
  // Once it is moved, the next start would copy default data over it.
  LogError("Failed to give the file %s a second name before it is moved.", databaseFile.c_str());
  return false;
}

bool SubscriptionDb::MoveLegacyFile() {
  const std::string command = "mv " + environment_.paths.databaseFile + " " + environment_.paths.plainDatabaseFile;
  if (environment_.runShell(command) == 0) return true;
  LogError("Failed to move subscription DB file.");
  return false;
}

bool SubscriptionDb::FallBackToDefaultData() {
  const std::string& databaseFile = environment_.paths.databaseFile;
  const std::string& plainFile = environment_.paths.plainDatabaseFile;
  const std::string databaseAside = AsideName(databaseFile);
  LogError("Failed to decode db file. Uses default DB file instead.");
  if (FileIsFilled(databaseFile)) {
    if (!CanWritePlainFile() || !SetAside(databaseFile, databaseAside)) return false;
  } else if (FileIsFilled(plainFile)) {
    if (!SetAside(plainFile, databaseAside)) return false;  // the database file was moved here
  }
  const bool copied = MakePrivateFile(plainFile, true) &&
                      environment_.runShell("cp " + environment_.paths.defaultDatabaseFile + " " + plainFile) == 0;
  if (!copied) {
    unlink(plainFile.c_str());  // half a copy must not become the database file
    LogError("Cannot initialize db file due to the failure of copying static data.");
  } else if (!RestoreDbToRedis(plainFile)) {
    LogError("Failed to parse default DB file to redis.");
  }
  return true;
}

bool SubscriptionDb::CanWritePlainFile() const {
  // On a full disk a decryption fails just as with a damaged file, which says nothing about the file.
  const std::string& plainFile = environment_.paths.plainDatabaseFile;
  std::error_code error;
  const auto size = std::filesystem::file_size(environment_.paths.databaseFile, error);
  const bool written = !error && WritePrivateFile(plainFile, std::string(size, ' ')) && SyncFile(plainFile);
  unlink(plainFile.c_str());
  if (!written) LogError("The file %s cannot be written; the start is given up.", plainFile.c_str());
  return written;
}

bool SubscriptionDb::RestoreDbToRedis(const std::string& plainFile) {
  const std::string command =
      environment_.paths.resourceLoader + " UPDATE " + plainFile + " " + std::string(kDbCollection);
  if (environment_.runShell(command) == 0) return true;
  LogError("Failed to restore subscriptions by db file.");
  return false;
}

void SubscriptionDb::GatherRestoredUris() {
  restoredUris_.clear();
  const DbValue root = ReadDbDocument(environment_.paths.plainDatabaseFile);
  const json_t* members = json_object_get(root.get(), "Members");
  for (size_t i = 0; i < json_array_size(members); ++i) {
    const char* uri = UriOfMember(json_array_get(members, i));
    if (uri != nullptr) restoredUris_.emplace_back(uri);
  }
}

}  // namespace event_service
