/// The encrypted database file and its plain working copy, which act as each other's journal: at every instant one of
/// the two is complete (docs/architecture.md has the argument state by state).
#pragma once

#include <string>

#include "subscription_db/db_document.h"
#include "subscription_db/db_environment.h"
#include "subscription_db/db_password.h"

namespace event_service {

enum class DbFileState { kFilled, kEmpty, kMissing };

/// Looks at a file; "File %s is empty." or "File %s doesn't exist." as a debug line where it is so.
DbFileState CheckDbFile(const std::string& path);

class EncryptedFile {
 public:
  explicit EncryptedFile(DbEnvironment environment);
  EncryptedFile(const EncryptedFile&) = delete;
  EncryptedFile& operator=(const EncryptedFile&) = delete;

  const DbEnvironment& Environment() const { return environment_; }
  DbPassword& Password() { return password_; }

  /// Encrypts the plain file into the database file, flushes that and removes the plain file. On failure, after a
  /// logged line, the plain file stays and is encrypted once more before the next change.
  [[nodiscard]] bool EncodeDbFile();
  /// Decrypts the database file into the plain file; with `retry` up to three times, a second apart. False after a
  /// logged line.
  [[nodiscard]] bool DecodeDbFile(bool retry);

  /// The document in the database file, null when there is none or it cannot be read; the plain file is gone afterwards
  /// either way, unless it waited for an encryption that failed again.
  [[nodiscard]] DbValue LoadDb();
  /// Writes the document into the plain file and encrypts that. False after a logged line.
  [[nodiscard]] bool DumpDbFile(const json_t* root);

  /// True when an encryption failed: the plain file holds what the database file lacks.
  bool IsPlainFileAhead() const { return plainFileIsAhead_; }

 private:
  int RunCipher(const std::string& commandStart, const std::string& commandEnd) const;
  bool EncryptPlainFile();

  const DbEnvironment environment_;
  DbPassword password_;
  bool plainFileIsAhead_ = false;
};

}  // namespace event_service
