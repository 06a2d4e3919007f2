/// The action SubmitTestEvent and the hand-over of events.
#include "requests/event_submission.h"
#include "requests/submit_test_event.h"
#include "requests/time_stamp_form.h"
#include "tests/requests/event_service_test.h"
#include "tests/requests/schema_check.h"

namespace event_service {
namespace {

constexpr std::string_view kReadFailed = "DatabaseOperationError: Gets request data failed.";
constexpr std::string_view kListFailed = "DatabaseOperationError: redisLRANGE failed.";

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
  const struct {
    std::string script;
    bool accepted, kept;
    Lines answer;  // of the test event; empty: success
  } cases[] = {
      {"return 1", true, true, {}},
      {"return 0", true, false, {}},
      {"return 2", true, false, {}},
      {"return {}", false, false, {"EXCEPTION", "Base.1.12.OperationFailed()"}},
      {"return {'x', 'Base.1.12.PropertyValueTypeError'}", false, false, {"EXCEPTION", "Base.1.12.OperationFailed()"}},
      {"return 'text'", false, false, {"EXCEPTION", "Base.1.12.OperationFailed()"}},
      {"return {ok='x'}", false, false, {"EXCEPTION", "Base.1.12.OperationFailed()"}},
      {"return false", false, false, {"EXCEPTION", "Base.1.12.OperationFailed()"}},
      {"return {err='x'}", false, false, {"EXCEPTION", "Base.1.12.OperationFailed()"}},
      {"return {'x', 'Base.1.12.ActionParameterMissing', 'X'}",
       false,
       false,
       {"FAILURE", "Base.1.12.ActionParameterMissing(EventService.SubmitTestEvent, X)"}},
      {"return {'x', 'Base.1.12.ActionParameterValueTypeError', 'A', 'B'}",
       false,
       false,
       {"FAILURE", "Base.1.12.ActionParameterValueTypeError(A, B, EventService.SubmitTestEvent)"}},
      {"return {'x', 'Base.1.12.ActionParameterValueFormatError', 'A', 'B'}",
       false,
       false,
       {"FAILURE", "Base.1.12.ActionParameterValueFormatError(A, B, EventService.SubmitTestEvent)"}},
      {"return {'x', 'Base.1.12.ActionParameterValueNotInList', 'A', 'B'}",
       false,
       false,
       {"FAILURE", "Base.1.12.ActionParameterValueNotInList(A, B)"}},
      {R"(return {'x', 'M', '"a\\"b"', '"not json', 7, '["x"]'})",
       false,
       false,
       {"FAILURE", R"(M(a"b, "not json, 7, ["x"]))"}},
  };
  for (const auto& row : cases) {
    RegisterScript("enqueueEvent", row.script);
    ASSERT_TRUE(WriteResource(redis(), "&&/e/7", {{"Events", {1}}}));
    Lines messages;
    EXPECT_EQ(EnqueueEvent(redis(), "&&/e/7", messages), row.accepted) << row.script;
    EXPECT_EQ(Dump().contains("&&/e/7"), row.kept) << row.script;
    EXPECT_EQ(Dump().contains("&&/e/7/Events"), row.kept) << row.script;
    const std::optional<Answer> answer = NotifyTestEvent(redis(), "&&/e/7");
    EXPECT_EQ(answer ? Summary(*answer) : Lines(), row.answer) << row.script;
  }
}

TEST_F(TestEventTest, EachFailureOfTheHandOverIsLogged) {
  Lines messages;
  EXPECT_FALSE(EnqueueEvent(redis(), "", messages));
  EXPECT_FALSE(EnqueueEvent(redis(), "&&/e/7", messages)) << "no digest is registered";
  EXPECT_EQ(log_.Errors(), Lines{"strEventHashId is empty."});

  TripCounter proxy(Server().SocketPath());
  const RedisContext context = proxy.Connect();
  ASSERT_TRUE(WriteResource(redis(), "&&/e/7", {{"Id", "x"}}));
  proxy.FailCommandsWith("UNLINK");
  EXPECT_FALSE(EnqueueEvent(context.get(), "&&/e/7", messages));
  EXPECT_EQ(log_.Errors().back(), "Failed to delete event object from database.");
  proxy.Reset();
  proxy.CutAfter(1);
  const std::optional<Answer> answer = NotifyTestEvent(context.get(), "&&/e/7");
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->logText, "OperationFailed: Failed to notify event occurs.");
  EXPECT_EQ(log_.Errors().back(), "EVALSHA command failed");
  EXPECT_TRUE(KeyExists(redis(), "&&/e/7")) << "the script may have queued it";
}

