#include "service/life_cycle_event.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"

namespace event_service {
namespace {

class LifeCycleEventTest : public RedisTest {
 protected:
  void Configure(const std::string& value) {
    ForgetLifeCycleSetting();
    WriteFile(ProcessPaths().configuration, "GenerateResourceEvent=" + value + "\n");
  }
  const LogCapture log_;
};

TEST_F(LifeCycleEventTest, OnlyExactlyFalseTurnsTheEventsOffAndIsReadOnceByAllThreads) {
  for (const std::string value : {"False", "", "no", "false"}) {
    Configure(value);
    std::thread other([value] { EXPECT_EQ(LifeCycleEventsEnabled(), value != "false") << value; });
    EXPECT_EQ(LifeCycleEventsEnabled(), value != "false") << value;
    other.join();
  }
  std::vector<std::string> lines(3, "EventService will generate events when resource is created/updated/removed.");
  lines.push_back("EventService will not generate events when resource is created/updated/removed.");
  EXPECT_EQ(log_.DebugLines(), lines);
}

TEST_F(LifeCycleEventTest, TheScriptGetsKeysOnlyAndItsAnswerDecides) {
  const struct {
    const char* answer;
    LifeCycleEvent event;
    bool isRaised;
    const char* keys;
  } cases[] = {
      {"1",
       {"change", "/redfish/v1/X", "T", "", 2147483647},
       true,
       "[change, /redfish/v1/X, T, EventGroupId, 2147483647]"},
      {"1", {"add", "/redfish/v1/X", "T", "more text", 1}, true, "[add, /redfish/v1/X, T, more text, EventGroupId, 1]"},
      {"1", {"", "/redfish/v1/X", "T", "", 1}, false, ""},
      {"1", {"add", "", "T", "", 1}, false, ""},
      {"{'x', 'why'}", {"add", "/redfish/v1/X", "T", "", 1}, false, "[add, /redfish/v1/X, T, EventGroupId, 1]"},
      {"{'a'}", {"add", "/redfish/v1/X", "T", "", 1}, false, "[add, /redfish/v1/X, T, EventGroupId, 1]"},
      {"'text'", {"add", "/redfish/v1/X", "T", "", 1}, false, "[add, /redfish/v1/X, T, EventGroupId, 1]"},
  };
  Configure("true");
  EXPECT_FALSE(RaiseLifeCycleEvent(redis(), cases[0].event)) << "no script is registered";
  for (const auto& row : cases) {
    SendCommand(redis(), "DEL seen");
    const std::string script = "for _, key in ipairs(KEYS) do redis.call('RPUSH', 'seen', key) end return ";
    const RedisReply digest = SendArguments(redis(), {"SCRIPT", "LOAD", script + row.answer});
    HashWrite(redis(), "redisSHAScripts", "resourceChange", TextOf(digest));
    EXPECT_EQ(RaiseLifeCycleEvent(redis(), row.event), row.isRaised) << row.answer << row.keys;
    EXPECT_EQ(Dump()["seen"], row.keys) << row.answer;
  }
  const std::string noAnswer = "The life cycle event for /redfish/v1/X could not be handed over.";
  EXPECT_EQ(log_.Errors(),
            (std::vector<std::string>{noAnswer, "Failed to generate life cycle event for /redfish/v1/X: why", noAnswer,
                                      noAnswer}));
  Configure("false");
  EXPECT_TRUE(RaiseLifeCycleEvent(redis(), cases[2].event)) << "off is looked at first";
}

}  // namespace
}  // namespace event_service
