/// The action SubmitTestEvent and the hand-over of events.
#include "requests/event_submission.h"
#include "requests/submit_test_event.h"
#include "requests/time_stamp_form.h"
#include "tests/requests/event_service_test.h"
#include "tests/requests/schema_check.h"

namespace event_service {
namespace {

constexpr const char* kDatabaseError = "EXCEPTION ExtendedError.1.2.DatabaseOperationError()";

class TestEventTest : public EventServiceTest {
 protected:
  Answer Submit(const Json& body, redisContext* connection = nullptr) {
    return Handle("POSTACTION", kTestEventUri, body, connection);
  }
  /// The key of the one event object that is stored; empty: none.
  std::string StoredEventKey() {
    const std::vector<std::string> keys = KeyListing(redis(), "&&/redfish/v1/EventService/Actions/*");
    if (keys.empty()) return {};
    return keys.front().substr(0, keys.front().find_first_not_of(
                                      "0123456789", std::string_view("&&/redfish/v1/EventService/Actions/").size()));
  }
  const Json good_ = {{"MessageId", "Base.1.12.Success"}};
};

TEST_F(TestEventTest, TheScriptsReplyDecidesResultMessagesAndTheObjectsFate) {
  const std::string failed = "EXCEPTION Base.1.12.OperationFailed()";
  const struct {
    std::string script;
    bool accepted, kept;
    std::string answer;  // of the test event; empty: success
  } cases[] = {
      {"return 1", true, true, ""},
      {"return 0", true, false, ""},
      {"return 2", true, false, ""},
      {"return {}", false, false, failed},
      {"return {'x', 'Base.1.12.PropertyValueTypeError'}", false, false, failed},
      {"return 'text'", false, false, failed},
      {"return false", false, false, failed},
      {"return {err='x'}", false, false, failed},
      {"return {'x', 'Base.1.12.ActionParameterMissing', 'X'}", false, false,
       "FAILURE Base.1.12.ActionParameterMissing(EventService.SubmitTestEvent, X)"},
      {"return {'x', 'Base.1.12.ActionParameterValueTypeError', 'A'}", false, false,
       "FAILURE Base.1.12.ActionParameterValueTypeError(A, EventService.SubmitTestEvent)"},
      {"return {'x', 'Base.1.12.ActionParameterValueFormatError', 'A'}", false, false,
       "FAILURE Base.1.12.ActionParameterValueFormatError(A, EventService.SubmitTestEvent)"},
      {"return {'x', 'Base.1.12.ActionParameterValueNotInList', 'A'}", false, false,
       "FAILURE Base.1.12.ActionParameterValueNotInList(A)"},
      {R"(return {'x', 'M', '"a\\"b"', '"not json', 7, '["x"]'})", false, false,
       R"(FAILURE M(a"b, "not json, 7, ["x"]))"},
  };
  for (const auto& row : cases) {
    RegisterScript("enqueueEvent", row.script);
    ASSERT_TRUE(WriteResource(redis(), "&&/e/7", {{"Events", {1}}}));
    Lines messages;
    EXPECT_EQ(EnqueueEvent(redis(), "&&/e/7", messages), row.accepted) << row.script;
    EXPECT_EQ(Dump().contains("&&/e/7"), row.kept) << row.script;
    EXPECT_EQ(Dump().contains("&&/e/7/Events"), row.kept) << row.script;
    EXPECT_EQ(Summary(NotifyTestEvent(redis(), "&&/e/7").value_or(NoAnswer())), row.answer) << row.script;
  }
}

TEST_F(TestEventTest, EachFailureOfTheHandOverIsLogged) {
  Lines messages;
  EXPECT_FALSE(EnqueueEvent(redis(), "", messages));
  EXPECT_FALSE(EnqueueEvent(redis(), "&&/e/7", messages)) << "no digest is registered";
  TripCounter proxy(Server().SocketPath());
  const RedisContext context = proxy.Connect();
  ASSERT_TRUE(WriteResource(redis(), "&&/e/7", {{"Id", "x"}}));
  proxy.FailCommandsWith("UNLINK");
  EXPECT_FALSE(EnqueueEvent(context.get(), "&&/e/7", messages));
  proxy.Reset();
  proxy.CutAfter(1);
  const Answer answer = NotifyTestEvent(context.get(), "&&/e/7").value_or(NoAnswer());
  EXPECT_EQ(answer.logText, "OperationFailed: Failed to notify event occurs.");
  EXPECT_TRUE(KeyExists(redis(), "&&/e/7")) << "the script may have queued it";
  EXPECT_EQ(log_.Errors(), (Lines{"strEventHashId is empty.", "Failed to delete event object from database.",
                                  "EVALSHA command failed"}));
}

TEST_F(TestEventTest, ParametersAreJudgedWithTheActionsMessages) {
  const auto bad = [](const std::string& fault, const std::string& args) {
    return " Base.1.12.ActionParameterValue" + fault + "(" + args + ", EventService.SubmitTestEvent)";
  };
  const struct {
    std::string change;  // merged into a good body
    std::string faults;
  } cases[] = {
      {R"({"MessageId": null, "Bogus": 1})",
       " Base.1.12.ActionParameterMissing(EventService.SubmitTestEvent, MessageId)"
       " Base.1.12.ActionParameterUnknown(EventService.SubmitTestEvent, Bogus)"},
      {R"({"MessageId": "Base.1.Success"})", bad("FormatError", "Base.1.Success, MessageId")},
      {R"({"MessageId": "Base.1.12."})", bad("FormatError", "Base.1.12., MessageId")},
      {R"({"EventTimestamp": "2024-02-30"})", bad("FormatError", "2024-02-30, EventTimestamp")},
      {R"({"EventType": "Other2"})", bad("NotInList", "Other2, EventType")},
      {R"({"EventGroupId": 1e30, "EventId": 7})",
       bad("FormatError", "1e+30, EventGroupId") + bad("TypeError", "7, EventId")},
      {R"({"MessageArgs": ["a", 2, "&&Object x", {"b": [1]}]})", bad("TypeError", "2, MessageArgs/1") +
                                                                     bad("TypeError", "&&Object x, MessageArgs/2") +
                                                                     bad("TypeError", R"({"b":[1]}, MessageArgs/3)")},
      {R"({"MessageArgs": )" + Json(Lines(257)).dump() + "}", bad("Error", "MessageArgs")},
      {R"({"OriginOfCondition": {"@odata.id": "/a"}})", bad("TypeError", R"({"@odata.id":"/a"}, OriginOfCondition)")},
      {R"({"OriginOfCondition": "/a b"})", bad("FormatError", "/a b, OriginOfCondition")},
      {R"({"MessageSeverity": "Bad"})", bad("NotInList", "Bad, MessageSeverity")},
      {R"({"Severity": ")" + std::string(1025, 'x') + "\"}",
       " Base.1.12.StringValueTooLong(" + std::string(64, 'x') + ", 1024)"},
  };
  for (const auto& row : cases) {
    Json body = good_;
    body.merge_patch(Json::parse(row.change));
    EXPECT_EQ(Summary(Submit(body)), "FAILURE" + row.faults);
    EXPECT_EQ(StoredEventKey(), "") << row.change;
  }
}

TEST_F(TestEventTest, NumbersAreNamedAsTheyWereWritten) {
  Submit(good_);
  HashWrite(redis(), "req/RequestData", "EventGroupId", "1e400");
  EXPECT_EQ(HandleStored(redis()).messages.front().args.front(), "1e400");
}

TEST_F(TestEventTest, AnEventIsStoredWithItsPartsAndDefaults) {
  RegisterScript("enqueueEvent", "return 1");
  ASSERT_EQ(Submit(good_).status, "");
  EXPECT_EQ(Dump()["resp"], "{&&ReturnStatus=OK_RES}");
  const std::string key = StoredEventKey();
  DatabaseDump dump = Dump();
  Json document;
  ASSERT_TRUE(ReadResource(redis(), key, document));
  Json& event = document["Events"][0];
  EXPECT_EQ(dump[key], "{&&ResourceType=\"EventService\", @odata.type=\"#Event.v1_7_0.Event\", Events=&&Array Events " +
                           key + "/Events, Events@odata.count=1, Id=" +
                           Json("SubmitTestEvent-" + event["EventId"].get<std::string>()).dump() +
                           ", Name=\"SubmitTestEvent\"}");
  EXPECT_EQ(dump[key + "/Events"], "[&&Object " + key + "/Events/0]");
  EXPECT_EQ(event["EventId"].get<std::string>().find_first_not_of("0123456789"), std::string::npos);
  EXPECT_TRUE(IsTimeStamp(event["EventTimestamp"].get<std::string>()));
  event.erase("EventId");
  event.erase("EventTimestamp");
  EXPECT_EQ(event, Json::parse(R"({"MemberId": "0", "MessageId": "Base.1.12.Success", "EventType": "Other",
                                   "EventGroupId": 1, "MessageArgs": [], "Severity": "OK", "MessageSeverity": "OK"})"));
}

TEST_F(TestEventTest, WhatTheClientGaveStandsInTheEvent) {
  RegisterScript("enqueueEvent", "return 1");
  HashWrite(redis(), "/redfish/v1/Systems/1", "Id", "\"1\"");
  Json parameters = Json::parse(R"({
      "MessageId": "Alert.1.0.LanDisconnect", "EventId": "ABC\"1", "EventTimestamp": "2024-02-29T23:59:60.25-05:30",
      "EventType": "Alert", "EventGroupId": 2.5e1, "Message": "m\u00e4\n", "MessageArgs": ["EthernetInterface 1", "", "/"],
      "OriginOfCondition": "/redfish/v1/Systems/1", "Severity": "Warning", "@odata.etag": "x"})");
  ASSERT_EQ(Submit(parameters).status, "");
  Json document;
  ASSERT_TRUE(ReadResource(redis(), StoredEventKey(), document));
  parameters.erase("@odata.etag");
  parameters.merge_patch({{"MemberId", "0"}, {"EventGroupId", 25}, {"MessageSeverity", "Warning"}});
  parameters["OriginOfCondition"] = {{"@odata.id", "/redfish/v1/Systems/1"}};
  EXPECT_EQ(document["Events"][0], parameters);
  EXPECT_EQ(document["Id"], "SubmitTestEvent-ABC\"1");
  EXPECT_EQ(Dump()[StoredEventKey() + "/Events/0/MessageArgs"], "[\"EthernetInterface 1\", \"\", \"/\"]");
  EXPECT_EQ(HashRead(redis(), kEventServiceUri, "&&EVENT_GROUP_ID_COUNTER"), "") << "no identifier was drawn";
}