TEST_F(TestEventTest, ParametersAreJudgedWithTheActionsMessages) {
  const auto message = [](const std::string& name, const std::string& args) {
    return "Base.1.12.ActionParameter" + name + "(" + args + ")";
  };
  const std::string action = "EventService.SubmitTestEvent";
  const struct {
    const char* change;  // merged into a good body
    Lines faults;
  } cases[] = {
      {R"({"MessageId": null, "Bogus": 1})",
       {message("Missing", action + ", MessageId"), message("Unknown", action + ", Bogus")}},
      {R"({"MessageId": "Base.1.Success"})", {message("ValueFormatError", "Base.1.Success, MessageId, " + action)}},
      {R"({"MessageId": "Base.1.12."})", {message("ValueFormatError", "Base.1.12., MessageId, " + action)}},
      {R"({"MessageId": 5})", {message("ValueTypeError", "5, MessageId, " + action)}},
      {R"({"EventTimestamp": "2024-02-30T00:00:00Z"})",
       {message("ValueFormatError", "2024-02-30T00:00:00Z, EventTimestamp, " + action)}},
      {R"({"EventType": "Other2"})", {message("ValueNotInList", "Other2, EventType, " + action)}},
      {R"({"EventGroupId": 1.5, "EventId": 7})",
       {message("ValueTypeError", "1.5, EventGroupId, " + action), message("ValueTypeError", "7, EventId, " + action)}},
      {R"({"MessageArgs": ["a", 2, "&&Object x", {"b": [1]}]})",
       {message("ValueTypeError", "2, MessageArgs/1, " + action),
        message("ValueTypeError", "&&Object x, MessageArgs/2, " + action),
        message("ValueTypeError", "{\"b\":[1]}, MessageArgs/3, " + action)}},
      {R"({"MessageArgs": "a"})", {message("ValueTypeError", "a, MessageArgs, " + action)}},
      {R"({"OriginOfCondition": {"@odata.id": "/a"}})",
       {message("ValueTypeError", R"({"@odata.id":"/a"}, OriginOfCondition, )" + action)}},
      {R"({"OriginOfCondition": "/a b"})", {message("ValueFormatError", "/a b, OriginOfCondition, " + action)}},
      {R"({"MessageSeverity": "Bad"})", {message("ValueNotInList", "Bad, MessageSeverity, " + action)}},
  };
  for (const auto& row : cases) {
    Json body = good_;
    body.merge_patch(Json::parse(row.change));
    Lines expected{"FAILURE"};
    expected.insert(expected.end(), row.faults.begin(), row.faults.end());
    EXPECT_EQ(Summary(Submit(body)), expected) << row.change;
    EXPECT_EQ(StoredEventKey(), "");
  }
  EXPECT_EQ(Summary(Submit(Json::object()))[1], message("Missing", action + ", MessageId")) << "no body at all";
  EXPECT_FALSE(Dump().contains("resp"));
}

TEST_F(TestEventTest, NumbersAreNamedAsTheyWereWritten) {
  HashWrite(redis(), "req/RequestData", "EventGroupId", "1e400");
  HashWrite(redis(), "req/RequestData", "MessageId", "\"A.1.0.B\"");
  HashWrite(redis(), "req", kRequestMethod, "POSTACTION");
  HashWrite(redis(), "req", kTargetUri, kTestEventUri);
  HashWrite(redis(), "req", kRequestData, "req/RequestData");
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
  const auto submit = [&](const char* origin) {
    return Submit({{"MessageId", "A.1.0.B"}, {"OriginOfCondition", origin}});
  };
  EXPECT_EQ(Summary(submit("/redfish/v1/Nothing")),
            (Lines{"FAILURE", "Base.1.12.ResourceMissingAtURI(/redfish/v1/Nothing)"}));
  EXPECT_EQ(Summary(submit("/redfish/v1/")), (Lines{"FAILURE", "Base.1.12.ResourceMissingAtURI(/redfish/v1/)"}));
  EXPECT_EQ(submit("/redfish/v1").status, "");
  EXPECT_EQ(submit("/elsewhere").status, "");
}

TEST_F(TestEventTest, WhatCannotBeReadOrStoredIsAnExceptionAndLeavesNothing) {
  TripCounter proxy(Server().SocketPath());
  const RedisContext context = proxy.Connect();
  const struct {
    std::string failing;
    std::string log;
    std::string message = "ExtendedError.1.2.DatabaseOperationError()";
  } cases[] = {
      {"HGETALL", std::string(kReadFailed)},
      {"LRANGE", std::string(kListFailed)},
      {"RPUSH", "Failed to create event based on the request body!"},
      {"EXISTS", "OperationFailed: No key is free for the test event.", "Base.1.12.OperationFailed()"},
  };
  for (const auto& row : cases) {
    proxy.Reset();
    proxy.FailCommandsWith(row.failing);
    const Answer answer = Submit({{"MessageId", "A.1.0.B"}, {"MessageArgs", {"a"}}}, context.get());
    EXPECT_EQ(Summary(answer), (Lines{"EXCEPTION", row.message})) << row.failing;
    EXPECT_EQ(answer.logText, row.log);
    EXPECT_EQ(StoredEventKey(), "") << row.failing;
  }
  HashWrite(redis(), "req/RequestData", "EventId", "no json");
  EXPECT_EQ(HandleStored(redis()).logText, kReadFailed);
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
