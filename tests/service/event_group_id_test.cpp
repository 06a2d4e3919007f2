#include "service/event_group_id.h"

#include "tests/support/canned_replies.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"

namespace event_service {
namespace {

class EventGroupIdTest : public RedisTest {
 protected:
  LogCapture log_;
};

TEST_F(EventGroupIdTest, IdentifiersRunToTheMaximumAndStartAgain) {
  const struct {
    const char *maximum, *counter;
    uint32_t id;
    const char* counterAfter;
  } cases[] = {
      {"3", "0", 1, "1"},    {"+3", "2", 3, "0"},         {"4", "6", 4, "0"},  // it was lowered below the counter
      {"1", "0", 1, "0"},    {"9", "-7", 1, "1"},         {"9", "9223372036854775807", 1, "1"},
      {"2.5", "5", 6, "6"},  {"0", "5", 6, "6"},          {"7 ", "7", 8, "8"},  // no maximum from here on
      {"many", "5", 6, "6"}, {"", "5", 6, "6"},           {"2147483648", "5", 6, "6"},
      {"+-5", "5", 6, "6"},  {"9999999999x", "5", 6, "6"}};
  for (const auto& row : cases) {
    ForgetMaxEventGroupId();
    HashWrite(redis(), "webDefaultValue", "MAX_EVENT_GROUP_ID", row.maximum);
    HashWrite(redis(), "/redfish/v1/EventService", "&&EVENT_GROUP_ID_COUNTER", row.counter);
    EXPECT_EQ(NextEventGroupId(redis()), row.id) << row.maximum << " " << row.counter;
    EXPECT_EQ(HashRead(redis(), "/redfish/v1/EventService", "&&EVENT_GROUP_ID_COUNTER"), row.counterAfter);
  }
  HashWrite(redis(), "webDefaultValue", "MAX_EVENT_GROUP_ID", "5");
  EXPECT_EQ(MaxEventGroupId(redis()), 5);
  CannedConnection gone("");
  EXPECT_EQ(MaxEventGroupId(gone.redis()), 5) << "known, without a round trip";
  ForgetMaxEventGroupId();
  EXPECT_EQ(NextEventGroupId(gone.redis()), 1U) << "without Redis";
  EXPECT_EQ(log_.Errors().size(), 12U) << "a fraction is passed over in silence";
}

}  // namespace
}  // namespace event_service
