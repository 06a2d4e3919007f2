/// Events: those of the action SubmitTestEvent, those of resources' life cycles, and the scripts that take them over.
#include "requests/event_object.h"
#include "requests/event_service/submit_test_event.h"
#include "requests/event_service/time_stamp_form.h"
#include "tests/requests/event_service_test.h"
#include "tests/requests/schema_check.h"

namespace event_service {
namespace {

const std::string kQueue = "&&/redfish/v1/EventService/EVENTQ";

TEST_F(EventServiceTest, AnEventWhoseHandOverFailsIsRemoved) {
  for (const char* script : {"return {}", "return {'x', 'Base.1.12.Success'}", "return 'text'", "return {err='x'}"}) {
    EXPECT_EQ(Summary(Submit()), "EXCEPTION OperationFailed()") << "before " << script;
    EXPECT_EQ(EventKeys(), Lines());
    RegisterScript("enqueueEvent", script);
  }
  RegisterScript("enqueueEvent", "return 2");
  EXPECT_EQ(Summary(Submit()), "");
  EXPECT_EQ(EventKeys(), Lines()) << "an event that is discarded is no failure";
  RegisterScript("enqueueEvent", R"(return {'x', 'Base.1.12.Other', [["a\""]], 7})");
  EXPECT_EQ(Summary(Submit()), "FAILURE Other(a\", 7)");
  EXPECT_EQ(Summary(*NotifyTestEvent(redis(), "")), "EXCEPTION OperationFailed()");
  EXPECT_EQ(log_.Errors().back(), "strEventHashId is empty.");
}

TEST_F(EventServiceTest, ATestEventIsStoredAsAValidRedfishEventWithItsDefaults) {
  RegisterScript("enqueueEvent", "return 1");
  HashWrite(redis(), "/redfish/v1/Systems/1", "Id", "\"1\"");
  const struct {
    const char *given, *added;
  } cases[] = {
      {"{}", R"({"EventGroupId": 1, "Severity": "OK", "MessageSeverity": "OK"})"},
      {R"({"MessageId": "Alert.1.0.LanDisconnect", "EventId": "A\"1", "EventTimestamp": "2024-02-29T23:59:59.25-05:30",
           "EventType": "Alert", "EventGroupId": 2.5e1, "Message": "m\u00e4\n", "MessageArgs": ["E 1", "", "/"],
           "OriginOfCondition": "/redfish/v1/Systems/1", "Severity": "Warning"})",
       R"({"EventGroupId": 25, "MessageSeverity": "Warning",
           "OriginOfCondition": {"@odata.id": "/redfish/v1/Systems/1"}})"},
      {R"({"Severity": "a text", "OriginOfCondition": "/redfish/v1"})",
       R"({"EventGroupId": 2, "MessageSeverity": "OK", "OriginOfCondition": {"@odata.id": "/redfish/v1"}})"},
      {R"({"MessageSeverity": "Critical", "EventGroupId": 0})", R"({"Severity": "Critical"})"},
      {R"({"Severity": "OK", "MessageSeverity": "Critical"})", R"({"EventGroupId": 3})"},
  };
  for (const auto& row : cases) {
    ASSERT_EQ(Summary(Submit(row.given)), "") << row.given;
    EXPECT_EQ(Dump()["resp"], "{&&ReturnStatus=OK_RES}");
    Json document;
    const std::string key = EventKeys().front();
    ASSERT_TRUE(ReadResource(redis(), key, document));
    EXPECT_EQ(HaveSchemas() ? SchemaFaults("Event.v1_7_0.json", "Event", document) : "", "");
    const Json& event = document["Events"][0];
    EXPECT_TRUE(IsTimeStamp(event["EventTimestamp"].get<std::string>()));
    Json expected = Json::parse(R"({"MemberId": "0", "MessageId": "Base.1.12.Success", "EventType": "Other"})");
    expected["MessageArgs"] = Json::array();
    for (const char* generated : {"EventId", "EventTimestamp"}) expected[generated] = event[generated];
    expected.merge_patch(Json::parse(row.given));
    expected.merge_patch(Json::parse(row.added));
    EXPECT_EQ(event.dump(), expected.dump()) << "25 and not 25.0";
    const std::string id = Json("SubmitTestEvent-" + event["EventId"].get<std::string>()).dump();
    EXPECT_EQ(Dump()[key],
              R"({&&ResourceType="EventService", @odata.type="#Event.v1_7_0.Event", Events=&&Array Events )" + key +
                  "/Events, Events@odata.count=1, Id=" + id + R"(, Name="SubmitTestEvent"})");
    EXPECT_EQ(Dump()[key + "/Events"], "[&&Object " + key + "/Events/0]");
    for (const std::string& stored : EventKeys()) KeyDelete(redis(), stored);
  }
  proxy_.Reset({.failedText = "&&ReturnStatus"});
  Submit();
  EXPECT_EQ(log_.Errors(), Lines{"Failed to set data."});
  responseKey_ = kFromEventing;
  EXPECT_EQ(Summary(Submit()), "");
  EXPECT_FALSE(KeyExists(redis(), kFromEventing)) << "the delivery side is not answered";
}

