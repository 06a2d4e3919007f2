#include "tools/redfish_gateway/sessions.h"

#include <gtest/gtest.h>

namespace event_service {
namespace {

std::chrono::steady_clock::time_point now;

TEST(Sessions, EachLastsAsLongAsItIsUsedOftenEnough) {
  Sessions sessions([] { return now; });
  sessions.SetTimeout(60);
  const Session used = sessions.Create("admin", "127.0.0.1").value();
  const Session unused = sessions.Create("admin", "127.0.0.1").value();
  for (int i = 0; i < 3; ++i) {
    now += std::chrono::seconds(40);
    EXPECT_TRUE(sessions.Use(used.token)) << i;
  }
  EXPECT_FALSE(sessions.Use(unused.token));
  EXPECT_EQ(sessions.Ids(), std::vector<std::string>{used.id}) << "to look at a session is no use of it";
  now += std::chrono::seconds(61);
  EXPECT_FALSE(sessions.Find(used.id));
  for (int i = 0; i < 64; ++i) EXPECT_TRUE(sessions.Create("admin", "127.0.0.1")) << i;
  EXPECT_FALSE(sessions.Create("admin", "127.0.0.1"));
  now += std::chrono::seconds(61);
  EXPECT_TRUE(sessions.Create("admin", "127.0.0.1")) << "what has expired makes room";
}

}  // namespace
}  // namespace event_service
