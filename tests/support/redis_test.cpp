#include "tests/support/redis_test.h"

#include <algorithm>
#include <vector>

#include "foundation/file_paths.h"

namespace event_service {
namespace {

std::vector<std::string> Elements(redisContext* redis, std::initializer_list<std::string_view> command) {
  std::vector<std::string> elements;
  const RedisReply reply = SendArguments(redis, command);
  if (!IsArray(reply)) return elements;
  for (size_t i = 0; i < reply->elements; ++i) elements.emplace_back(TextOf(reply->element[i]));
  return elements;
}

std::string InBrackets(const char* brackets, const std::vector<std::string>& elements) {
  std::string text(1, brackets[0]);
  for (const std::string& element : elements) text.append(text.size() > 1 ? ", " : "").append(element);
  return text + brackets[1];
}

std::string ContentOf(redisContext* redis, const std::string& key) {
  const RedisReply type = SendArguments(redis, {"TYPE", key});
  if (TextOf(type) == "list") return InBrackets("[]", Elements(redis, {"LRANGE", key, "0", "-1"}));
  if (TextOf(type) == "string") return std::string(TextOf(SendArguments(redis, {"GET", key})));
  if (TextOf(type) == "set") {
    std::vector<std::string> members = Elements(redis, {"SMEMBERS", key});
    std::ranges::sort(members);
    return InBrackets("()", members);
  }
  if (TextOf(type) != "hash") return "a " + std::string(TextOf(type));
  const std::vector<std::string> words = Elements(redis, {"HGETALL", key});
  std::vector<std::string> fields;
  for (size_t i = 0; i + 1 < words.size(); i += 2) fields.push_back(words[i] + "=" + words[i + 1]);
  std::ranges::sort(fields);
  return InBrackets("{}", fields);
}

}  // namespace

DatabaseDump DumpDatabase(redisContext* redis) {
  DatabaseDump dump;
  for (const std::string& key : KeyListing(redis, "*")) dump[key] = ContentOf(redis, key);
  return dump;
}

std::unique_ptr<SandboxRoot> RedisTest::sandbox_;
std::unique_ptr<RedisServer> RedisTest::server_;

void RedisTest::SetUpTestSuite() {
  sandbox_ = std::make_unique<SandboxRoot>();
  sandbox_->WriteRedisSetting("port", "0");
  sandbox_->WriteRedisSetting("unixsocket", sandbox_->RedisSocket());
  sandbox_->WriteRedisSetting("requirepass", "");
  server_ = std::make_unique<RedisServer>(sandbox_->RedisSocket());
  SetProcessPaths(sandbox_->Paths());
}

void RedisTest::TearDownTestSuite() {
  SetProcessPaths({});
  server_.reset();
  sandbox_.reset();
}

void RedisTest::SetUp() {
  if (Server().Pid() == 0) Server().Start();
  SetProcessPaths(Sandbox().Paths());
  Sandbox().Clear();
  redis_ = Connect();
  ASSERT_TRUE(redis_);
  ASSERT_TRUE(SendCommand(redis(), "FLUSHALL"));
}

void RedisTest::RestartServer() {
  Server().Kill();
  Server().Start();
  redis_ = Connect();
}

RedisContext RedisTest::Connect() { return RedisContext(redisConnectContext()); }

}  // namespace event_service
