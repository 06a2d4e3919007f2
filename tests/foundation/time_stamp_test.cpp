#include "foundation/time_stamp.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace event_service {
namespace {

TEST(TimeStamps, CarryTheOffsetWithAColon) {
  const struct {
    const char* zone;
    const char* stamp;
  } cases[] = {{"UTC0", "2024-02-29T23:59:58+00:00"},
               {"IST-5:30", "2024-03-01T05:29:58+05:30"},
               {"YYY+3", "2024-02-29T20:59:58-03:00"}};
  for (const auto& row : cases) {
    setenv("TZ", row.zone, 1);
    tzset();
    EXPECT_EQ(TimeStamp(1709251198), row.stamp);
  }
  unsetenv("TZ");
  tzset();
}

}  // namespace
}  // namespace event_service
