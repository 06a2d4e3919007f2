#include "service/event_group_id.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "tests/support/canned_replies.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"

namespace event_service {
namespace {

class EventGroupIdTest : public RedisTest {
 protected:
  void SetUp() override {
    RedisTest::SetUp();
    ForgetMaxEventGroupId();
  }
  void SetMaximum(const std::string& text) {
    ASSERT_TRUE(HashWrite(redis(), "webDefaultValue", "MAX_EVENT_GROUP_ID", text));
  }
  void SetCounter(const std::string& text) {
    ASSERT_TRUE(HashWrite(redis(), "/redfish/v1/EventService", "&&EVENT_GROUP_ID_COUNTER", text));
  }
  std::string Counter() { return HashRead(redis(), "/redfish/v1/EventService", "&&EVENT_GROUP_ID_COUNTER"); }

  LogCapture log_;
};

TEST_F(EventGroupIdTest, IdentifiersRunToTheMaximumAndStartAgain) {
  SetMaximum("3");
  for (const uint32_t expected : {1, 2, 3, 1, 2, 3}) {
    EXPECT_EQ(NextEventGroupId(redis()), expected);
    EXPECT_EQ(Counter(), expected == 3 ? "0" : std::to_string(expected));
  }
}

TEST_F(EventGroupIdTest, ACounterAboveALoweredMaximumGivesTheMaximum) {
  SetMaximum("4");
  SetCounter("6");
  EXPECT_EQ(NextEventGroupId(redis()), 4U);
  EXPECT_EQ(Counter(), "0");
}

TEST_F(EventGroupIdTest, AMaximumOfOneGivesOnlyOne) {
  SetMaximum("1");
  EXPECT_EQ(NextEventGroupId(redis()), 1U);
  EXPECT_EQ(NextEventGroupId(redis()), 1U);
}

TEST_F(EventGroupIdTest, TextsThatAreNoMaximumLeaveItUnknown) {
  const struct {
    const char* text;
    std::vector<std::string> errors;
  } cases[] = {
      {"2.5", {}},
      {"0", {"[Exception]: the default max value was set to invalid value"}},
      {"-1", {"[Exception]: the default max value was set to invalid value"}},
      {"", {"[Exception]: Max EventGroupId value type error Invalid argument"}},
      {"many", {"[Exception]: Max EventGroupId value type error Invalid argument"}},
      {"7 ", {"[Exception]: Max EventGroupId value type error Invalid argument"}},
      {"2147483648", {"[Exception]: Max EventGroupId value out of range Numerical result out of range"}},
  };
  for (const auto& row : cases) {
    SetMaximum(row.text);
    log_.Clear();
    EXPECT_EQ(MaxEventGroupId(redis()), std::numeric_limits<int32_t>::max()) << row.text;
    EXPECT_EQ(log_.Errors(), row.errors) << row.text;
  }
  SetMaximum("12");
  EXPECT_EQ(MaxEventGroupId(redis()), 12) << "an unknown maximum is asked for again";
  SetMaximum("13");
  EXPECT_EQ(MaxEventGroupId(redis()), 12) << "a known one is not";
}

TEST_F(EventGroupIdTest, ACounterThatCannotBeIncrementedRestartsAtOne) {
  SetMaximum("9");
  for (const char* text : {"many", "-7", "9223372036854775807"}) {
    SetCounter(text);
    EXPECT_EQ(NextEventGroupId(redis()), 1U) << text;
    EXPECT_EQ(Counter(), "1") << text;
  }
  EXPECT_EQ(log_.Errors(), std::vector<std::string>(3, "Failed to increase the counter &&EVENT_GROUP_ID_COUNTER"));
}

TEST_F(EventGroupIdTest, WithoutRedisTheIdentifierIsOne) {
  SetMaximum("9");
  MaxEventGroupId(redis());
  CannedConnection gone("");
  EXPECT_EQ(NextEventGroupId(gone.redis()), 1U);
  EXPECT_EQ(log_.Errors(), (std::vector<std::string>{"Failed to increase the counter &&EVENT_GROUP_ID_COUNTER",
                                                     "Failed to reset the EventGroupId counter"}));
}

}  // namespace
}  // namespace event_service
