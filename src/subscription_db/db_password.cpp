// The password of the database file: read once, generated when there is none, never logged.
#include <cerrno>
#include <cstdio>
#include <memory>
#include <system_error>

#include "foundation/durable_file.h"
#include "foundation/logging.h"
#include "foundation/random.h"
#include "subscription_db/private_file.h"
#include "subscription_db/subscription_db.h"

namespace event_service {
namespace {

constexpr std::string_view kAlphabet = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr size_t kPasswordLength = 16;
// The cipher tool reads no longer pass phrase from a descriptor, and cuts one silently.
constexpr size_t kLongestPassword = 1022;

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

/// The first line of the file without its line end, or the error number of what stood in the way.
int ReadFirstLine(const std::string& path, std::string& result) {
  const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "re"));
  if (!file) return errno;
  char line[kLongestPassword + 2];  // line end and NUL
  if (std::fgets(line, sizeof line, file.get()) == nullptr) {
    if (std::ferror(file.get())) return errno;
    line[0] = '\0';
  }
  std::string_view text = line;
  if (text.ends_with('\n')) {
    text.remove_suffix(1);
  } else if (text.size() > kLongestPassword) {
    return EMSGSIZE;
  }
  result = text;
  return 0;
}

}  // namespace

bool SubscriptionDb::ReadDbPassword() {
  if (!password_.empty()) return true;
  const int error = ReadFirstLine(environment_.paths.passwordFile, password_);
  // A start asks twice.
  if (error != 0 && error != passwordError_) {
    LogError("Failed to read password: %s.", std::generic_category().message(error).c_str());
  }
  passwordError_ = error;
  return error == 0;
}

bool SubscriptionDb::EnsureDbPassword() {
  const bool read = ReadDbPassword();
  if (read && !password_.empty()) return true;
  // What cannot be read now may still be the only key to a file that is kept aside.
  const std::string& path = environment_.paths.passwordFile;
  if (!read && FileIsThere(path) && !KeepAside(path, path)) return false;
  return GeneratePassword();
}

bool SubscriptionDb::GeneratePassword() {
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

void SubscriptionDb::KeepPasswordFile() const {
  // Whatever is encrypted with a password that stands in no file is lost with this process.
  const std::string& path = environment_.paths.passwordFile;
  std::string stored;
  if (ReadFirstLine(path, stored) == 0 && stored == password_) return;
  if (ReplaceFile(path, password_)) {
    LogError("The password file was missing or changed and has been written again.");
  } else {
    LogError("The password file is missing or changed and cannot be written again.");
  }
}

}  // namespace event_service
