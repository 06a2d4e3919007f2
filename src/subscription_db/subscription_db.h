/// The encrypted file of subscriptions: what survives restarts, loss of power and an emptied Redis.
///
/// At rest there are only the encrypted database file and the password file. A change decrypts into a plain working
/// file, changes the document, writes the plain file and encrypts it back; at every instant one of the two files is
/// complete, and start-up takes a complete plain file first (docs/architecture.md has the argument state by state).
/// Used by start-up, then by the Subscriptions listener only.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/file_paths.h"
#include "foundation/open_file.h"
#include "foundation/shell.h"
#include "resource_store/store_encoding.h"

struct json_t;  // jansson's

namespace event_service {

/// What the database file needs from the world.
struct DbEnvironment {
  FilePaths paths = ProcessPaths();
  ShellRunner runShell = RunShell;
  std::function<void(std::chrono::microseconds)> sleep = {};  // empty: the thread sleeps
};

struct DbValueDeleter {
  void operator()(json_t* value) const;
};
using DbValue = std::unique_ptr<json_t, DbValueDeleter>;

enum class DbFileState { kFilled, kEmpty, kMissing };

/// Looks at a file; "File %s is empty." or "File %s doesn't exist." as a debug line where it is so.
DbFileState CheckDbFile(const std::string& path);

/// What a change logs when there is no document to change, or one without members.
struct DbLoadFailureLines {
  const char* noRoot;
  const char* noMembers;
};

/// In every change, `collectionEtag` is the stored text of the collection's "@odata.etag" (a JSON string; empty when
/// there is none). A change gives false, after a logged line, when it could not be written into the file; what only
/// the disk refused is kept in memory and goes into the file with the next change that succeeds.
class SubscriptionDb {
 public:
  explicit SubscriptionDb(DbEnvironment environment = {});

  // --- Start-up -----------------------------------------------------------------------------------------------------

  /// What comes before anything else touches the files: keeps other daemons out (and waits for one that is ending),
  /// puts the files right that an earlier start has left half-way, and copies the default data into the plain file
  /// where there is no database file. False after a logged line; the start must not go on then.
  [[nodiscard]] bool PrepareFiles();

  /// Puts the files back that a start which failed or was cut short has set aside or moved, so that the next one finds
  /// what that one found. Called when a step after InitSubscriptionDb fails, and by PrepareFiles: default data would
  /// otherwise be copied over a moved file. False, after a logged line, when a file cannot be put back.
  [[nodiscard]] bool PutBackFiles();

  /// The start-up procedure: takes the plain file when there is one, else decrypts the database file, else falls back
  /// to the default data; has what it found loaded into Redis; leaves an encrypted file. False after a logged line.
  /// Files that were passed over are set aside until SettleStart or PutBackFiles.
  [[nodiscard]] bool InitSubscriptionDb();

  /// Keeps for good what InitSubscriptionDb has set aside: the start has come to its end, and changes may follow.
  /// False, after a logged line, when that fails; a later start would undo those changes, so this one must fail.
  [[nodiscard]] bool SettleStart();

  /// The URIs of the members of the file as InitSubscriptionDb left it, in the file's order.
  const std::vector<std::string>& RestoredUris() const { return restoredUris_; }

  // --- Changes ------------------------------------------------------------------------------------------------------

  /// Adds a subscription, in the place of an older one with the same URI. `subscriptionText` is the whole
  /// EventDestination as JSON text, control fields as strings, with "@odata.id" naming this id in the collection;
  /// "&&Privileges" is set to `privileges`.
  [[nodiscard]] bool InsertDbSubscription(std::string_view id, const std::string& subscriptionText,
                                          std::string_view privileges, std::string_view collectionEtag);

  /// Adds several members in one change, each whole (as for an insert, with its "&&Privileges") and in the place of an
  /// older one with the same URI. One that the file cannot take is logged and left out, and the result is false; the
  /// others are written all the same. Nothing is done for an empty list.
  [[nodiscard]] bool WriteBackDbSubscriptions(std::span<const Json> members, std::string_view collectionEtag);

  /// Removes the first member with this URI; one that the file does not hold is removed already.
  [[nodiscard]] bool DeleteDbSubscription(std::string_view uri, std::string_view collectionEtag);

  /// Merges `changes` into the member with this URI: members of objects one by one (JSON merge patch, but null is a
  /// value), anything else replaced whole. A name in `removed` ("SNMP/AuthenticationKey") is taken out. False also when
  /// the file holds no such member.
  [[nodiscard]] bool UpdateDbSubscription(std::string_view uri, const Json& changes,
                                          const std::vector<std::string>& removed, std::string_view collectionEtag);

  /// Copies the collection's etag into the file.
  [[nodiscard]] bool RefreshDbEtag(std::string_view collectionEtag);

  // --- The steps they are made of -----------------------------------------------------------------------------------

  /// Reads the first line of the password file, once in a process: true at once when it is known. True with an empty
  /// password for an empty file.
  [[nodiscard]] bool ReadDbPassword();
  /// Generates and stores a password unless there is one.
  [[nodiscard]] bool EnsureDbPassword();

  /// Encrypts the plain file into the database file, flushes that and removes the plain file. On failure the plain file
  /// stays and is encrypted once more before the next change.
  [[nodiscard]] bool EncodeDbFile();
  /// Decrypts the database file into the plain file; with `retry` up to three times, a second apart.
  [[nodiscard]] bool DecodeDbFile(bool retry);

  /// The document in the database file, null when there is none or it cannot be read; the plain file is gone afterwards
  /// either way, unless it waited for an encryption that failed again.
  [[nodiscard]] DbValue LoadDb();
  /// Writes the document into the plain file and encrypts that.
  [[nodiscard]] bool DumpDbFile(const json_t* root);
  /// Sets the root's "@odata.etag" to the text that the stored etag stands for.
  static bool SetDbEtag(json_t* root, std::string_view collectionEtag);

  enum class Restored { kYes, kRefused, kNotNow };
  /// Has a plain file loaded into Redis by the resource loader. kRefused, after a logged line, when the file is none
  /// that can be loaded and changed; kNotNow, after a logged line, when three runs, a second apart, could not tell.
  [[nodiscard]] Restored RestoreDbToRedis(const std::string& plainFile);

 private:
  /// Changes the "Members" array; false, after a logged line, when there is nothing to write.
  using Edit = std::function<bool(json_t* members)>;

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
  bool TakeUris(const std::string& plainFile);

  bool SecurePasswordFile();
  bool GeneratePassword();
  void KeepPasswordFile() const;
  int RunCipher(const std::string& commandStart, const std::string& commandEnd) const;
  bool EncryptPlainFile();
  bool ChangeMembers(Edit edit, std::string_view collectionEtag, const DbLoadFailureLines& lines);
  void KeepUnwritten(Edit edit);

  DbEnvironment environment_;
  std::unique_ptr<Descriptor> folderLock_;
  std::string password_;
  int passwordError_ = 0;  // the last that was logged
  bool databaseFileLoaded_ = false;
  bool plainFileIsDerived_ = false;  // during a start: the plain file holds nothing that is not elsewhere
  bool plainFileIsAhead_ = false;    // an encryption failed: the plain file holds what the database file lacks
  std::deque<Edit> unwritten_;       // changes that failed before they were in either file, oldest first
  std::vector<std::string> restoredUris_;
};

}  // namespace event_service
