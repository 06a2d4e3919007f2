/// What startup does with the files: it keeps other daemons out, takes the first of plain file, database file and
/// default data that loads into Redis, and sets aside what it passes over until startup has succeeded.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "foundation/open_file.h"
#include "subscription_db/encrypted_file.h"

namespace event_service {

class DbStart {
 public:
  explicit DbStart(EncryptedFile& file) : file_(file), environment_(file.Environment()) {}

  /// Comes before anything else touches the files: locks the folder (and waits for a daemon that is ending), puts back
  /// what an earlier startup has left half-way, and copies the default data into the plain file where there is no
  /// database file. False after a logged line; startup must not go on then.
  [[nodiscard]] bool PrepareFiles();

  /// Puts the files back that a startup which failed or was cut short has set aside or moved, so that the next one
  /// finds what that one found. Called when a step after InitSubscriptionDb fails, and by PrepareFiles: default data
  /// would otherwise be copied over a moved file. False, after a logged line, when a file cannot be put back.
  [[nodiscard]] bool PutBackFiles();

  /// The startup procedure: takes the plain file when there is one, else decrypts the database file, else falls back
  /// to the default data; has what it found loaded into Redis; leaves an encrypted file. False after a logged line.
  /// Files that were passed over are set aside until SettleStart or PutBackFiles.
  [[nodiscard]] bool InitSubscriptionDb();

  /// Keeps for good what InitSubscriptionDb has set aside: startup has succeeded, and changes may follow. False, after
  /// a logged line, when that fails; a later startup would undo those changes, so this one must fail.
  [[nodiscard]] bool SettleStart();

  /// The URIs of the members of the file as InitSubscriptionDb left it, in the file's order.
  const std::vector<std::string>& RestoredUris() const { return restoredUris_; }

 private:
  enum class Restored { kYes, kRefused, kNotNow };

  bool LockFolder();
  bool DropForeignName(const std::string& path) const;
  bool ProvideDatabaseFile();
  bool CopyDefaultData() const;
  bool PutBackLegacyFile() const;
  bool NameLegacyFile();
  bool MoveLegacyFile();
  bool IsLegacyFile() const;
  Restored LoadDatabaseFile();
  bool FallBackToDefaultData();
  bool CanWritePlainFile() const;
  bool FinishStart();
  Restored RestoreDbToRedis(const std::string& plainFile);
  bool TakeUris(const std::string& plainFile);

  EncryptedFile& file_;
  const DbEnvironment& environment_;
  std::unique_ptr<Descriptor> folderLock_;  // held for the life of the process
  bool databaseFileLoaded_ = false;
  bool plainFileIsDerived_ = false;  // the plain file holds nothing that is not elsewhere
  std::vector<std::string> restoredUris_;
};

}  // namespace event_service
