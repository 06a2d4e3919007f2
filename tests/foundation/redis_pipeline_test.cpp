#include "foundation/redis_pipeline.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/support/redis_test.h"
#include "tests/support/trip_counter.h"

namespace event_service {
namespace {

class RedisPipelineTest : public RedisTest {};

TEST_F(RedisPipelineTest, TakesOneRoundTripAndALostConnectionGivesNullRepliesFromThereOn) {
  TripCounter proxy(Server().SocketPath());
  const RedisContext redis = proxy.Connect();
  RedisPipeline pipeline(redis.get());
  for (size_t i = 0; i < 5000; ++i) EXPECT_EQ(pipeline.Append({"RPUSH", "list", std::to_string(i)}), i);
  const std::vector<RedisReply> replies = pipeline.Execute();
  EXPECT_TRUE(replies.size() == 5000 && AllIntegers(replies));
  EXPECT_EQ(proxy.trips(), 1U);
  EXPECT_EQ(ListLength(this->redis(), "list"), 5000);

  proxy.Reset();
  proxy.CutAfter(1);
  for (const char* value : {"a", "b"}) pipeline.Append({"RPUSH", "other", value});
  const std::vector<RedisReply> cut = pipeline.Execute();
  EXPECT_TRUE(IsInteger(cut[0]) && !cut[1]);
  EXPECT_FALSE(AllIntegers(cut));
}

TEST_F(RedisPipelineTest, NeitherAnErrorNorATakerThatThrowsLeavesTheConnectionOutOfStep) {
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
