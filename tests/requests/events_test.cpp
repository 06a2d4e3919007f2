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
    EXPECT_EQ(InShort(Submit()), "EXCEPTION OperationFailed()") << "before " << script;
    EXPECT_EQ(EventKeys(), Lines());
    RegisterScript("enqueueEvent", script);
  }
  RegisterScript("enqueueEvent", "return 2");
  EXPECT_EQ(InShort(Submit()), "");
  EXPECT_EQ(EventKeys(), Lines()) << "an event that is discarded is no failure";
  RegisterScript("enqueueEvent", R"(return {'x', 'Base.1.12.Other', [["a\""]], 7})");
  EXPECT_EQ(InShort(Submit()), "FAILURE Other(a\", 7)");
  EXPECT_EQ(InShort(*NotifyTestEvent(redis(), "")), "EXCEPTION OperationFailed()");
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
    ASSERT_EQ(InShort(Submit(row.given)), "") << row.given;
    EXPECT_EQ(Dump()["resp"], "{&&ReturnStatus=OK_RES}");
    Json document;
    const std::string key = EventKeys().front();
    ASSERT_TRUE(ReadResource(redis(), key, document));
    EXPECT_EQ(SchemaFaults("Event.v1_7_0.json", "Event", document), "");
    const Json& event = document["Events"][0];
    EXPECT_TRUE(IsTimeStamp(event["EventTimestamp"].get<std::string>()));
    Json expected =
        Json::parse(R"({"MemberId": "0", "MessageId": "Base.1.12.Success", "EventType": "Other", "MessageArgs": []})");
    for (const char* generated : {"EventId", "EventTimestamp"}) expected[generated] = event[generated];
    expected.merge_patch(Json::parse(row.given));
    expected.merge_patch(Json::parse(row.added));
    EXPECT_EQ(event.dump(), expected.dump()) << "25 and not 25.0";
    EXPECT_EQ(Dump()[key],
              R"({&&ResourceType="EventService", @odata.type="#Event.v1_7_0.Event", Events=&&Array Events )" + key +
                  "/Events, Events@odata.count=1, Id=" + document["Id"].dump() + R"(, Name="SubmitTestEvent"})");
    EXPECT_EQ(document["Id"], "SubmitTestEvent-" + event["EventId"].get<std::string>());
    EXPECT_EQ(Dump()[key + "/Events"], "[&&Object " + key + "/Events/0]");
    for (const std::string& stored : EventKeys()) KeyDelete(redis(), stored);
  }
  proxy_.Reset({.failedText = "&&ReturnStatus"});
  Submit();
  EXPECT_EQ(log_.Errors(), Lines{"Failed to set data."});
  responseKey_ = kFromEventing;
  EXPECT_EQ(InShort(Submit()), "");
  EXPECT_FALSE(KeyExists(redis(), kFromEventing)) << "the delivery side is not answered";
}

// ---- The sandbox's event scripts, inside a real Redis ---------------------------------------------------------------

TEST_F(EventServiceTest, EachKindOfChangeQueuesOneResourceEventUnlessExactlyFalseTurnsThemOff) {
  RegisterScript("resourceChange", ReadFile(PLATFORM_SCRIPTS "/resourceChange.lua"));
  HashWrite(redis(), "&&/redfish/v1/X/Status", "State", "\"Disabled\"");
  for (const std::string value : {"False", "", "no", "false"}) {
    ForgetLifeCycleSetting();
    WriteFile(ProcessPaths().configuration, "GenerateResourceEvent=" + value + "\n");
    RedisPipeline pipeline(redis());
    for (const char* kind : {"add", "remove", "change", "status", "melt", ""}) {
      RaiseLifeCycleEvent(pipeline, HashRead(redis(), kScriptDigests, kLifeCycleScript),
                          {kind, "/redfish/v1/X", "EventDestination", "A text.", 42});
    }
    pipeline.Execute();
    std::string told;
    for (const std::string& text : Elements(kQueue)) {
      const Json document = Json::parse(text);
      const Json& event = document["Events"][0];
      EXPECT_TRUE(document["&&ResourceType"] == "EventDestination" && event["EventGroupId"] == 42) << document;
      EXPECT_TRUE(event["Message"] == "A text." && event["OriginOfCondition"]["@odata.id"] == "/redfish/v1/X") << event;
      told += event["MessageId"].get<std::string>() + ' ' + event["EventType"].get<std::string>() + '\n';
      if (event["EventType"] != "StatusChange") continue;
      EXPECT_EQ(event["MessageArgs"], Json({"/redfish/v1/X", "Disabled"}));
    }
    KeyDelete(redis(), kQueue);
    EXPECT_EQ(told, value == "false" ? ""
                                     : "ResourceEvent.1.2.ResourceCreated ResourceAdded\n"
                                       "ResourceEvent.1.2.ResourceRemoved ResourceRemoved\n"
                                       "ResourceEvent.1.2.ResourceChanged ResourceUpdated\n"
                                       "ResourceEvent.1.2.ResourceStateChanged StatusChange\n")
        << value;
  }
  EXPECT_EQ(log_.Errors(),
            Lines(3, "Failed to generate life cycle event for /redfish/v1/X: Unknown kind of change: melt"));
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
      {R"({"MessageId": "B.1.0."})", "FAILURE ActionParameterValueFormatError(B.1.0., MessageId, #)"},
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
    EXPECT_EQ(InShort(NotifyTestEvent(redis(), "&&/EVENTS/7").value_or(NoAnswer())), row.answer) << row.change;
    EXPECT_EQ(Dump()[kQueue], row.queued ? "[&&/EVENTS/7]" : "") << row.change;
    EXPECT_EQ(KeyListing(redis(), "&&/EVENTS/*").size(), row.queued ? 4U : 0U) << row.change;
  }
  // What must be there is the script's to judge.
  EXPECT_EQ(InShort(Submit(R"({"MessageId": null})")), "FAILURE ActionParameterMissing(#, MessageId)");
  EXPECT_EQ(EventKeys(), Lines());
}

}  // namespace
}  // namespace event_service
