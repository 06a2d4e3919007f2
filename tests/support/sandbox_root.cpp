#include "tests/support/sandbox_root.h"

#include <gtest/gtest.h>
#include <stdlib.h>  // NOLINT(modernize-deprecated-headers): mkdtemp
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "foundation/shell.h"

namespace fs = std::filesystem;

namespace event_service {

/// A socket's path has about a hundred characters at most, so the folder's name is short.
static std::string NewTemporaryFolder() {
  std::string path = (fs::temp_directory_path() / "es-XXXXXX").string();
  if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("no temporary folder at " + path);
  return path;
}

SandboxRoot::SandboxRoot() : root_(NewTemporaryFolder()), paths_(MakeFilePaths(root_).value()) {
  LayOut();
  WriteFile(paths_.redisConfiguration, "port 0\nunixsocket " + RedisSocket() + "\n");
}

SandboxRoot::~SandboxRoot() {
  std::error_code ignored;
  fs::remove_all(root_, ignored);
}

FilePaths SandboxRoot::UseRedis(const std::string& socket) const {
  WriteFile(RedisDirectory() + "/redis.port", "0");
  WriteFile(RedisDirectory() + "/redis.unixsocket", socket);
  WriteFile(RedisDirectory() + "/redis.requirepass", "");
  FilePaths paths = paths_;
  paths.redisConfiguration = socket + ".conf";
  WriteFile(paths.redisConfiguration, ReadFile(paths_.redisConfiguration));
  return paths;
}

void SandboxRoot::Clear() const {
  for (const char* folder : {"/usr", "/var", "/etc/certs", "/etc/default"}) fs::remove_all(root_ + folder);
  LayOut();
}

void SandboxRoot::LayOut() const {
  for (const std::string& path : {paths_.configuration, paths_.redisConfiguration, paths_.databaseFile,
                                  paths_.defaultDatabaseFile, paths_.resourceLoader, paths_.headerValidatorModule,
                                  paths_.syslogCertificates, paths_.systemCertificates, RedisSocket()}) {
    fs::create_directories(fs::path(path).parent_path());
  }
}

void WriteFile(const std::string& path, std::string_view content) {
  std::error_code ignored;
  fs::create_directories(fs::path(path).parent_path(), ignored);
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content << std::flush;
  if (!file) ADD_FAILURE() << "cannot write " << path;
}

std::string ReadFile(const std::string& path) {
  if (!fs::is_regular_file(path)) return {};
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string DecryptedDatabase(const FilePaths& paths) {
  const std::string output = paths.passwordFile + ".decrypted";
  RunShell("openssl enc -d -aes-256-cbc -in " + paths.databaseFile + " -k \"$(head -n 1 " + paths.passwordFile +
           ")\" 2>/dev/null >" + output);
  std::string text = ReadFile(output);
  fs::remove(output);
  return text;
}

void Obstruct(const std::string& path, const std::string& kind, const std::string& victim) {
  fs::remove_all(path);
  WriteFile(victim, "victim");
  if (kind == "link") fs::create_symlink(victim, path);
  if (kind == "second name") fs::create_hard_link(victim, path);
  if (kind == "fifo" && mkfifo(path.c_str(), 0666) != 0) ADD_FAILURE() << "no FIFO " << path;
  if (kind == "folder") fs::create_directories(path + "/inside");
  if (kind != "foreign") return;
  WriteFile(path, "foreign");
  [[maybe_unused]] const int unlessRoot = chown(path.c_str(), 12345, 12345);
}

}  // namespace event_service
