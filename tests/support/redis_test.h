/// The fixture of every test that needs Redis: a server of its own and a sandbox root around it.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "foundation/file_paths.h"
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
  static void SetUpTestSuite() {
    sandbox_ = std::make_unique<SandboxRoot>();
    SetProcessPaths(sandbox_->UseRedis(sandbox_->RedisSocket()));
    server_ = std::make_unique<RedisServer>(sandbox_->RedisSocket());
  }
  static void TearDownTestSuite() {
    SetProcessPaths({});
    server_.reset();
    sandbox_.reset();
  }
  void SetUp() override {
    SetProcessPaths(Sandbox().UseRedis(Sandbox().RedisSocket()));
    Sandbox().Clear();
    if (!Server().IsRunning()) RestartServer();
    redis_ = Connect();
    ASSERT_TRUE(SendCommand(redis(), "FLUSHALL"));
  }

  redisContext* redis() { return redis_.get(); }
  static const SandboxRoot& Sandbox() { return *sandbox_; }
  static RedisServer& Server() { return *server_; }
  /// Ends the server, which may have ended already, and goes on with an empty one, or with the data in this folder.
  void RestartServer(const std::string& dataFolder = {}) {
    if (server_) server_->Kill();
    server_ = std::make_unique<RedisServer>(Sandbox().RedisSocket(), dataFolder);
    redis_ = Connect();
  }
  /// One more connection to the server.
  static RedisContext Connect() { return RedisContext(redisConnectContext()); }
  /// Gives the script to Redis and its name to the service.
  void RegisterScript(std::string_view name, std::string_view text) {
    const RedisReply digest = SendArguments(redis(), {"SCRIPT", "LOAD", text});
    ASSERT_TRUE(HashWrite(redis(), "redisSHAScripts", name, TextOf(digest))) << name;
  }
  DatabaseDump Dump() {
    DatabaseDump dump;
    for (const std::string& key : KeyListing(redis(), "*")) dump[key] = ContentOf(key);
    return dump;
  }
  std::vector<std::string> Elements(const std::string& list) {
    const RedisReply reply = SendArguments(redis(), {"LRANGE", list, "0", "-1"});
    const std::vector<std::string_view> texts = TextsOf(reply);
    return {texts.begin(), texts.end()};
  }
  /// What one key holds, in one line of text.
  std::string ContentOf(const std::string& key) {
    const std::string type(TextOf(SendArguments(redis(), {"TYPE", key})));
    if (type == "string") return std::string(TextOf(SendArguments(redis(), {"GET", key})));
    if (type == "list") return "[" + CommaSeparated(Elements(key)) + "]";
    const RedisReply reply = SendArguments(redis(), {type == "set" ? "SMEMBERS" : "HGETALL", key});
    EXPECT_TRUE(IsArray(reply)) << key << " is a " << type;
    const std::vector<std::string_view> texts = TextsOf(reply);
    if (type == "set") return "(" + CommaSeparated(std::set<std::string>(texts.begin(), texts.end())) + ")";
    std::set<std::string> fields;
    for (size_t i = 0; i < texts.size(); i += 2) fields.insert(std::string(texts[i]).append("=").append(texts[i + 1]));
    return "{" + CommaSeparated(fields) + "}";
  }

 private:
  static inline std::unique_ptr<SandboxRoot> sandbox_;
  static inline std::unique_ptr<RedisServer> server_;
  RedisContext redis_;
};

}  // namespace event_service
