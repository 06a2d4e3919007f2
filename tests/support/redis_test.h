/// The fixture of every test that needs Redis: a server of its own and a sandbox root around it.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "foundation/redis_commands.h"
#include "tests/support/redis_server.h"
#include "tests/support/sandbox_root.h"

namespace event_service {

/// Every key with what it holds, in one line of text; for comparisons of before and after.
using DatabaseDump = std::map<std::string, std::string>;

/// "a, b".
template <typename Texts>
std::string CommaSeparated(const Texts& texts) {
  std::string all;
  for (const std::string& text : texts) all += ", " + text;
  return all.erase(0, 2);
}

/// One server and one sandbox root per suite; ProcessPaths() names the root, so redisConnectContext() reaches the
/// server. Database and root are emptied before each test. A server that a test has killed is started again.
class RedisTest : public testing::Test {
 protected:
  static void SetUpTestSuite();
  static void TearDownTestSuite();
  void SetUp() override;

  redisContext* redis() { return redis_.get(); }
  static const SandboxRoot& Sandbox() { return *sandbox_; }
  static RedisServer& Server() { return *server_; }
  /// Ends the server, which may have ended already, and goes on with an empty one, or with the data in this folder.
  void RestartServer(const std::string& dataFolder = {});
  /// One more connection to the server.
  static RedisContext Connect();
  DatabaseDump Dump();
  std::vector<std::string> Elements(const std::string& list);
  /// What one key holds, in one line of text.
  std::string ContentOf(const std::string& key);

 private:
  static std::unique_ptr<SandboxRoot> sandbox_;
  static std::unique_ptr<RedisServer> server_;
  RedisContext redis_;
};

}  // namespace event_service
