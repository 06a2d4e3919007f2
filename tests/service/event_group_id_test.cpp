#include "service/event_group_id.h"

#include <gtest/gtest.h>

#include <limits>

#include "tests/support/canned_replies.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"

namespace event_service {
namespace {

class EventGroupIdTest : public RedisTest {
 protected:
  void SetMaximum(const char* text) {
    ForgetMaxEventGroupId();
    ASSERT_TRUE(HashWrite(redis(), "webDefaultValue", "MAX_EVENT_GROUP_ID", text));
  }
  const LogCapture log_;
};

TEST_F(EventGroupIdTest, IdentifiersRunToTheMaximumAndStartAgain) {
  const std::string lost = "Failed to increase the counter &&EVENT_GROUP_ID_COUNTER";
  const struct {
    const char *maximum, *counter;
    uint32_t id;
    const char* counterAfter;
  } cases[] = {
      {"3", "0", 1, "1"}, {"3", "2", 3, "0"},  {"4", "6", 4, "0"},  // the maximum was lowered below the counter
      {"1", "0", 1, "0"}, {"9", "-7", 1, "1"}, {"9", "many", 1, "1"}, {"9", "9223372036854775807", 1, "1"}};
  for (const auto& row : cases) {
    SetMaximum(row.maximum);
    HashWrite(redis(), "/redfish/v1/EventService", "&&EVENT_GROUP_ID_COUNTER", row.counter);
    EXPECT_EQ(NextEventGroupId(redis()), row.id) << row.counter;
    EXPECT_EQ(Dump()["/redfish/v1/EventService"], "{&&EVENT_GROUP_ID_COUNTER=" + std::string(row.counterAfter) + "}");
  }
  EXPECT_EQ(log_.Errors(), std::vector<std::string>(3, lost));
  CannedConnection gone("");
  EXPECT_EQ(NextEventGroupId(gone.redis()), 1U) << "without Redis";
  EXPECT_EQ(log_.Errors().back(), "Failed to reset the EventGroupId counter");
}

TEST_F(EventGroupIdTest, TextsThatAreNoMaximumLeaveItUnknown) {
  const std::string invalid = "[Exception]: the default max value was set to invalid value";
  const std::string wrongType = "[Exception]: Max EventGroupId value type error Invalid argument";
  for (const char* text : {"2.5", "0", "-1", "", "many", "7 ", "2147483648"}) {
    SetMaximum(text);
    EXPECT_EQ(MaxEventGroupId(redis()), std::numeric_limits<int32_t>::max()) << text;
  }
  EXPECT_EQ(log_.Errors(), (std::vector<std::string>{
                               invalid, invalid, wrongType, wrongType, wrongType,
                               "[Exception]: Max EventGroupId value out of range Numerical result out of range"}));
  HashWrite(redis(), "webDefaultValue", "MAX_EVENT_GROUP_ID", "12");
  EXPECT_EQ(MaxEventGroupId(redis()), 12) << "an unknown maximum is asked for again";
  HashWrite(redis(), "webDefaultValue", "MAX_EVENT_GROUP_ID", "13");
  EXPECT_EQ(MaxEventGroupId(redis()), 12) << "a known one is not";
}

}  // namespace
}  // namespace event_service
