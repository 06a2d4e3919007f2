#include "tests/support/redis_test.h"

#include <set>

#include "foundation/file_paths.h"

namespace event_service {

std::vector<std::string> RedisTest::Elements(const std::string& list) {
  const RedisReply reply = SendArguments(redis(), {"LRANGE", list, "0", "-1"});
  const std::vector<std::string_view> texts = TextsOf(reply);
  return {texts.begin(), texts.end()};
}

std::string RedisTest::ContentOf(const std::string& key) {
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
