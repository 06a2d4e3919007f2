// What start-up does with the files: it takes the first of plain file, database file and default data that loads.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <optional>
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

void SubscriptionDb::PutBackLegacyFile() {
  const std::string& databaseFile = environment_.paths.databaseFile;
  const std::string legacyFile = LegacyName(environment_.paths);
  if (!FileIsThere(legacyFile) || FileIsFilled(databaseFile)) return;
  // Once moved, the same file is the plain file, which goes first; an empty database file keeps default data from being
  // copied over it. Were it put back, the plain file would be encrypted over itself.
  const bool moved = IsSameFile(environment_.paths.plainDatabaseFile, legacyFile);
  const bool putBack =
      moved ? MakePrivateFile(databaseFile, false) : std::rename(legacyFile.c_str(), databaseFile.c_str()) == 0;
  if (!putBack || !SyncFolderOf(databaseFile)) {
    LogError("Failed to put the file %s back as the subscription DB file.", legacyFile.c_str());
  }
}

bool SubscriptionDb::InitSubscriptionDb() {
  const FilePaths& paths = environment_.paths;
  LogDebug("The subscription DB file path is %s.", paths.databaseFile.c_str());
  LogDebug("The subscription plain DB file path is %s.", paths.plainDatabaseFile.c_str());
  LogDebug("The subscription password file path is %s.", paths.passwordFile.c_str());

  std::optional<std::string> plainAside;
  if (CheckDbFile(paths.plainDatabaseFile) == DbFileState::kFilled) {
    chmod(paths.plainDatabaseFile.c_str(), S_IRUSR | S_IWUSR);
    if (RestoreDbToRedis(paths.plainDatabaseFile)) return FinishStart();
    // Out of the way of the decryption: it may be a whole document that the loader could not load today.
    plainAside = MoveAside(paths.plainDatabaseFile);
    if (!plainAside) return false;
  }

  bool restored = false;
  if (CheckDbFile(paths.databaseFile) == DbFileState::kFilled) {
    const bool isEncrypted = ReadDbPassword() && !password_.empty();
    if (!isEncrypted && !NameLegacyFile()) return false;
    restored = (isEncrypted ? DecodeDbFile(true) : MoveLegacyFile()) && RestoreDbToRedis(paths.plainDatabaseFile);
  }
  if (restored && plainAside && !ReadDbDocument(*plainAside)) {
    unlink(plainAside->c_str());  // what a dump or decryption left that was cut short; the database file was whole
  } else if (plainAside) {
    LogKeptAside(paths.plainDatabaseFile, *plainAside);
  }
  std::optional<std::string> databaseAside;
  if (!restored && !FallBackToDefaultData(databaseAside)) return false;
  if (FinishStart()) return true;
  if (databaseAside) UndoFallback(*databaseAside);
  return false;
}

bool SubscriptionDb::FinishStart() {
  GatherRestoredUris();
  if (!EnsureDbPassword() || !EncodeDbFile()) return false;
  unlink(LegacyName(environment_.paths).c_str());
  return true;
}

bool SubscriptionDb::NameLegacyFile() {
  const std::string& databaseFile = environment_.paths.databaseFile;
  const std::string legacyFile = LegacyName(environment_.paths);
  chmod(databaseFile.c_str(), S_IRUSR | S_IWUSR);
  if (IsSameFile(databaseFile, legacyFile)) return true;
  if (FileIsThere(legacyFile) && !KeepAside(legacyFile)) return false;
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

bool SubscriptionDb::FallBackToDefaultData(std::optional<std::string>& databaseAside) {
  const std::string& databaseFile = environment_.paths.databaseFile;
  const std::string& plainFile = environment_.paths.plainDatabaseFile;
  LogError("Failed to decode db file. Uses default DB file instead.");
  if (FileIsFilled(databaseFile)) {
    if (!CanWritePlainFile()) return false;
    databaseAside = MoveAside(databaseFile);
    if (!databaseAside) return false;
    LogKeptAside(databaseFile, *databaseAside);
  } else if (FileIsFilled(plainFile)) {
    if (!KeepAside(plainFile)) return false;  // the database file was moved here
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

void SubscriptionDb::UndoFallback(const std::string& databaseAside) {
  // What kept the default data from being encrypted, such as a missing tool, may have kept the file from being read.
  // The plain file goes first: it holds default data, and a start would take it before the database file.
  const FilePaths& paths = environment_.paths;
  const bool undone = (unlink(paths.plainDatabaseFile.c_str()) == 0 || errno == ENOENT) &&
                      std::rename(databaseAside.c_str(), paths.databaseFile.c_str()) == 0;
  if (undone && SyncFolderOf(paths.databaseFile)) {
    LogError("The file %s is tried again at the next start.", paths.databaseFile.c_str());
  } else {
    LogError("The file %s could not be put back.", databaseAside.c_str());
  }
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
