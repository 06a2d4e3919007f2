#include "tests/support/redis_test.h"

#include <algorithm>
#include <vector>

#include "foundation/file_paths.h"

namespace event_service {
namespace {

std::string ContentOf(redisContext* redis, const std::string& key) {
  const std::string type(TextOf(SendArguments(redis, {"TYPE", key})));
  if (type == "string") return std::string(TextOf(SendArguments(redis, {"GET", key})));
  const RedisReply reply = type == "list"  ? SendArguments(redis, {"LRANGE", key, "0", "-1"})
                           : type == "set" ? SendArguments(redis, {"SMEMBERS", key})
                                           : SendArguments(redis, {"HGETALL", key});
  EXPECT_TRUE(IsArray(reply)) << key << " is a " << type;
  std::vector<std::string> parts;
  for (size_t i = 0; IsArray(reply) && i < reply->elements; ++i) {
    parts.emplace_back(TextOf(reply->element[i]));
    if (type == "hash") parts.back().append("=").append(TextOf(reply->element[++i]));
  }
  if (type != "list") std::ranges::sort(parts);
  std::string text;
  for (const std::string& part : parts) text.append(text.empty() ? "" : ", ").append(part);
  return type == "list" ? "[" + text + "]" : type == "set" ? "(" + text + ")" : "{" + text + "}";
}

}  // namespace

DatabaseDump RedisTest::Dump() {
  DatabaseDump dump;
  for (const std::string& key : KeyListing(redis(), "*")) dump[key] = ContentOf(redis(), key);
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
