/// The password of the database file: read once, generated when there is none, never logged.
#pragma once

#include <string>

#include "subscription_db/db_environment.h"

namespace event_service {

class DbPassword {
 public:
  explicit DbPassword(const DbEnvironment& environment) : environment_(environment) {}

  /// Empty until it has been read or generated.
  const std::string& Text() const { return password_; }

  /// Makes the password file this user's alone. False, after logged lines, for what is no regular file: that is neither
  /// read nor written over.
  [[nodiscard]] bool SecureFile() const;

  /// Reads the first line of the password file, once in a process: true at once when it is known. True with an empty
  /// password for an empty file.
  [[nodiscard]] bool ReadDbPassword();

  /// Generates and stores a password unless there is one. False after a logged line.
  [[nodiscard]] bool EnsureDbPassword();

  /// Writes the file again, with a logged line, when it does not hold this password: whatever is encrypted with a
  /// password that stands in no file is lost with this process.
  void KeepInFile() const;

 private:
  bool Generate();

  const DbEnvironment& environment_;
  std::string password_;
  int loggedError_ = 0;  // of the last reading; the same one is not logged twice
};

}  // namespace event_service
