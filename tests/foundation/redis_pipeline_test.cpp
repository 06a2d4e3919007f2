#include "foundation/redis_pipeline.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/support/canned_replies.h"
#include "tests/support/redis_test.h"
#include "tests/support/trip_counter.h"

namespace event_service {
namespace {

class RedisPipelineTest : public RedisTest {};

TEST_F(RedisPipelineTest, TakesOneRoundTripHoweverMuchItHolds) {
  TripCounter proxy(Server().SocketPath());
  const RedisContext redis = proxy.Connect();
  for (const size_t count : {1u, 10u, 5000u}) {
    proxy.Reset();
    RedisPipeline pipeline(redis.get());
    for (size_t i = 0; i < count; ++i) EXPECT_EQ(pipeline.Append({"RPUSH", "list", std::to_string(i)}), i);
    const std::vector<RedisReply> replies = pipeline.Execute();
    EXPECT_EQ(replies.size(), count);
    EXPECT_TRUE(AllIntegers(replies));
    EXPECT_EQ(proxy.trips(), 1u) << count;
    EXPECT_EQ(proxy.commands(), count);
    EXPECT_TRUE(KeyDelete(redis.get(), "list"));
  }
}

TEST_F(RedisPipelineTest, AnErrorInTheMiddleLeavesTheOtherRepliesInOrder) {
  ASSERT_TRUE(ListAppend(redis(), "list", "element"));
  RedisPipeline pipeline(redis());
  pipeline.Append({"HSET", "hash", "a", "1"});
  pipeline.Append({"HSET", "list", "a", "1"});
  pipeline.Append({"HGET", "hash", "a"});
  const std::vector<RedisReply> replies = pipeline.Execute();
  ASSERT_EQ(replies.size(), 3u);
  EXPECT_TRUE(IsInteger(replies[0]));
  EXPECT_EQ(replies[1]->type, REDIS_REPLY_ERROR);
  EXPECT_EQ(TextOf(replies[2]), "1");
  EXPECT_EQ(pipeline.Size(), 0u);
  EXPECT_TRUE(pipeline.Execute().empty());
  EXPECT_EQ(TextOf(SendCommand(redis(), "PING")), "PONG");
}

TEST_F(RedisPipelineTest, ATakerThatThrowsLeavesTheConnectionInStep) {
  RedisPipeline pipeline(redis());
  for (const char* text : {"a", "b", "c"}) pipeline.Append({"ECHO", text});
  EXPECT_THROW(pipeline.Execute([](const RedisReply&) { throw std::runtime_error("thrown"); }), std::runtime_error);
  EXPECT_EQ(TextOf(SendCommand(redis(), "PING")), "PONG");
}

TEST_F(RedisPipelineTest, ALostConnectionGivesNullRepliesFromThereOn) {
  TripCounter proxy(Server().SocketPath());
  const RedisContext redis = proxy.Connect();
  proxy.CutAfter(2);
  RedisPipeline pipeline(redis.get());
  for (const char* value : {"a", "b", "c", "d"}) pipeline.Append({"RPUSH", "list", value});
  const std::vector<RedisReply> replies = pipeline.Execute();
  EXPECT_TRUE(IsInteger(replies[0]) && IsInteger(replies[1]));
  EXPECT_TRUE(!replies[2] && !replies[3]);
  EXPECT_FALSE(AllIntegers(replies));
  EXPECT_EQ(ListLength(this->redis(), "list"), 2);
}

}  // namespace
}  // namespace event_service