// ---- The sandbox's event scripts, inside a real Redis ---------------------------------------------------------------

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
    RedisPipeline pipeline(redis());
    RaiseLifeCycleEvent(pipeline, HashRead(redis(), kScriptDigests, kLifeCycleScript),
                        {row.change, "/redfish/v1/X", "EventDestination", "A text.", 42});
    pipeline.Execute();
    const Json document = Json::parse(TextOf(SendArguments(redis(), {"RPOP", kQueue})), nullptr, false);
    EXPECT_EQ(document["&&ResourceType"], "EventDestination");
    const Json& event = document["Events"][0];
    Json expected = event;
    expected.update(
        {{"MessageId", row.message}, {"EventType", row.type}, {"EventGroupId", 42}, {"Message", "A text."}});
    expected["OriginOfCondition"]["@odata.id"] = "/redfish/v1/X";
    if (row.change == "status") expected["MessageArgs"] = {"/redfish/v1/X", "Disabled"};
    EXPECT_EQ(event, expected);
    EXPECT_EQ(ListLength(redis(), kQueue), 0) << row.change;
  }
}

TEST_F(EventServiceTest, OnlyExactlyFalseTurnsLifeCycleEventsOff) {
  RegisterScript("resourceChange", ReadFile(PLATFORM_SCRIPTS "/resourceChange.lua"));
  for (const std::string value : {"False", "", "no", "false"}) {
    ForgetLifeCycleSetting();
    WriteFile(ProcessPaths().configuration, "GenerateResourceEvent=" + value + "\n");
    RedisPipeline pipeline(redis());
    for (const char* kind : {"melt", ""}) {
      RaiseLifeCycleEvent(pipeline, HashRead(redis(), kScriptDigests, kLifeCycleScript), {kind, "/x", "T", "", 1});
    }
    EXPECT_EQ(pipeline.Size(), value == "false" ? 0U : 1U) << value;
    pipeline.Execute();
  }
  EXPECT_EQ(log_.Errors(), Lines(3, "Failed to generate life cycle event for /x: Unknown kind of change: melt"));
}

TEST_F(EventServiceTest, OnlyAGoodEventOfAnEnabledServiceIsQueued) {
  RegisterScript("enqueueEvent", ReadFile(PLATFORM_SCRIPTS "/enqueueEvent.lua"));
  const struct {
    const char* change;  // merged into a good event; null takes a member out
    std::string answer;
    const char* enabled = "true";
    bool queued = false;
  } cases[] = {
      {"{}", "", "true", true},
      {"{}", "", "false"},
      {R"({"MessageId": "Base.1.12.SubscriptionTerminated"})", "", "false", true},
      {R"({"EventType": null})", "FAILURE ActionParameterMissing(#, EventType)"},
      {R"({"MessageId": 5})", "FAILURE ActionParameterValueTypeError(5, MessageId, #)"},
      {R"({"MessageId": "Base.A"})", "FAILURE ActionParameterValueFormatError(Base.A, MessageId, #)"},
      {R"({"EventTimestamp": "now"})", "FAILURE ActionParameterValueFormatError(now, EventTimestamp, #)"},
      {R"({"EventGroupId": "1"})", "FAILURE ActionParameterValueTypeError(1, EventGroupId, #)"},
      {R"({"MessageArgs": ["a", 7]})", "FAILURE ActionParameterValueTypeError(7, MessageArgs, #)"},
  };
  for (const auto& row : cases) {
    for (const std::string& key : KeyListing(redis(), "&&/*VENT*")) KeyDelete(redis(), key);
    HashWrite(redis(), kEventServiceUri, "ServiceEnabled", row.enabled);
    Json event = {{"MessageId", "Base.1.12.Success"}, {"EventType", "Other"}, {"MessageArgs", {"a", "b"}}};
    event.merge_patch(Json::parse(row.change));
    RedisPipeline pipeline(redis());
    EXPECT_TRUE(AppendEventObject(pipeline, "&&/EVENTS/7", "id", "name", event));
    EXPECT_TRUE(AllIntegers(pipeline.Execute()));
    EXPECT_EQ(Summary(NotifyTestEvent(redis(), "&&/EVENTS/7").value_or(NoAnswer())), row.answer) << row.change;
    EXPECT_EQ(Dump()[kQueue], row.queued ? "[&&/EVENTS/7]" : "") << row.change;
    EXPECT_EQ(KeyListing(redis(), "&&/EVENTS/*").size(), row.queued ? 4U : 0U) << row.change;
  }
  // What must be there, and the form of a MessageId, are the script's to judge.
  EXPECT_EQ(Summary(Submit(R"({"MessageId": null})")), "FAILURE ActionParameterMissing(#, MessageId)");
  EXPECT_EQ(Summary(Submit(R"({"MessageId": "B.1.0."})")),
            "FAILURE ActionParameterValueFormatError(B.1.0., MessageId, #)");
  EXPECT_EQ(EventKeys(), Lines());
}

TEST(TimeStampForm, OnlyFullDatesAndTimesWithOffsetPass) {
  for (const char* good : {"2024-02-29T00:00:00Z", "2024-12-31T23:59:60+14:00", "0001-01-01T00:00:00.12345678-00:00"}) {
    EXPECT_TRUE(IsTimeStamp(good)) << good;
  }
  for (const char* bad :
       {"2023-02-29T00:00:00Z", "2024-01-01t00:00:00Z", "2024-01-01T24:00:00Z", "2024-01-01T00:60:00Z",
        "2024-01-01T00:00:61Z", "2024-01-01T00:00:00", "2024-01-01T00:00:00.Z", "+024-01-01T00:00:00Z",
        "2024-01-01T00:00:00+0100", "2024-01-01T00:00:00+01:60", "2024-01-01T00:00:00Z "}) {
    EXPECT_FALSE(IsTimeStamp(bad)) << bad;
  }
}

}  // namespace
}  // namespace event_service
