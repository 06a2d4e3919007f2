#include "service/life_cycle_event.h"

#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"

namespace event_service {
namespace {

class LifeCycleEventTest : public RedisTest {};

TEST_F(LifeCycleEventTest, TheScriptGetsKeysOnlyAndItsAnswerDecides) {
  const struct {
    std::string configured, change, path, text, answer;
    bool isRaised;
    std::string keys;
  } cases[] = {{"True", "change", "/x", "", "1", true, "[change, /x, T, EventGroupId, 7]"},
               {"", "add", "/x", "a text", "1", true, "[add, /x, T, a text, EventGroupId, 7]"},
               {"False", "", "/x", "", "1", false, ""},
               {"false", "", "/x", "", "1", true, ""},  // off is looked at first
               {"no", "add", "", "", "1", false, ""},
               {"no", "add", "/x", "", "{'x', 'why'}", false, "[add, /x, T, EventGroupId, 7]"},
               {"no", "add", "/x", "", "{'x'}", false, "[add, /x, T, EventGroupId, 7]"}};
  const LogCapture log;
  for (const auto& row : cases) {
    ForgetLifeCycleSetting();
    WriteFile(ProcessPaths().configuration, "GenerateResourceEvent=" + row.configured + "\n");
    KeyDelete(redis(), "seen");
    const std::string script = "for _, key in ipairs(KEYS) do redis.call('RPUSH', 'seen', key) end return ";
    const RedisReply digest = SendArguments(redis(), {"SCRIPT", "LOAD", script + row.answer});
    HashWrite(redis(), "redisSHAScripts", "resourceChange", TextOf(digest));
    EXPECT_EQ(RaiseLifeCycleEvent(redis(), {row.change, row.path, "T", row.text, 7}), row.isRaised) << row.answer;
    EXPECT_EQ(Dump()["seen"], row.keys) << row.answer;
  }
  EXPECT_EQ(log.Errors(), (std::vector<std::string>{"Failed to generate life cycle event for /x: why",
                                                    "The life cycle event for /x could not be handed over."}));
}

}  // namespace
}  // namespace event_service
