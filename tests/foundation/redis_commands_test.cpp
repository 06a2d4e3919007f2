#include "foundation/redis_commands.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "tests/support/canned_replies.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"
#include "tests/support/trip_counter.h"

namespace event_service {
namespace {

using std::string_literals::operator""s;

class RedisCommandsTest : public RedisTest {};

TEST_F(RedisCommandsTest, EveryHelperDoesWhatItsCommandDoes) {
  EXPECT_TRUE(HashWrite(redis(), "hash", "plain", "true"));
  EXPECT_TRUE(HashWriteQuoted(redis(), "hash", "quoted", "Event Service"));
  EXPECT_TRUE(HashWrite(redis(), "hash", "gone", "x"));
  EXPECT_TRUE(HashFieldDelete(redis(), "hash", "gone"));
  EXPECT_TRUE(HashFieldDelete(redis(), "hash", "never there"));
  for (const char* value : {"a", "b", "a", "c"}) EXPECT_TRUE(ListAppend(redis(), "list", value));
  EXPECT_EQ(ListLength(redis(), "list"), 4);
  EXPECT_TRUE(ListRemove(redis(), "list", "a"));
  EXPECT_EQ(Dump(), (DatabaseDump{{"hash", "{plain=true, quoted=\"Event Service\"}"}, {"list", "[b, c]"}}));

  EXPECT_EQ(HashRead(redis(), "hash", "quoted"), "\"Event Service\"");
  EXPECT_EQ(HashRead(redis(), "hash", "gone"), "");
  EXPECT_EQ(ListLength(redis(), "missing"), 0);
  EXPECT_TRUE(KeyExists(redis(), "hash"));
  EXPECT_TRUE(KeyDelete(redis(), "hash"));
  EXPECT_FALSE(KeyExists(redis(), "hash"));
}

TEST_F(RedisCommandsTest, TextsOfAnyBytesAreStoredWhole) {
  const std::string texts[] = {"", "two words", "a\0b"s, "%s %d \"'\r\n*1", std::string(100'000, 'x'), "\xFF\xC3"};
  for (const std::string& text : texts) {
    EXPECT_TRUE(HashWrite(redis(), text, text, text));
    EXPECT_EQ(HashRead(redis(), text, text), text);
    EXPECT_TRUE(HashBatchWrite(redis(), {{text, {{text, text}, {"other", text}}}}));
    EXPECT_EQ(HashRead(redis(), text, "other"), text);
    EXPECT_TRUE(ListBatchAppend(redis(), "list", {{text}}));
    EXPECT_TRUE(ListRemove(redis(), "list", text));
    EXPECT_EQ(ListLength(redis(), "list"), 0) << "the same bytes were appended";
  }
}

TEST(RedisCommandHelpers, JudgeByTheTypeOfTheReply) {
  const struct {
    const char* name;
    std::function<bool(redisContext*)> succeeds;
    std::string_view goodReplies;  // by their first character
  } helpers[] = {
      {"HashRead", [](redisContext* redis) { return !HashRead(redis, "k", "f").empty(); }, "$"},
      {"HashWrite", [](redisContext* redis) { return HashWrite(redis, "k", "f", "v"); }, ":0"},
      {"HashWriteQuoted", [](redisContext* redis) { return HashWriteQuoted(redis, "k", "f", "v"); }, ":0"},
      {"HashFieldDelete", [](redisContext* redis) { return HashFieldDelete(redis, "k", "f"); }, ":0"},
      {"ListAppend", [](redisContext* redis) { return ListAppend(redis, "k", "v"); }, ":0"},
      {"ListLength", [](redisContext* redis) { return ListLength(redis, "k") != -1; }, ":0"},
      {"ListRemove", [](redisContext* redis) { return ListRemove(redis, "k", "v"); }, ":0"},
      {"KeyExists", [](redisContext* redis) { return KeyExists(redis, "k"); }, ":"},
      {"KeyDelete", [](redisContext* redis) { return KeyDelete(redis, "k"); }, ":0"},
      {"KeyListing", [](redisContext* redis) { return KeyListing(redis, "*").size() == 1; }, "*"},
      {"HashBatchWrite",
       [](redisContext* redis) {
         return HashBatchWrite(redis, {{"k", {{"f", "v"}}}});
       },
       ":0"},
      {"ListBatchAppend", [](redisContext* redis) { return ListBatchAppend(redis, "k", {{"v"s}}); }, ":0$+*-n"},
  };
  const std::pair<char, std::string_view> replies[] = {{':', ":1\r\n"},
                                                       {'0', ":0\r\n"},
                                                       {'$', "$1\r\na\r\n"},
                                                       {'+', "+OK\r\n"},
                                                       {'-', "-ERR no\r\n"},
                                                       {'n', "$-1\r\n"},
                                                       {'*', "*2\r\n:1\r\n$1\r\na\r\n"},
                                                       {' ', ""}};
  LogCapture log;
  for (const auto& helper : helpers) {
    for (const auto& [kind, reply] : replies) {
      CannedConnection server(reply);
      EXPECT_EQ(helper.succeeds(server.redis()), helper.goodReplies.find(kind) != std::string_view::npos)
          << helper.name << " answered by " << reply;
    }
    CannedConnection nobody("", CannedConnection::Then::kRefuseWrites);
    EXPECT_FALSE(helper.succeeds(nobody.redis())) << helper.name;
    EXPECT_FALSE(helper.succeeds(nobody.redis())) << helper.name << " on a connection that has failed";
  }
  // The two batches log one line for each unreadable reply above; nothing else logs.
  EXPECT_EQ(log.Errors(), std::vector<std::string>(6, "Failed to get reply from database."));
}

TEST(HashBatch, ReadsEveryReplyWhateverWentWrong) {
  const HashBatch batch = {{"a", {{"1", "v"}}}, {"b", {{"1", "v"}, {"2", "v"}}}};
  LogCapture log;
  CannedConnection server(":1\r\n-ERR no\r\n:1\r\n+PONG\r\n");
  EXPECT_FALSE(HashBatchWrite(server.redis(), batch));
  EXPECT_EQ(TextOf(SendCommand(server.redis(), "PING")), "PONG") << "the connection is out of step";
  EXPECT_TRUE(log.Lines().empty()) << "an error reply was read";

  CannedConnection lost(":1\r\n");
  EXPECT_FALSE(HashBatchWrite(lost.redis(), batch));
  EXPECT_EQ(log.Errors(), std::vector<std::string>{"Failed to get reply from database."});

  CannedConnection unused("");
  EXPECT_TRUE(HashBatchWrite(unused.redis(), {}));
  EXPECT_TRUE(ListBatchAppend(unused.redis(), "list", {}));
  EXPECT_EQ(unused.Received(), "");
}

TEST_F(RedisCommandsTest, AnEscapedNameMatchesItselfOnly) {
  const std::string names[] = {"a*", "a?", "[ab]", "a\\b", "[^a]", "a-b", "[a-c]", "/redfish/v1/x", "a\0b"s, ""};
  for (const std::string& name : names) {
    for (const std::string& key : {name, "a"s, "ab"s, "a\\"s, "b"s, "abc"s})
      ASSERT_TRUE(HashWrite(redis(), key, "f", "v"));
    EXPECT_EQ(KeyListing(redis(), EscapeGlob(name)), std::vector<std::string>{name});
    ASSERT_TRUE(KeyDelete(redis(), name));
  }
  std::vector<std::string> keys = KeyListing(redis(), "a*");
  std::ranges::sort(keys);
  EXPECT_EQ(keys, (std::vector<std::string>{"a", "a\\", "ab", "abc"}));
}

}  // namespace
}  // namespace event_service