TEST_F(TestEventTest, AStoredEventIsAValidRedfishEvent) {
  if (!HaveSchemas()) GTEST_SKIP() << "REDFISH_SCHEMAS is not set";
  RegisterScript("enqueueEvent", "return 1");
  for (const char* extra : {"{}", R"({"MessageArgs": ["a"], "OriginOfCondition": "/elsewhere", "Severity": "odd"})",
                            R"({"MessageSeverity": "Critical", "Message": "m", "EventGroupId": 0})"}) {
    Json body = good_;
    body.merge_patch(Json::parse(extra));
    ASSERT_EQ(Submit(body).status, "");
    Json document;
    ASSERT_TRUE(ReadResource(redis(), StoredEventKey(), document));
    EXPECT_EQ(SchemaFaults("Event.v1_7_0.json", "Event", document), "");
    for (const std::string& key : KeyListing(redis(), StoredEventKey() + "*")) KeyDelete(redis(), key);
  }
}

TEST_F(TestEventTest, TheSeverityHasTwoNames) {
  const struct {
    Json given;
    std::string severity, messageSeverity;
  } cases[] = {
      {Json::object(), "OK", "OK"},
      {{{"Severity", "Warning"}}, "Warning", "Warning"},
      {{{"Severity", "a text"}}, "a text", "OK"},
      {{{"MessageSeverity", "Critical"}}, "Critical", "Critical"},
      {{{"Severity", "OK"}, {"MessageSeverity", "Critical"}}, "OK", "Critical"},
  };
  for (const auto& row : cases) {
    const Json event = BuildTestEvent(row.given, {});
    EXPECT_EQ(event["Severity"], row.severity) << row.given;
    EXPECT_EQ(event["MessageSeverity"], row.messageSeverity) << row.given;
  }
}

