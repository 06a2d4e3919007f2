#include "service/life_cycle_event.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"

namespace event_service {
namespace {

class LifeCycleEventTest : public RedisTest {
 protected:
  void SetUp() override {
    RedisTest::SetUp();
    ForgetLifeCycleSetting();
  }
  void Configure(const std::string& value) {
    ForgetLifeCycleSetting();
    WriteFile(ProcessPaths().configuration, "GenerateResourceEvent=" + value + "\n");
  }
  void RegisterScript(const std::string& text) {
    const RedisReply digest = SendArguments(redis(), {"SCRIPT", "LOAD", text});
    ASSERT_TRUE(HashWrite(redis(), "redisSHAScripts", "resourceChange", TextOf(digest)));
  }

  static constexpr LifeCycleEvent kEvent{.change = "change",
                                         .resourcePath = "/redfish/v1/EventService",
                                         .resourceType = "EventService",
                                         .extraText = "",
                                         .eventGroupId = 2147483647};
  LogCapture log_;
};

TEST_F(LifeCycleEventTest, OnlyExactlyFalseTurnsTheEventsOff) {
  const struct {
    const char* value;
    bool enabled;
  } cases[] = {{"false", false}, {"False", true}, {"", true}, {"no", true}};
  for (const auto& row : cases) {
    Configure(row.value);
    log_.Clear();
    EXPECT_EQ(LifeCycleEventsEnabled(), row.enabled) << row.value;
    EXPECT_EQ(LifeCycleEventsEnabled(), row.enabled) << row.value;
    EXPECT_EQ(log_.DebugLines(),
              std::vector<std::string>{row.enabled ? "EventService will generate events when resource is "
                                                     "created/updated/removed."
                                                   : "EventService will not generate events when resource is "
                                                     "created/updated/removed."})
        << row.value;
  }
}

TEST_F(LifeCycleEventTest, TwoThreadsReadTheSettingOnce) {
  Configure("false");
  std::thread other([] { EXPECT_FALSE(LifeCycleEventsEnabled()); });
  EXPECT_FALSE(LifeCycleEventsEnabled());
  other.join();
  EXPECT_EQ(log_.DebugLines().size(), 1U);
}

TEST_F(LifeCycleEventTest, EverythingGoesToTheScriptAsKeys) {
  RegisterScript("for i, key in ipairs(KEYS) do redis.call('RPUSH', 'seen', key) end return #KEYS + #ARGV");
  EXPECT_TRUE(RaiseLifeCycleEvent(redis(), kEvent));
  EXPECT_EQ(Dump()["seen"], "[change, /redfish/v1/EventService, EventService, EventGroupId, 2147483647]");
  SendCommand(redis(), "DEL seen");
  LifeCycleEvent event = kEvent;
  event.extraText = "more to say";
  EXPECT_TRUE(RaiseLifeCycleEvent(redis(), event));
  EXPECT_EQ(Dump()["seen"], "[change, /redfish/v1/EventService, EventService, more to say, EventGroupId, 2147483647]");
}

TEST_F(LifeCycleEventTest, ATwoElementAnswerIsTheScriptsError) {
  RegisterScript("return {'x', 'no such resource'}");
  EXPECT_FALSE(RaiseLifeCycleEvent(redis(), kEvent));
  EXPECT_EQ(log_.Errors(), std::vector<std::string>{
                               "Failed to generate life cycle event for /redfish/v1/EventService: no such resource"});
}

TEST_F(LifeCycleEventTest, AnyOtherAnswerIsAFailure) {
  EXPECT_FALSE(RaiseLifeCycleEvent(redis(), kEvent)) << "no script is registered";
  for (const char* script : {"return {'a'}", "return {'a', 'b', 'c'}", "return 'text'"}) {
    RegisterScript(script);
    EXPECT_FALSE(RaiseLifeCycleEvent(redis(), kEvent)) << script;
  }
  EXPECT_EQ(log_.Errors().size(), 4U);
}

TEST_F(LifeCycleEventTest, NothingIsRaisedWhenOffOrWithoutKindOrPath) {
  RegisterScript("redis.call('SET', 'raised', 1) return 1");
  LifeCycleEvent event = kEvent;
  event.change = "";
  EXPECT_FALSE(RaiseLifeCycleEvent(redis(), event));
  event = kEvent;
  event.resourcePath = "";
  EXPECT_FALSE(RaiseLifeCycleEvent(redis(), event));
  Configure("false");
  EXPECT_TRUE(RaiseLifeCycleEvent(redis(), event)) << "off is looked at first";
  EXPECT_FALSE(KeyExists(redis(), "raised"));
}

}  // namespace
}  // namespace event_service
