#include "service/members_count.h"

#include <gtest/gtest.h>

#include "tests/support/redis_test.h"

namespace event_service {
namespace {

constexpr const char* kMembers = "&&/redfish/v1/EventService/Subscriptions/Members";

class MembersCountTest : public RedisTest {
 protected:
  std::string Published() { return HashRead(redis(), "/redfish/v1/EventService/Subscriptions", "Members@odata.count"); }
};

TEST_F(MembersCountTest, TheListsLengthIsPublishedAndTheCountInMemoryMovesByTheDelta) {
  ListAppend(redis(), kMembers, "a");
  ListAppend(redis(), kMembers, "b");
  const struct {
    uint32_t before;
    int32_t delta;
    uint32_t after;
  } cases[] = {{9, 0, 2}, {9, 1, 10}, {9, -3, 6}, {1, -3, 0}};
  for (const auto& row : cases) {
    SubscriptionsState state;
    state.subscriptionCount = row.before;
    EXPECT_TRUE(UpdateMembersCount(redis(), state, row.delta)) << row.delta;
    EXPECT_EQ(state.subscriptionCount, row.after) << row.delta;
    EXPECT_EQ(Published(), "2");
  }
}

TEST_F(MembersCountTest, AFailureLeavesTheCountInMemory) {
  SubscriptionsState state;
  state.subscriptionCount = 5;
  SendArguments(redis(), {"SET", kMembers, "no list"});
  EXPECT_FALSE(UpdateMembersCount(redis(), state, 1));
  EXPECT_EQ(Published(), "");
  SendCommand(redis(), "FLUSHALL");
  SendCommand(redis(), "SET /redfish/v1/EventService/Subscriptions no-hash");
  EXPECT_FALSE(UpdateMembersCount(redis(), state, 0));
  EXPECT_EQ(state.subscriptionCount, 5U);
}

}  // namespace
}  // namespace event_service