TEST_F(TestEventTest, AnOriginBelowTheServiceRootMustExist) {
  RegisterScript("enqueueEvent", "return 0");
  for (const char* origin : {"/redfish/v1/Nothing", "/redfish/v1/", "/redfish/v1", "/elsewhere"}) {
    const bool isBelow = std::string_view(origin).starts_with("/redfish/v1/");
    EXPECT_EQ(Summary(Submit({{"MessageId", "A.1.0.B"}, {"OriginOfCondition", origin}})),
              isBelow ? "FAILURE Base.1.12.ResourceMissingAtURI(" + std::string(origin) + ")" : "");
  }
}

TEST_F(TestEventTest, WhatCannotBeReadOrStoredIsAnExceptionAndLeavesNothing) {
  TripCounter proxy(Server().SocketPath());
  const RedisContext context = proxy.Connect();
  const struct {
    std::string failing, log, answer;
  } cases[] = {
      {"HGETALL", "DatabaseOperationError: Gets request data failed.", kDatabaseError},
      {"LRANGE", "DatabaseOperationError: redisLRANGE failed.", kDatabaseError},
      {"RPUSH", "Failed to create event based on the request body!", kDatabaseError},
      {"EXISTS", "OperationFailed: No key is free for the test event.", "EXCEPTION Base.1.12.OperationFailed()"},
  };
  for (const auto& row : cases) {
    proxy.Reset();
    proxy.FailCommandsWith(row.failing);
    const Answer answer = Submit({{"MessageId", "A.1.0.B"}, {"MessageArgs", {"a"}}}, context.get());
    EXPECT_EQ(Summary(answer), row.answer) << row.failing;
    EXPECT_EQ(answer.logText, row.log);
    EXPECT_EQ(StoredEventKey(), "") << row.failing;
  }
}

