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
  void StoreEvent(const Json& event) {
    RedisPipeline pipeline(redis());
    ASSERT_TRUE(AppendEventObject(pipeline, "&&/events/7", "id", "name", event));
    ASSERT_TRUE(AllIntegers(pipeline.Execute()));
  }
  Lines Enqueue(bool& accepted) {
    Lines messages;
    accepted = EnqueueEvent(redis(), "&&/events/7", messages);
    return messages;
  }

  const LogCapture log_;
  const Json event_ = {{"MessageId", "Base.1.12.Success"}, {"EventType", "Other"}, {"MessageArgs", {"a", "b"}}};
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
    const Json& event = document["Events"][0];
    EXPECT_EQ(event["MessageId"], "ResourceEvent.1.2." + row.message);
    EXPECT_EQ(event["EventType"], row.type);
    EXPECT_EQ(event["EventGroupId"], 42);
    EXPECT_EQ(event["OriginOfCondition"]["@odata.id"], "/redfish/v1/X");
    EXPECT_TRUE(IsTimeStamp(event["EventTimestamp"].get<std::string>())) << event["EventTimestamp"];
    EXPECT_EQ(event["EventTimestamp"].get<std::string>().substr(0, 4),
              std::to_string(1970 + std::time(nullptr) / 31556952));
    EXPECT_EQ(event.value("MessageArgs", Json()),
              row.change == "status" ? Json({"/redfish/v1/X", "Disabled"}) : Json());
    document.erase("&&ResourceType");
    document.erase("&&TimeStamp");
    EXPECT_EQ(HaveSchemas() ? SchemaFaults("Event.v1_7_0.json", "Event", document) : "", "");
  }
  EXPECT_EQ(ListLength(redis(), kQueue), 4);
  EXPECT_EQ(log_.Errors(), Lines());
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

TEST_F(ScriptTest, AGoodEventIsQueuedByItsKey) {
  bool accepted = false;
  StoreEvent(event_);
  EXPECT_EQ(Enqueue(accepted), Lines());
  EXPECT_TRUE(accepted);
  EXPECT_EQ(LastQueued(), "&&/events/7");
  EXPECT_TRUE(KeyExists(redis(), "&&/events/7"));
}

TEST_F(ScriptTest, ADisabledServicePublishesOnlyTheEndOfSubscriptions) {
  HashWrite(redis(), kEventServiceUri, "ServiceEnabled", "false");
  bool accepted = false;
  StoreEvent(event_);
  EXPECT_EQ(Enqueue(accepted), Lines());
  EXPECT_TRUE(accepted);
  EXPECT_FALSE(KeyExists(redis(), "&&/events/7"));
  EXPECT_EQ(LastQueued(), "");
  Json end = event_;
  end["MessageId"] = "Base.1.12.SubscriptionTerminated";
  StoreEvent(end);
  Enqueue(accepted);
  EXPECT_EQ(LastQueued(), "&&/events/7");
}

TEST_F(ScriptTest, ABadEventIsRefusedWithItsMessage) {
  const struct {
    const char* change;  // merged into a good event; null takes a member out
    Lines messages;
  } cases[] = {
      {R"({"MessageId": null})", {"Base.1.12.ActionParameterMissing", "MessageId"}},
      {R"({"EventType": null})", {"Base.1.12.ActionParameterMissing", "EventType"}},
      {R"({"MessageId": 5})", {"Base.1.12.ActionParameterValueTypeError", "5", "MessageId"}},
      {R"({"MessageId": "Base.Success"})", {"Base.1.12.ActionParameterValueFormatError", "Base.Success", "MessageId"}},
      {R"({"EventTimestamp": "now"})", {"Base.1.12.ActionParameterValueFormatError", "now", "EventTimestamp"}},
      {R"({"EventGroupId": "1"})", {"Base.1.12.ActionParameterValueTypeError", "1", "EventGroupId"}},
      {R"({"MessageArgs": ["a", 7]})", {"Base.1.12.ActionParameterValueTypeError", "7", "MessageArgs"}},
      {R"({"MessageArgs": true})", {"Base.1.12.ActionParameterValueTypeError", "true", "MessageArgs"}},
  };
  for (const auto& row : cases) {
    Json event = event_;
    event.merge_patch(Json::parse(row.change));
    StoreEvent(event);
    bool accepted = true;
    EXPECT_EQ(Enqueue(accepted), row.messages) << row.change;
    EXPECT_FALSE(accepted);
    EXPECT_FALSE(KeyExists(redis(), "&&/events/7")) << row.change;
  }
  EXPECT_EQ(LastQueued(), "");
}

}  // namespace
}  // namespace event_service
