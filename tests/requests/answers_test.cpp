/// What the EventService answers to requests that change nothing: refused,
/// without effect, or failed on the way.
#include <filesystem>

#include "requests/event_service/service_properties.h"
#include "requests/event_service/test_event.h"
#include "tests/requests/event_service_test.h"

namespace event_service {
namespace {

TEST(Judgement, EachPropertyHasItsValues) {
  const auto judge = [](const std::string&, const Json::json_pointer& place, const Json& value) {
    Json body;
    body[place] = value;
    return JudgeServicePatch(body, {}, true).messages;
  };
  ExpectFaults(R"json([
      ["PropertyNotWritable", ["Name", "Status"], [null, 1]],
      ["PropertyUnknown", ["a@b.org", "SMTP/Nothing", "Port"], [{}, 1]],
      ["", ["ServiceEnabled", "SMTP/ServiceEnabled", "SMTP/Port", "SMTP/Password", "SMTP/Authentication"], [null]],
      ["", ["DeliveryRetryAttempts", "DeliveryRetryIntervalSeconds", "SMTP/Port"], [0, 2.5e1, 65535]],
      ["PropertyValueOutOfRange", ["DeliveryRetryAttempts", "DeliveryRetryIntervalSeconds", "SMTP/Port"], [-1, 1e99]],
      ["PropertyValueOutOfRange", ["SMTP/Port"], [65536]],
      ["PropertyValueTypeError", ["DeliveryRetryAttempts", "DeliveryRetryIntervalSeconds"], [null, 2.5, "1"]],
      ["PropertyValueTypeError", ["ServiceEnabled", "SMTP/ServiceEnabled", "SMTP"], ["true", 1, []]],
      ["PropertyValueError", ["SMTP/Password"], [["s3cret"], 5, "a\u0000b"]],
      ["PropertyValueNotInList", ["SMTP/Authentication", "SMTP/ConnectionProtocol"], ["A"]],
      ["PropertyValueFormatError", ["SMTP/FromAddress", "SMTP/ServerAddress", "SMTP/Username"],
        ["a\r\nBcc: c", "\u007f", "\u0000"]]])json",
               judge);
}

TEST(Judgement, EachParameterHasItsValues) {
  const auto judge = [](const std::string&, const Json::json_pointer& place, const Json& value) {
    Json parameters;
    parameters[place] = value;
    return JudgeTestEvent(parameters, {});
  };
  ExpectFaults(R"json([
      ["", ["EventGroupId"], [25.0, -9223372036854775808]],
      ["ActionParameterValueTypeError", ["EventId", "MessageId", "Message", "MessageArgs/0"], [7, null]],
      ["ActionParameterValueTypeError", ["MessageArgs/0"], ["&&Object x"]],
      ["ActionParameterValueFormatError", ["EventGroupId"], [9223372036854775808, 9223372036854775808.0]],
      ["ActionParameterValueFormatError", ["EventTimestamp", "OriginOfCondition", "Message"], ["/ \u0000"]],
      ["ActionParameterValueFormatError", ["EventTimestamp", "OriginOfCondition"], ["", "2 0"]],
      ["", ["EventTimestamp"],
        ["2024-02-29T00:00:00Z", "2024-12-31T23:59:60+14:00", "0001-01-01T00:00:00.12345678-00:00"]],
      ["ActionParameterValueFormatError", ["EventTimestamp"],
        ["2023-02-29T00:00:00Z", "2024-01-01t00:00:00Z", "2024-01-01T24:00:00Z", "2024-01-01T00:60:00Z",
         "2024-01-01T00:00:61Z", "2024-01-01T00:00:00", "2024-01-01T00:00:00.Z", "+024-01-01T00:00:00Z",
         "2024-01-01T00:00:00+0100", "2024-01-01T00:00:00+01:60", "2024-01-01T00:00:00Z "]],
      ["ActionParameterValueNotInList", ["EventType", "MessageSeverity"], ["Other2"]]])json",
               judge);
}

TEST(Judgement, MessagesHideSecretsCutTextsAndPointAtTheProperty) {
  const std::string longest(1024, 'x');
  const struct {
    Json body;
    std::string faults;
  } cases[] = {
      {{{"SMTP", Json::parse(R"([{"Password": "s", "HttpHeaders": [1]}, 2])")}},
       R"(PropertyValueTypeError([{"HttpHeaders":null,"Password":null},2], SMTP) @SMTP)"},
      {{{"SMTP", {{"Username", "\u00e4" + longest}}}},
       "StringValueTooLong(\u00e4" + std::string(63, 'x') + ", 1024) @SMTP/Username"},
      {{{"ServiceEnabled", "\u00e4" + longest}},
       "PropertyValueTypeError(\u00e4" + longest.substr(0, 255) + ", ServiceEnabled) @ServiceEnabled"},
      {{{"SMTP", {{"Port", 1.5}, {"a/b~c", 1}}}},
       "PropertyValueTypeError(1.50, SMTP/Port) @SMTP/Port, "
       "PropertyUnknown(SMTP/a/b~c) @SMTP/a~1b~0c"},
  };
  for (const auto& row : cases) {
    EXPECT_EQ(InShort({{}, JudgeServicePatch(row.body, {{"SMTP/Port", "1.50"}}, true).messages}), " " + row.faults);
  }
  const Json smtp = {{"SMTP", {{"Port", 1}}}};
  EXPECT_EQ(InShort({{}, JudgeServicePatch(smtp, {}, false).messages}), " PropertyNotWritable(SMTP) @SMTP");
}

