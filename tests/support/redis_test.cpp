#include "tests/support/redis_test.h"

#include <algorithm>
#include <vector>

#include "foundation/file_paths.h"

namespace event_service {

std::string RedisTest::ContentOf(const std::string& key) {
  const std::string type(TextOf(SendArguments(redis(), {"TYPE", key})));
  if (type == "string") return std::string(TextOf(SendArguments(redis(), {"GET", key})));
  const RedisReply reply = type == "list"  ? SendArguments(redis(), {"LRANGE", key, "0", "-1"})
                           : type == "set" ? SendArguments(redis(), {"SMEMBERS", key})
                                           : SendArguments(redis(), {"HGETALL", key});
  EXPECT_TRUE(IsArray(reply)) << key << " is a " << type;
  const std::vector<std::string_view> texts = TextsOf(reply);
  std::vector<std::string> parts(texts.begin(), texts.end());
  for (size_t i = 0; type == "hash" && i < parts.size(); ++i) {
    parts[i] += "=" + parts[i + 1];
    parts.erase(parts.begin() + static_cast<std::ptrdiff_t>(i) + 1);
  }
  if (type != "list") std::ranges::sort(parts);
  std::string text;
  for (const std::string& part : parts) text.append(text.empty() ? "" : ", ").append(part);
  return type == "list" ? "[" + text + "]" : type == "set" ? "(" + text + ")" : "{" + text + "}";
}

DatabaseDump RedisTest::Dump() {
  DatabaseDump dump;
  for (const std::string& key : KeyListing(redis(), "*")) dump[key] = ContentOf(key);
  return dump;
}

std::unique_ptr<SandboxRoot> RedisTest::sandbox_;
std::unique_ptr<RedisServer> RedisTest::server_;

void RedisTest::SetUpTestSuite() {
  sandbox_ = std::make_unique<SandboxRoot>();
  SetProcessPaths(sandbox_->UseRedis(sandbox_->RedisSocket()));
  server_ = std::make_unique<RedisServer>(sandbox_->RedisSocket());
}

void RedisTest::TearDownTestSuite() {
  SetProcessPaths({});
  server_.reset();
  sandbox_.reset();
}

void RedisTest::SetUp() {
  SetProcessPaths(Sandbox().UseRedis(Sandbox().RedisSocket()));
  Sandbox().Clear();
  if (!Server().IsRunning()) RestartServer();
  redis_ = Connect();
  ASSERT_TRUE(SendCommand(redis(), "FLUSHALL"));
}

void RedisTest::RestartServer(const std::string& dataFolder) {
  if (server_) server_->Kill();
  server_ = std::make_unique<RedisServer>(Sandbox().RedisSocket(), dataFolder);
  redis_ = Connect();
}

RedisContext RedisTest::Connect() { return RedisContext(redisConnectContext()); }

}  // namespace event_service