TEST_F(TestEventTest, AStatusThatCannotBeSetIsLogged) {
  RegisterScript("enqueueEvent", "return 1");
  SendCommand(redis(), "SET resp x");
  EXPECT_EQ(Submit({{"MessageId", "A.1.0.B"}, {"EventGroupId", 1}}).status, "");
  EXPECT_EQ(log_.Errors(), Lines{"Failed to set data."});
}

TEST(TimeStampForm, OnlyFullDatesAndTimesWithOffsetPass) {
  for (const char* good :
       {"2024-02-29T00:00:00Z", "2024-12-31T23:59:60+14:00", "0001-01-01T00:00:00.123456789012-00:00"}) {
    EXPECT_TRUE(IsTimeStamp(good)) << good;
  }
  for (const char* bad :
       {"", "2023-02-29T00:00:00Z", "2024-13-01T00:00:00Z", "2024-01-01t00:00:00Z", "2024-01-01T24:00:00Z",
        "2024-01-01T00:60:00Z", "2024-01-01T00:00:61Z", "2024-01-01T00:00:00", "2024-01-01T00:00:00z",
        "2024-01-01T00:00:00.Z", "2024-01-01T00:00:00+0100", "2024-01-01T00:00:00+01:60", "2024-01-01T00:00:00Z ",
        "2024-01-01 00:00:00Z", "24-01-01T00:00:00Z", "+024-01-01T00:00:00Z"}) {
    EXPECT_FALSE(IsTimeStamp(bad)) << bad;
  }
}

}  // namespace
}  // namespace event_service
