/// A temporary folder laid out like the product's fixed paths, for tests that must not touch the machine's own.
#pragma once

#include <string>
#include <string_view>

#include "foundation/file_paths.h"

namespace event_service {

/// Creates the folder with its (empty) subfolders and removes all of it at the end. "redis.conf" names a socket in
/// RedisDirectory(), where the setting files "redis.<key>" are looked for; nothing else exists at first.
class SandboxRoot {
 public:
  SandboxRoot();
  SandboxRoot(const SandboxRoot&) = delete;
  SandboxRoot& operator=(const SandboxRoot&) = delete;
  ~SandboxRoot();

  const std::string& Root() const { return root_; }
  /// The product's paths below this folder. Openssl is the system's.
  const FilePaths& Paths() const { return paths_; }

  std::string RedisDirectory() const { return root_ + "/run/redis"; }
  std::string RedisSocket() const { return RedisDirectory() + "/redis.sock"; }
  /// Lets lookups of the server find this socket, its own or a proxy's: those of processes that start from here on, and
  /// this one's with the paths returned, as it remembers what it found with others.
  FilePaths UseRedis(const std::string& socket) const;

  /// Removes every file but those of Redis and lays the folders out anew.
  void Clear() const;

 private:
  void LayOut() const;

  std::string root_;
  FilePaths paths_;
};

/// Writes a file, creating its folders, or fails the test.
void WriteFile(const std::string& path, std::string_view content);
/// The whole content; empty when the file cannot be read.
std::string ReadFile(const std::string& path);

/// The text in the database file, decrypted by the documented command line; empty when that fails.
std::string DecryptedDatabase(const FilePaths& paths);

/// What somebody else can have laid out under a name: "link" and "second name" of the file `victim`, which holds
/// "victim", a "fifo", a "folder" with something in it, a "foreign" user's file (as root only).
void Obstruct(const std::string& path, const std::string& kind, const std::string& victim);

}  // namespace event_service
