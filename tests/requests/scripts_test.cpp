/// The sandbox's event scripts, inside a real Redis.
#include "requests/event_submission.h"
#include "requests/time_stamp_form.h"
#include "tests/requests/event_service_test.h"
#include "tests/requests/schema_check.h"

namespace event_service {
namespace {

constexpr std::string_view kQueue = "&&/redfish/v1/EventService/EVENTQ";

TEST_F(EventServiceTest, EachKindOfChangeQueuesOneResourceEvent) {
  RegisterScript("resourceChange", ReadFile(PLATFORM_SCRIPTS "/resourceChange.lua"));
  HashWrite(redis(), "&&/redfish/v1/X/Status", "State", "\"Disabled\"");
  const struct {
    std::string_view change, message, type;
  } cases[] = {{"add", "ResourceEvent.1.2.ResourceCreated", "ResourceAdded"},
               {"remove", "ResourceEvent.1.2.ResourceRemoved", "ResourceRemoved"},
               {"change", "ResourceEvent.1.2.ResourceChanged", "ResourceUpdated"},
               {"status", "ResourceEvent.1.2.ResourceStateChanged", "StatusChange"}};
  for (const auto& row : cases) {
    ASSERT_TRUE(RaiseLifeCycleEvent(redis(), {row.change, "/redfish/v1/X", "EventDestination", "A text.", 42}));
    Json document = Json::parse(TextOf(SendArguments(redis(), {"RPOP", kQueue})), nullptr, false);
    EXPECT_EQ(document["&&ResourceType"], "EventDestination");
    document.erase("&&ResourceType");
    document.erase("&&TimeStamp");
    EXPECT_EQ(HaveSchemas() ? SchemaFaults("Event.v1_7_0.json", "Event", document) : "", "");
    Json& event = document["Events"][0];
    EXPECT_TRUE(IsTimeStamp(event["EventTimestamp"].get<std::string>())) << event["EventTimestamp"];
    Json expected = Json::parse(R"({"MemberId": "0", "EventGroupId": 42, "Severity": "OK", "MessageSeverity": "OK",
        "Message": "A text.", "OriginOfCondition": {"@odata.id": "/redfish/v1/X"}})");
    expected.update({{"MessageId", row.message}, {"EventType", row.type}});
    for (const char* generated : {"EventId", "EventTimestamp"}) expected[generated] = event[generated];
    if (row.change == "status") expected["MessageArgs"] = {"/redfish/v1/X", "Disabled"};
    EXPECT_EQ(event, expected);
    EXPECT_EQ(ListLength(redis(), kQueue), 0) << row.change;
  }
}

TEST_F(EventServiceTest, OnlyAGoodEventOfAnEnabledServiceIsQueued) {
  RegisterScript("enqueueEvent", ReadFile(PLATFORM_SCRIPTS "/enqueueEvent.lua"));
  const struct {
    const char* change;    // merged into a good event; null takes a member out
    std::string messages;  // the refusal's message id and arguments
    const char* enabled = "true";
    bool queued = false;
  } cases[] = {
      {"{}", "[]", "true", true},
      {"{}", "[]", "false"},
      {R"({"MessageId": "Base.1.12.SubscriptionTerminated"})", "[]", "false", true},
      {R"({"EventType": null})", R"(["Base.1.12.ActionParameterMissing","EventType"])"},
      {R"({"MessageId": 5})", R"(["Base.1.12.ActionParameterValueTypeError","5","MessageId"])"},
      {R"({"MessageId": "Base.A"})", R"(["Base.1.12.ActionParameterValueFormatError","Base.A","MessageId"])"},
      {R"({"EventTimestamp": "now"})", R"(["Base.1.12.ActionParameterValueFormatError","now","EventTimestamp"])"},
      {R"({"EventGroupId": "1"})", R"(["Base.1.12.ActionParameterValueTypeError","1","EventGroupId"])"},
      {R"({"MessageArgs": ["a", 7]})", R"(["Base.1.12.ActionParameterValueTypeError","7","MessageArgs"])"},
      {R"({"MessageArgs": true})", R"(["Base.1.12.ActionParameterValueTypeError","true","MessageArgs"])"},
  };
  for (const auto& row : cases) {
    for (const std::string& key : KeyListing(redis(), "&&/*VENT*")) KeyDelete(redis(), key);
    HashWrite(redis(), kEventServiceUri, "ServiceEnabled", row.enabled);
    Json event = {{"MessageId", "Base.1.12.Success"}, {"EventType", "Other"}, {"MessageArgs", {"a", "b"}}};
    event.merge_patch(Json::parse(row.change));
    RedisPipeline pipeline(redis());
    EXPECT_TRUE(AppendEventObject(pipeline, "&&/EVENTS/7", "id", "name", event));
    EXPECT_TRUE(AllIntegers(pipeline.Execute()));
    Lines messages;
    EXPECT_EQ(EnqueueEvent(redis(), "&&/EVENTS/7", messages), row.messages == "[]") << row.change;
    EXPECT_EQ(Json(messages).dump(), row.messages) << row.change;
    EXPECT_EQ(Dump()[std::string(kQueue)], row.queued ? "[&&/EVENTS/7]" : "") << row.change;
    EXPECT_EQ(KeyExists(redis(), "&&/EVENTS/7"), row.queued) << row.change;
  }
}

}  // namespace
}  // namespace event_service
