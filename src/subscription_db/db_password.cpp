#include "subscription_db/db_password.h"

#include <cerrno>
#include <optional>

#include "foundation/durable_file.h"
#include "foundation/logging.h"
#include "foundation/random.h"
#include "subscription_db/private_file.h"

namespace event_service {
namespace {

constexpr std::string_view kAlphabet = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr size_t kPasswordLength = 16;

}  // namespace

bool DbPassword::SecureFile() const {
  if (MakePrivate(environment_.paths.passwordFile) || errno == ENOENT) return true;
  // It is neither read nor written over, whatever it is.
  LogError("Failed to read password: %s.", ReasonOf(errno).c_str());
  LogError("Failed to generate encrypt/decrypt password.");
  return false;
}

bool DbPassword::ReadDbPassword() {
  if (!password_.empty()) return true;
  const std::optional<std::string> line = ReadFirstLine(environment_.paths.passwordFile);
  const int error = line ? 0 : errno;
  if (line) password_ = *line;
  // A start asks twice, and the first one of all has no such file.
  if (error != 0 && error != ENOENT && error != loggedError_) {
    LogError("Failed to read password: %s.", ReasonOf(error).c_str());
  }
  loggedError_ = error;
  return error == 0;
}

bool DbPassword::EnsureDbPassword() {
  const bool read = ReadDbPassword();
  if (read && !password_.empty()) return true;
  // What cannot be read now may still be the only key to a file that is kept aside.
  const std::string& path = environment_.paths.passwordFile;
  if (!read && FileIsThere(path) && !KeepAside(path, path)) return false;
  return Generate();
}

bool DbPassword::Generate() {
  std::string password;
  while (password.size() < kPasswordLength) password += kAlphabet[RandomNumber() % kAlphabet.size()];
  const std::string& path = environment_.paths.passwordFile;
  if (!ReplaceFile(path, password)) {
    LogError("Failed to generate encrypt/decrypt password.");
    return false;
  }
  if (environment_.runShell("chmod 600 " + path) != 0) {
    LogError("Failed to change the permissions of the password file.");
    return false;
  }
  password_ = password;
  return true;
}

void DbPassword::KeepInFile() const {
  const std::string& path = environment_.paths.passwordFile;
  if (ReadFirstLine(path) == password_) return;
  if (ReplaceFile(path, password_)) {
    LogError("The password file was missing or changed and has been written again.");
  } else {
    LogError("The password file is missing or changed and cannot be written again.");
  }
}

}  // namespace event_service
