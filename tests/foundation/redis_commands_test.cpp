#include "foundation/redis_commands.h"

#include <gtest/gtest.h>

#include <functional>

#include "tests/support/canned_replies.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"

namespace event_service {
namespace {

using std::string_literals::operator""s;

class RedisCommandsTest : public RedisTest {};

TEST_F(RedisCommandsTest, EveryHelperDoesWhatItsCommandDoes) {
  EXPECT_TRUE(HashWrite(redis(), "hash", "plain", "true"));
  EXPECT_TRUE(HashWriteQuoted(redis(), "hash", "quoted", "Event Service"));
  EXPECT_TRUE(HashWrite(redis(), "hash", "gone", "x"));
  EXPECT_TRUE(HashFieldDelete(redis(), "hash", "gone"));
  EXPECT_TRUE(ListBatchAppend(redis(), "list", std::vector{"a"s, "b"s, "a"s, "c"s}));
  EXPECT_TRUE(ListAppend(redis(), "list", "d"));
  EXPECT_EQ(ListLength(redis(), "list"), 5);
  EXPECT_TRUE(ListRemove(redis(), "list", "a"));
  EXPECT_EQ(Dump(), (DatabaseDump{{"hash", "{plain=true, quoted=\"Event Service\"}"}, {"list", "[b, c, d]"}}));
  EXPECT_TRUE(KeyExists(redis(), "hash"));
  EXPECT_TRUE(KeyDelete(redis(), "hash"));
  EXPECT_FALSE(KeyExists(redis(), "hash"));
}

TEST_F(RedisCommandsTest, TextsOfAnyBytesAreStoredWhole) {
  for (const std::string& text : {""s, "two words"s, "a\0b"s, "%s %d \"'\r\n*1"s, std::string(100'000, 'x'), "\xFF"s}) {
    EXPECT_TRUE(HashWrite(redis(), text, text, text));
    EXPECT_EQ(HashRead(redis(), text, text), text);
  }
}

TEST(RedisCommandHelpers, OnlyAnIntegerIsASuccess) {
  const std::pair<const char*, std::function<bool(redisContext*)>> helpers[] = {
      {"HashWrite", [](redisContext* redis) { return HashWrite(redis, "k", "f", "v"); }},
      {"HashFieldDelete", [](redisContext* redis) { return HashFieldDelete(redis, "k", "f"); }},
      {"ListAppend", [](redisContext* redis) { return ListAppend(redis, "k", "v"); }},
      {"ListLength", [](redisContext* redis) { return ListLength(redis, "k") != -1; }},
      {"ListRemove", [](redisContext* redis) { return ListRemove(redis, "k", "v"); }},
      {"KeyExists", [](redisContext* redis) { return KeyExists(redis, "k"); }},
      {"KeyDelete", [](redisContext* redis) { return KeyDelete(redis, "k"); }},
  };
  for (const auto& [name, succeeds] : helpers) {
    for (const std::string reply : {":1\r\n", "+OK\r\n", "-ERR no\r\n", "$-1\r\n", "$1\r\na\r\n", ""}) {
      CannedConnection server(reply);
      EXPECT_EQ(succeeds(server.redis()), reply == ":1\r\n") << name << " answered by " << reply;
    }
  }
}

TEST(HashBatch, ReadsEveryReplyWhateverWentWrong) {
  const HashBatch batch = {{"a", {{"1", "v"}}}, {"b", {{"1", "v"}, {"2", "v"}}}};
  const LogCapture log;
  CannedConnection server(":1\r\n-ERR no\r\n:1\r\n+PONG\r\n");
  EXPECT_FALSE(HashBatchWrite(server.redis(), batch));
  EXPECT_EQ(TextOf(SendCommand(server.redis(), "PING")), "PONG") << "the connection is out of step";
  CannedConnection lost(":1\r\n");
  EXPECT_FALSE(HashBatchWrite(lost.redis(), batch));
  EXPECT_EQ(log.Errors(), std::vector<std::string>{"Failed to get reply from database."}) << "of the lost one";
}

TEST_F(RedisCommandsTest, AnEscapedNameMatchesItselfOnly) {
  for (const std::string& name : {"a*"s, "a?"s, "[ab]"s, "a\\b"s, "[^a]"s, "a-b"s, "[a-c]"s, "a\0b"s, ""s}) {
    for (const std::string& key : {name, "a"s, "ab"s, "a\\"s, "b"s}) ASSERT_TRUE(HashWrite(redis(), key, "f", "v"));
    EXPECT_EQ(KeyListing(redis(), EscapeGlob(name)), std::vector<std::string>{name});
    ASSERT_TRUE(KeyDelete(redis(), name));
  }
}

}  // namespace
}  // namespace event_service
