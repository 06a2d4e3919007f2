/// The action SubmitTestEvent and the hand-over of its events.
#include "requests/event_submission.h"
#include "requests/time_stamp_form.h"
#include "tests/requests/event_service_test.h"
#include "tests/requests/schema_check.h"

namespace event_service {
namespace {

TEST_F(EventServiceTest, TheScriptsReplyDecidesAnswerAndTheObjectsFate) {
  const std::string failed = "EXCEPTION OperationFailed()";
  const struct {
    std::string script, answer;
    bool kept = false;
  } cases[] = {
      {"return 1", "", true},
      {"return 0", ""},
      {"return {'x', 'Base.1.12.PropertyValueTypeError'}", failed},
      {"return 'text'", failed},
      {"return {'x', 'Base.1.12.ActionParameterMissing', 'X'}", "FAILURE ActionParameterMissing(#, X)"},
      {"return {'x', 'Base.1.12.ActionParameterValueTypeError', 'A'}", "FAILURE ActionParameterValueTypeError(A, #)"},
      {"return {'x', 'Base.1.12.ActionParameterValueFormatError', 'A'}",
       "FAILURE ActionParameterValueFormatError(A, #)"},
      {R"(return {'x', 'M', '"a\\"b"', '"not json', 7, '["x"]'})", R"(FAILURE M(a"b, "not json, 7, ["x"]))"},
  };
  EXPECT_EQ(Summary(Submit()), failed) << "no script is registered";
  for (const auto& row : cases) {
    RegisterScript("enqueueEvent", row.script);
    KeyDelete(redis(), "resp");
    EXPECT_EQ(Summary(Submit()), row.answer) << row.script;
    EXPECT_EQ(Dump()["resp"], row.answer.empty() ? "{&&ReturnStatus=OK_RES}" : "") << row.script;
    EXPECT_EQ(EventKeys().size(), row.kept ? 3U : 0U) << row.script;
    for (const std::string& key : EventKeys()) KeyDelete(redis(), key);
  }
  RegisterScript("enqueueEvent", "return 1");
  responseKey_ = kFromEventing;
  Submit();
  EXPECT_FALSE(KeyExists(redis(), kFromEventing));
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
    Json document;
    const std::string key = EventKeys().front();
    ASSERT_TRUE(ReadResource(redis(), key, document));
    EXPECT_EQ(HaveSchemas() ? SchemaFaults("Event.v1_7_0.json", "Event", document) : "", "");
    const Json& event = document["Events"][0];
    EXPECT_TRUE(IsTimeStamp(event["EventTimestamp"].get<std::string>()));
    Json expected = {{"MemberId", "0"}, {"MessageId", "Base.1.12.Success"}, {"EventType", "Other"}};
    expected.update({{"MessageArgs", Json::array()}, {"EventId", event["EventId"]}});
    expected["EventTimestamp"] = event["EventTimestamp"];
    expected.merge_patch(Json::parse(row.given));
    expected.merge_patch(Json::parse(row.added));
    EXPECT_EQ(event, expected);
    const std::string id = Json("SubmitTestEvent-" + event["EventId"].get<std::string>()).dump();
    EXPECT_EQ(Dump()[key],
              R"({&&ResourceType="EventService", @odata.type="#Event.v1_7_0.Event", Events=&&Array Events )" + key +
                  "/Events, Events@odata.count=1, Id=" + id + R"(, Name="SubmitTestEvent"})");
    EXPECT_EQ(Dump()[key + "/Events"], "[&&Object " + key + "/Events/0]");
    for (const std::string& stored : EventKeys()) KeyDelete(redis(), stored);
  }
}

TEST(TimeStampForm, OnlyFullDatesAndTimesWithOffsetPass) {
  for (const char* good : {"2024-02-29T00:00:00Z", "2024-12-31T23:59:60+14:00", "0001-01-01T00:00:00.12345678-00:00"}) {
    EXPECT_TRUE(IsTimeStamp(good)) << good;
  }
  for (const char* bad :
       {"2023-02-29T00:00:00Z", "2024-01-01t00:00:00Z", "2024-01-01T24:00:00Z", "2024-01-01T00:60:00Z",
        "2024-01-01T00:00:61Z", "2024-01-01T00:00:00", "2024-01-01T00:00:00.Z", "2024-01-01T00:00:00+0100",
        "2024-01-01T00:00:00+01:60", "2024-01-01T00:00:00Z ", "+024-01-01T00:00:00Z", "2024-13-01T00:00:00Z"}) {
    EXPECT_FALSE(IsTimeStamp(bad)) << bad;
  }
}

}  // namespace
}  // namespace event_service
