#include "foundation/redis_commands.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "foundation/redis_pipeline.h"
#include "tests/support/canned_replies.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"
#include "tests/support/trip_counter.h"

namespace event_service {
namespace {

using std::string_literals::operator""s;

class RedisCommandsTest : public RedisTest {};

TEST_F(RedisCommandsTest, RemovalsTakeTheFieldAndEveryElementOfTheValue) {
  EXPECT_TRUE(HashWriteQuoted(redis(), "hash", "quoted", "Event Service") && HashWrite(redis(), "hash", "gone", "x"));
  EXPECT_TRUE(HashFieldDelete(redis(), "hash", "gone"));
  EXPECT_TRUE(ListBatchAppend(redis(), "list", std::vector{"a"s, "b"s, "a"s}) && ListRemove(redis(), "list", "a"));
  EXPECT_EQ(Dump(), (DatabaseDump{{"hash", "{quoted=\"Event Service\"}"}, {"list", "[b]"}}));
}

TEST(RedisCommandHelpers, OnlyAnIntegerIsASuccess) {
  for (const std::string reply : {":1\r\n", "+OK\r\n", "-ERR no\r\n", "$-1\r\n", "$1\r\na\r\n", ""}) {
    const bool isInteger = reply == ":1\r\n";
    CannedConnection server(reply + reply + reply + reply + reply + reply + reply);
    EXPECT_EQ(HashWrite(server.redis(), "k", "f", "v"), isInteger) << reply;
    EXPECT_EQ(HashFieldDelete(server.redis(), "k", "f"), isInteger) << reply;
    EXPECT_EQ(ListAppend(server.redis(), "k", "v"), isInteger) << reply;
    EXPECT_EQ(ListLength(server.redis(), "k"), isInteger ? 1 : -1) << reply;
    EXPECT_EQ(ListRemove(server.redis(), "k", "v"), isInteger) << reply;
    EXPECT_EQ(KeyExists(server.redis(), "k"), isInteger) << reply;
    EXPECT_EQ(KeyDelete(server.redis(), "k"), isInteger) << reply;
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

TEST_F(RedisCommandsTest, AStepTakesTheRepliesToItsOwnCommandsAndMaySendOthers) {
  RedisPipeline pipeline(redis());
  std::vector<std::string> taken;
  const auto take = [&taken](Replies replies) {
    std::string texts;
    for (const RedisReply& reply : replies) texts += TextOf(reply);
    taken.push_back(texts);
  };
  pipeline.Append({"ECHO", "a"});
  pipeline.Append({"ECHO", "b"});
  pipeline.Then(take);
  pipeline.Then(take);  // a step that found nothing to ask
  pipeline.Ask({"ECHO", "c"}, [&](RedisReply& reply) {
    taken.emplace_back(TextOf(reply));
    pipeline.Append({"ECHO", "e"});
    pipeline.Then(take);
    pipeline.Execute();
  });
  pipeline.Append({"ECHO", "d"});  // nobody's
  EXPECT_EQ(pipeline.Execute().size(), 4U);
  EXPECT_EQ(taken, (std::vector<std::string>{"ab", "", "c", "e"}));
  EXPECT_TRUE(pipeline.Execute().empty()) << "a step runs once";
  EXPECT_EQ(taken.size(), 4U);
}

TEST_F(RedisCommandsTest, APipelineTakesOneRoundTripAndALostConnectionGivesNullRepliesFromThereOn) {
  TripCounter proxy(Server().SocketPath());
  const RedisContext redis = proxy.Connect();
  RedisPipeline pipeline(redis.get());
  for (size_t i = 0; i < 300; ++i) EXPECT_EQ(pipeline.Append({"RPUSH", "list", std::to_string(i)}), i);
  const std::vector<RedisReply> replies = pipeline.Execute();
  EXPECT_TRUE(replies.size() == 300 && AllIntegers(replies));
  EXPECT_EQ(proxy.trips(), 1U);
  EXPECT_EQ(ListLength(this->redis(), "list"), 300);

  proxy.Reset({.cutAfter = 1});
  for (const char* value : {"a", "b"}) pipeline.Append({"RPUSH", "other", value});
  const std::vector<RedisReply> cut = pipeline.Execute();
  EXPECT_TRUE(IsInteger(cut[0]) && !cut[1]);
  EXPECT_FALSE(AllIntegers(cut));
}

TEST_F(RedisCommandsTest, NeitherAnErrorNorAThrowingTakerLeavesTheConnectionOutOfStep) {
  RedisPipeline pipeline(redis());
  for (const char* command : {"ECHO", "no-such-command", "ECHO"}) pipeline.Append({command, "text"});
  const std::vector<RedisReply> replies = pipeline.Execute();
  EXPECT_EQ(TextOf(replies[0]), "text");
  EXPECT_EQ(replies[1]->type, REDIS_REPLY_ERROR);
  EXPECT_EQ(TextOf(replies[2]), "text");
  EXPECT_TRUE(pipeline.Execute().empty()) << "nothing is sent twice";

  for (int i = 0; i < 3; ++i) pipeline.Append({"ECHO", "text"});
  EXPECT_THROW(pipeline.Execute([](const RedisReply&) { throw std::runtime_error("thrown"); }), std::runtime_error);
  EXPECT_EQ(TextOf(SendCommand(redis(), "PING")), "PONG");
}

}  // namespace
}  // namespace event_service
