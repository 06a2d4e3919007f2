// The folder of the files: one daemon at a time, nothing in it that somebody else has laid out, and what a start that
// did not come to its end has set aside.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "foundation/durable_file.h"
#include "foundation/logging.h"
#include "subscription_db/db_start.h"
#include "subscription_db/private_file.h"

namespace event_service {
namespace {

constexpr int kLockTries = 100;
constexpr std::chrono::microseconds kLockInterval{100'000};

void WarnOfOtherWriters(const Descriptor& folder, const std::string& path) {
  struct stat status;
  if (fstat(folder.Get(), &status) != 0) return;
  const bool isForeign = status.st_uid != 0 && status.st_uid != geteuid();
  if (!isForeign && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0) return;
  LogError("The folder %s may be written by others, who can take or replace the files in it.", path.c_str());
}

}  // namespace

bool DbStart::PrepareFiles() {
  const FilePaths& paths = environment_.paths;
  if (!LockFolder()) return false;
  for (const std::string& name :
       {AsideName(paths.databaseFile), AsideName(paths.plainDatabaseFile), LegacyName(paths)}) {
    if (!DropForeignName(name)) return false;
  }
  return PutBackFiles() && ProvideDatabaseFile();
}

bool DbStart::LockFolder() {
  if (folderLock_) return true;
  const std::string path = FolderOf(environment_.paths.databaseFile);
  // Left to the shell commands: a cipher tool that outlives its daemon keeps the next one waiting.
  auto folder = std::make_unique<Descriptor>(open(path.c_str(), O_RDONLY | O_DIRECTORY));
  if (!folder->IsOpen()) return true;  // what comes next says what is wrong with it
  WarnOfOtherWriters(*folder, path);
  for (int tries = 1; flock(folder->Get(), LOCK_EX | LOCK_NB) != 0; ++tries) {
    if (errno != EWOULDBLOCK) {
      LogError("The folder %s cannot be locked: %s.", path.c_str(), ReasonOf(errno).c_str());
      break;
    }
    if (tries > kLockTries) {
      LogError("Another daemon, or a command that it left running, uses the folder %s; the start is given up.",
               path.c_str());
      return false;
    }
    environment_.sleep(kLockInterval);
  }
  folderLock_ = std::move(folder);
  return true;
}

bool DbStart::DropForeignName(const std::string& path) const {
  const FilePaths& paths = environment_.paths;
  // A database file that is not encrypted has a second name while it is moved.
  const std::string names[] = {paths.databaseFile, AsideName(paths.databaseFile), paths.plainDatabaseFile,
                               LegacyName(paths)};
  const auto ours = std::ranges::count_if(names, [&](const std::string& name) { return IsSameFile(name, path); });
  return DropForeignFile(path, static_cast<nlink_t>(std::max<long>(ours, 1)));
}

bool DbStart::ProvideDatabaseFile() {
  const std::string& databaseFile = environment_.paths.databaseFile;
  if (FileIsThere(databaseFile)) {
    if (MakePrivate(databaseFile)) return true;
    LogError("The subscription DB file %s cannot be used: %s.", databaseFile.c_str(), ReasonOf(errno).c_str());
    return false;
  }
  plainFileIsDerived_ = CopyDefaultData();
  if (!plainFileIsDerived_) LogError("Failed to initialize db file by copying static data file.");
  return plainFileIsDerived_;
}

bool DbStart::CopyDefaultData() const {
  const std::string& source = environment_.paths.defaultDatabaseFile;
  const std::string& plainFile = environment_.paths.plainDatabaseFile;
  // The tool keeps the mode of a file that is there.
  const bool isReady = !CanBlock(source) && Descriptor(OpenOwnFile(plainFile, O_WRONLY | O_CREAT)).IsOpen();
  if (isReady && environment_.runShell("cp " + source + " " + plainFile) == 0) return true;
  if (isReady && !FileIsFilled(plainFile)) unlink(plainFile.c_str());
  return false;
}

bool DbStart::PutBackFiles() {
  const std::string& databaseFile = environment_.paths.databaseFile;
  const std::string& plainFile = environment_.paths.plainDatabaseFile;
  const bool isUndone = FileIsThere(AsideName(databaseFile)) || FileIsThere(AsideName(plainFile));
  if (isUndone || plainFileIsDerived_) {
    // While anything is aside, the plain file holds default data or the database file's, which is whole. It has to be
    // gone first: a start would take it before the database file.
    const bool done = (unlink(plainFile.c_str()) == 0 || errno == ENOENT) && SyncFolderOf(plainFile) &&
                      PutBack(databaseFile) && PutBack(plainFile) && SyncFolderOf(plainFile);
    if (!done) {
      LogError("The files that a start without success has set aside cannot be put back.");
      return false;
    }
    if (isUndone) LogError("A start did not come to its end: the files that it set aside are put back.");
    plainFileIsDerived_ = false;
  }
  return PutBackLegacyFile();
}

bool DbStart::PutBackLegacyFile() const {
  const std::string& databaseFile = environment_.paths.databaseFile;
  const std::string legacyFile = LegacyName(environment_.paths);
  if (!FileIsThere(legacyFile) || FileIsFilled(databaseFile)) return true;
  // Once moved, the same file is the plain file, which goes first; an empty database file keeps default data from being
  // copied over it. Were it put back, the plain file would be encrypted over itself.
  const bool moved = IsSameFile(environment_.paths.plainDatabaseFile, legacyFile);
  const bool putBack = moved ? MakeWritable(databaseFile) : std::rename(legacyFile.c_str(), databaseFile.c_str()) == 0;
  if (putBack && SyncFolderOf(databaseFile)) return true;
  LogError("Failed to put the file %s back as the subscription DB file.", legacyFile.c_str());
  return false;
}

bool DbStart::SettleStart() {
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

}  // namespace event_service
