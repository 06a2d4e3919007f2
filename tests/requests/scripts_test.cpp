/// The sandbox's event scripts, inside a real Redis.
#include "requests/event_submission.h"
#include "requests/time_stamp_form.h"
#include "resource_store/resource_reader.h"
#include "service/life_cycle_event.h"
#include "service/redis_keys.h"
#include "tests/requests/schema_check.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"

namespace event_service {
namespace {

using Lines = std::vector<std::string>;
constexpr std::string_view kQueue = "&&/redfish/v1/EventService/EVENTQ";

class ScriptTest : public RedisTest {
 protected:
  void SetUp() override {
    RedisTest::SetUp();
    for (const std::string name : {"resourceChange", "enqueueEvent"}) {
      const RedisReply digest =
          SendArguments(redis(), {"SCRIPT", "LOAD", ReadFile(PLATFORM_SCRIPTS "/" + name + ".lua")});
      ASSERT_TRUE(IsString(digest)) << name << ": " << TextOf(digest);
      HashWrite(redis(), kScriptDigests, name, TextOf(digest));
    }
    HashWrite(redis(), kEventServiceUri, "ServiceEnabled", "true");
    ForgetLifeCycleSetting();
  }
  std::string LastQueued() {
    const RedisReply reply = SendArguments(redis(), {"LINDEX", kQueue, "-1"});
    return std::string(TextOf(reply));
  }
  /// Stores a good event with the change merged in (null takes a member out) and hands it over.
  bool Enqueue(const char* change, Lines& messages) {
    Json event = {{"MessageId", "Base.1.12.Success"}, {"EventType", "Other"}, {"MessageArgs", {"a", "b"}}};
    event.merge_patch(Json::parse(change));
    RedisPipeline pipeline(redis());
    EXPECT_TRUE(AppendEventObject(pipeline, "&&/events/7", "id", "name", event));
    EXPECT_TRUE(AllIntegers(pipeline.Execute()));
    messages.clear();
    return EnqueueEvent(redis(), "&&/events/7", messages);
  }

  const LogCapture log_;
};

TEST_F(ScriptTest, EachKindOfChangeQueuesOneResourceEvent) {
  HashWrite(redis(), "&&/redfish/v1/X/Status", "State", "\"Disabled\"");
  const struct {
    std::string_view change;
    std::string message, type;
  } cases[] = {{"add", "ResourceCreated", "ResourceAdded"},
               {"remove", "ResourceRemoved", "ResourceRemoved"},
               {"change", "ResourceChanged", "ResourceUpdated"},
               {"status", "ResourceStateChanged", "StatusChange"}};
  for (const auto& row : cases) {
    ASSERT_TRUE(RaiseLifeCycleEvent(redis(), {row.change, "/redfish/v1/X", "EventDestination", "", 42}));
    Json document = Json::parse(LastQueued());
    EXPECT_EQ(document["&&ResourceType"], "EventDestination");
    document.erase("&&ResourceType");
    document.erase("&&TimeStamp");
    EXPECT_EQ(HaveSchemas() ? SchemaFaults("Event.v1_7_0.json", "Event", document) : "", "");
    const Json& event = document["Events"][0];
    EXPECT_EQ(event["MessageId"], "ResourceEvent.1.2." + row.message);
    EXPECT_EQ(event["EventType"], row.type);
    EXPECT_EQ(event["EventGroupId"], 42);
    EXPECT_EQ(event["OriginOfCondition"]["@odata.id"], "/redfish/v1/X");
    EXPECT_TRUE(IsTimeStamp(event["EventTimestamp"].get<std::string>())) << event["EventTimestamp"];
    EXPECT_EQ(event.value("MessageArgs", Json()),
              row.change == "status" ? Json({"/redfish/v1/X", "Disabled"}) : Json());
  }
  EXPECT_EQ(ListLength(redis(), kQueue), 4);
}

TEST_F(ScriptTest, ALifeCycleEventThatIsNoneIsRefusedWithItsReason) {
  EXPECT_TRUE(RaiseLifeCycleEvent(redis(), {"add", "/redfish/v1/X", "EventService", "A text of its own.", 1}));
  EXPECT_EQ(Json::parse(LastQueued())["Events"][0]["Message"], "A text of its own.");
  EXPECT_FALSE(RaiseLifeCycleEvent(redis(), {"melt", "/redfish/v1/X", "EventService", "", 1}));
  EXPECT_FALSE(RaiseLifeCycleEvent(redis(), {"add", "no path", "EventService", "", 1}));
  EXPECT_EQ(log_.Errors(), (Lines{"Failed to generate life cycle event for /redfish/v1/X: Unknown kind of change: melt",
                                  "Failed to generate life cycle event for no path: No URI: no path"}));
  EXPECT_EQ(ListLength(redis(), kQueue), 1);
}

TEST_F(ScriptTest, ADisabledServiceQueuesOnlyTheEndOfSubscriptions) {
  const struct {
    const char* enabled;
    const char* change;
    bool queued;
  } cases[] = {{"true", "{}", true},
               {"false", "{}", false},
               {"false", R"({"MessageId": "Base.1.12.SubscriptionTerminated"})", true}};
  for (const auto& row : cases) {
    for (const std::string_view key : {kQueue, std::string_view("&&/events/7/Events")}) KeyDelete(redis(), key);
    HashWrite(redis(), kEventServiceUri, "ServiceEnabled", row.enabled);
    Lines messages;
    EXPECT_TRUE(Enqueue(row.change, messages)) << row.enabled << row.change;
    EXPECT_EQ(LastQueued(), row.queued ? "&&/events/7" : "") << row.enabled << row.change;
    EXPECT_EQ(KeyExists(redis(), "&&/events/7"), row.queued);
  }
}

TEST_F(ScriptTest, ABadEventIsRefusedWithItsMessage) {
  const struct {
    const char* change;
    std::string fault, value, parameter;
  } cases[] = {
      {R"({"MessageId": 5})", "TypeError", "5", "MessageId"},
      {R"({"MessageId": "Base.Success"})", "FormatError", "Base.Success", "MessageId"},
      {R"({"EventTimestamp": "now"})", "FormatError", "now", "EventTimestamp"},
      {R"({"EventGroupId": "1"})", "TypeError", "1", "EventGroupId"},
      {R"({"MessageArgs": ["a", 7]})", "TypeError", "7", "MessageArgs"},
      {R"({"MessageArgs": true})", "TypeError", "true", "MessageArgs"},
  };
  Lines messages;
  for (const auto& row : cases) {
    EXPECT_FALSE(Enqueue(row.change, messages)) << row.change;
    EXPECT_EQ(messages, (Lines{"Base.1.12.ActionParameterValue" + row.fault, row.value, row.parameter}));
  }
  EXPECT_FALSE(Enqueue(R"({"EventType": null})", messages));
  EXPECT_EQ(messages, (Lines{"Base.1.12.ActionParameterMissing", "EventType"}));
  EXPECT_EQ(LastQueued(), "");
}

}  // namespace
}  // namespace event_service