TEST(NoOperation, HasOneFixedBody) {
  const std::string text =
      "The request body submitted contain no data to act "
      "upon and no changes to the resource took place.";
  EXPECT_EQ(NoOperationAnswer("M").body,
            R"({"error":{"@Message.ExtendedInfo":[{"@odata.type":"#Message.v1_1_2.Message","Message":")" + text +
                R"(","MessageId":"M","MessageSeverity":"Warning","Resolution":"Add properties in the JSON object and )"
                R"(resubmit the request."}],"code":"M","message":")" +
                text + R"("}})");
}

TEST_F(EventServiceTest, WhatIsRefusedOrChangesNothingLeavesEverythingAsItWas) {
  const Json lists(std::vector<Json>(256, Json{1}));
  const struct {
    std::string_view request;
    std::string body, answer;
  } cases[] = {
      {"PATCH", R"({"ServiceEnabled": "yes", "Bogus": 1, "Name": 1, "DeliveryRetryIntervalSeconds": 5})",
       "FAILURE PropertyUnknown(Bogus) @Bogus, PropertyNotWritable(Name) @Name, "
       "PropertyValueTypeError(yes, ServiceEnabled) @ServiceEnabled"},
      {"PATCH", Json{{"SMTP", {{"Port", lists}, {"Username", lists}, {"A", lists}, {"B", lists}}}, {"Name", 1}}.dump(),
       "FAILURE PropertyNotWritable(Name) @Name, PropertyValueError(SMTP) @SMTP"},
      {"PATCH", R"({"Name": "n", "DeliveryRetryAttempts": 3})", "OK_RES PropertyNotWritable(Name) @Name"},
      {"PATCH",
       R"({"@odata.id": "/", "@odata.etag": "x", "A@Redfish.B": 1, "&&SMTP": 1, "SMTP": {"@Message.A": 1, "@odata.id": "/"}})",
       "OK_RES"},
      {"PATCH", R"({"ServiceEnabled": true, "SMTP": {"Port": 2.50e1, "FromAddress": null}})", "OK_RES"},
      {"Submit", R"({"Bogus": 1})", "FAILURE ActionParameterUnknown(#, Bogus) @Bogus"},
      {"Submit", R"({"MessageArgs": )" + Json(Lines(257)).dump() + "}",
       "FAILURE ActionParameterValueError(MessageArgs, #) @MessageArgs"},
      {"Submit", R"({"OriginOfCondition": "/redfish/v1/No"})", "FAILURE ResourceMissingAtURI(/redfish/v1/No)"},
  };
  HashWrite(redis(), kSmtpKey, "Port", "25.0");
  const DatabaseDump before = Dump();
  for (const auto& row : cases) {
    const Answer answer = row.request == "PATCH" ? Patch(row.body) : Submit(row.body);
    EXPECT_EQ(InShort(answer), row.answer) << row.body;
    EXPECT_EQ(answer.body, row.answer == "OK_RES" ? NoOperationAnswer().body : "") << row.body;
    EXPECT_EQ(Dump(), before) << row.body;
  }
  EXPECT_FALSE(std::filesystem::exists(file_));
  const Lines commands = proxy_.commands();
  EXPECT_EQ(std::ranges::count(commands, "LRANGE &&req/RequestData/MessageArgs 0 256"), 1) << "never more of a list";
}

TEST_F(EventServiceTest, ABodyThatIsNotNamedLiesUnderItsUsualKey) {
  isBodyNamed_ = false;
  EXPECT_EQ(InShort(Patch(R"({"DeliveryRetryAttempts": 4})")), "OK_RES Success()");
  EXPECT_EQ(InShort(Patch("{}")), "EXCEPTION ExtendedError.1.2.DatabaseOperationError()") << "there is none";
}

TEST_F(EventServiceTest, GatesStandInTheirOrder) {
  const auto summary = [this](const char* method, std::string_view uri) { return InShort(Handle(method, uri, {})); };
  for (const char* enabled : {"false", "\"true\"", ""}) {
    HashWrite(redis(), kEventServiceUri, "ServiceEnabled", enabled);
    EXPECT_EQ(summary("", "/x"), "NOT_ALLOWED ExtendedError.1.2.MethodNotAllowed(/x, )");
    EXPECT_EQ(summary("POSTCREATE", "/x"), "NOT_ALLOWED ExtendedError.1.2.MethodNotAllowed(/x, POST)");
    EXPECT_EQ(summary("POSTACTION", "/x"), "NOT_FOUND ActionNotSupported(/x)");
    EXPECT_EQ(summary("POSTACTION", kTestEventUri), "UNAVAILABLE ExtendedError.1.2.ServiceDisabled()") << enabled;
  }
}

TEST_F(EventServiceTest, AFailedCommandIsAnExceptionAndLeavesEverythingAsItWas) {
  for (const std::string failing : {"HGETALL req/RequestData", "HGETALL /redfish", "EventService DeliveryRetryAttempts",
                                    "LRANGE", "RPUSH", "EXISTS"}) {
    proxy_.Reset({.failedText = failing});
    const Answer answer = failing.find(' ') != std::string::npos
                              ? Patch(R"({"DeliveryRetryAttempts": 4})")
                              : Submit(R"({"EventGroupId": 1, "MessageArgs": ["a"]})");
    EXPECT_TRUE(answer.status == kException && !answer.logText.empty()) << failing;
    EXPECT_EQ(Stored("DeliveryRetryAttempts"), "3") << failing;
    EXPECT_EQ(EventKeys(), Lines()) << failing;
  }
}

}  // namespace
}  // namespace event_service
