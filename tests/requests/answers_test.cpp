/// What the EventService answers to requests that change nothing: refused, without effect, or failed on the way.
#include <filesystem>

#include "requests/event_service/service_properties.h"
#include "requests/event_service/test_event.h"
#include "tests/requests/event_service_test.h"

namespace event_service {
namespace {

using namespace std::string_literals;

TEST(Judgement, EachFaultOfAPropertyHasItsMessage) {
  const std::string longest(1024, 'x');
  const struct {
    std::string body, faults;
  } patches[] = {
      {R"({"SMTP": [{"Password": "s", "HttpHeaders": [1]}, 2]})",
       R"(PropertyValueTypeError([{"HttpHeaders":null,"Password":null},2], SMTP))"},
      {R"({"SMTP": {"Port": 65536, "Username": ")" + longest + "\"}}", "PropertyValueOutOfRange(65536, SMTP/Port)"},
      {R"({"SMTP": {"Password": ["s3cret"]}})", "PropertyValueError(SMTP/Password)"},
      {R"({"SMTP": {"Authentication": "A"}})", "PropertyValueNotInList(A, SMTP/Authentication)"},
      {R"({"SMTP": {"FromAddress": "a\r\nBcc: c"}})", "PropertyValueFormatError(a\r\nBcc: c, SMTP/FromAddress)"},
      {R"({"SMTP": {"ServerAddress": "\u007f", "Username": "\u0000"}})",
       "PropertyValueFormatError(\x7f, SMTP/ServerAddress) PropertyValueFormatError("s + '\0' + ", SMTP/Username)"},
      {R"({"SMTP": {"Username": "\u00e4)" + longest + "\"}}",
       "StringValueTooLong(\xC3\xA4" + std::string(63, 'x') + ", 1024)"},
      {R"({"Name": "n", "a@b.org": {}})", "PropertyNotWritable(Name) PropertyUnknown(a@b.org)"},
      {R"({"DeliveryRetryAttempts": 2.5, "DeliveryRetryIntervalSeconds": 0, "SMTP": {"Port": 65535}})",
       "PropertyValueTypeError(2.5, DeliveryRetryAttempts)"},
      {R"({"ServiceEnabled": ")" + longest + "\"}",
       "PropertyValueTypeError(" + longest.substr(0, 256) + ", ServiceEnabled)"},
      {R"({"ServiceEnabled": [")" + longest + "\"]}",
       "PropertyValueTypeError([\"" + longest.substr(0, 254) + ", ServiceEnabled)"},
      {R"({"DeliveryRetryAttempts": 1e99})", "PropertyValueOutOfRange(1e+99, DeliveryRetryAttempts)"},
      {R"({"DeliveryRetryIntervalSeconds": -1})", "PropertyValueOutOfRange(-1, DeliveryRetryIntervalSeconds)"},
      {R"({"DeliveryRetryAttempts": null})", "PropertyValueTypeError(null, DeliveryRetryAttempts)"},
  };
  for (const auto& row : patches) {
    const Answer answer{{}, JudgeServicePatch(Json::parse(row.body), {}, true).messages};
    EXPECT_EQ(Summary(answer), " " + row.faults) << row.body;
  }
  EXPECT_EQ(Summary({{}, JudgeServicePatch({{"SMTP", {{"Port", 1}}}}, {}, false).messages}),
            " PropertyNotWritable(SMTP)");
}

TEST(Judgement, EachFaultOfAParameterHasItsMessage) {
  const struct {
    const char* parameters;
    std::string faults;
  } events[] = {
      {R"({"Bogus": 1})", "Unknown(#, Bogus)"},
      {R"({"MessageId": 5})", "ValueTypeError(5, MessageId, #)"},
      {R"({"EventTimestamp": "20"})", "ValueFormatError(20, EventTimestamp, #)"},
      {R"({"EventType": "Other2"})", "ValueNotInList(Other2, EventType, #)"},
      {R"({"MessageSeverity": "B"})", "ValueNotInList(B, MessageSeverity, #)"},
      {R"({"EventGroupId": 9223372036854775808})", "ValueFormatError(9223372036854775808, EventGroupId, #)"},
      {R"({"EventGroupId": 9223372036854775808.0})", "ValueFormatError(9.223372036854776e+18, EventGroupId, #)"},
      {R"({"EventId": 7})", "ValueTypeError(7, EventId, #)"},
      {R"({"Message": "\u0000"})", "ValueFormatError("s + '\0' + ", Message, #)"},
      {R"({"MessageArgs": ["a", 2]})", "ValueTypeError(2, MessageArgs/1, #)"},
      {R"({"OriginOfCondition": "/ "})", "ValueFormatError(/ , OriginOfCondition, #)"},
  };
  for (const auto& row : events) {
    EXPECT_EQ(Summary({{}, JudgeTestEvent(Json::parse(row.parameters), {})}), " ActionParameter" + row.faults);
  }
  const Answer tooLong{{}, JudgeTestEvent({{"EventId", std::string(1025, 'x')}}, {})};
  EXPECT_EQ(Summary(tooLong), " StringValueTooLong(" + std::string(64, 'x') + ", 1024)");
}

TEST(Judgement, RelatedPropertiesAreJsonPointers) {
  const Json body = Json::parse(R"({"SMTP": {"Port": 1.5, "a/b~c": 1}})");
  const Answer answer{{}, JudgeServicePatch(body, {{"SMTP/Port", "1.50"}}, true).messages};
  EXPECT_EQ(Summary(answer), " PropertyValueTypeError(1.50, SMTP/Port) PropertyUnknown(SMTP/a/b~c)");
  EXPECT_EQ(answer.messages[0].relatedProperties, Lines{"SMTP/Port"});
  EXPECT_EQ(answer.messages[1].relatedProperties, Lines{"SMTP/a~1b~0c"});
}

TEST(NoOperation, HasOneFixedBody) {
  const std::string text =
      "The request body submitted contain no data to act upon and no changes to the resource took place.";
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
       "FAILURE PropertyUnknown(Bogus) PropertyNotWritable(Name) PropertyValueTypeError(yes, ServiceEnabled)"},
      {"PATCH", Json{{"SMTP", {{"Port", lists}, {"Username", lists}, {"A", lists}, {"B", lists}}}, {"Name", 1}}.dump(),
       "FAILURE PropertyNotWritable(Name) PropertyValueError(SMTP)"},
      {"PATCH", R"({"Name": "n", "DeliveryRetryAttempts": 3})", "OK_RES PropertyNotWritable(Name)"},
      {"PATCH",
       R"({"@odata.id": "/", "@odata.etag": "x", "A@Redfish.B": 1, "&&SMTP": 1, "SMTP": {"@Message.A": 1, "@odata.id": "/"}})",
       "OK_RES"},
      {"PATCH", R"({"ServiceEnabled": true, "SMTP": {"Port": 2.50e1, "FromAddress": null}})", "OK_RES"},
      {"Submit", R"({"Bogus": 1})", "FAILURE ActionParameterUnknown(#, Bogus)"},
      {"Submit", R"({"MessageArgs": ["&&Object x"]})",
       "FAILURE ActionParameterValueTypeError(&&Object x, MessageArgs/0, #)"},
      {"Submit", R"({"MessageArgs": )" + Json(Lines(257)).dump() + "}",
       "FAILURE ActionParameterValueError(MessageArgs, #)"},
      {"Submit", R"({"OriginOfCondition": "/redfish/v1/No"})", "FAILURE ResourceMissingAtURI(/redfish/v1/No)"},
  };
  HashWrite(redis(), kSmtpKey, "Port", "25.0");
  const DatabaseDump before = Dump();
  for (const auto& row : cases) {
    const Answer answer = row.request == "PATCH" ? Patch(row.body) : Submit(row.body);
    EXPECT_EQ(Summary(answer), row.answer) << row.body;
    EXPECT_EQ(answer.body, row.answer == "OK_RES" ? NoOperationAnswer().body : "") << row.body;
    EXPECT_EQ(Dump(), before) << row.body;
  }
  EXPECT_FALSE(std::filesystem::exists(file_));
  const Lines commands = proxy_.commands();
  EXPECT_EQ(std::ranges::count(commands, "LRANGE &&req/RequestData/MessageArgs 0 256"), 2) << "never more of a list";
}

TEST_F(EventServiceTest, ABodyThatIsNotNamedLiesUnderItsUsualKey) {
  isBodyNamed_ = false;
  EXPECT_EQ(Summary(Patch(R"({"DeliveryRetryAttempts": 4})")), "OK_RES Success()");
  EXPECT_EQ(Summary(Patch("{}")), "EXCEPTION ExtendedError.1.2.DatabaseOperationError()") << "there is none";
}

TEST_F(EventServiceTest, GatesStandInTheirOrder) {
  const auto summary = [this](const char* method, std::string_view uri) { return Summary(Handle(method, uri, {})); };
  for (const char* enabled : {"false", "\"true\"", ""}) {
    HashWrite(redis(), kEventServiceUri, "ServiceEnabled", enabled);
    EXPECT_EQ(summary("", "/x"), "NOT_ALLOWED ExtendedError.1.2.MethodNotAllowed(/x, )");
    EXPECT_EQ(summary("POSTCREATE", "/x"), "NOT_ALLOWED ExtendedError.1.2.MethodNotAllowed(/x, POST)");
    EXPECT_EQ(summary("POSTACTION", "/x"), "NOT_FOUND ActionNotSupported(/x)");
    EXPECT_EQ(summary("POSTACTION", kTestEventUri), "UNAVAILABLE ExtendedError.1.2.ServiceDisabled()") << enabled;
  }
}

TEST_F(EventServiceTest, AFailedCommandIsAnExceptionAndLeavesEverythingAsItWas) {
  const struct {
    std::string_view request;
    std::string failing, logged;
  } cases[] = {
      {"PATCH", "HGETALL req/RequestData", "DatabaseOperationError: Gets request data failed."},
      {"PATCH", "HGETALL /redfish", "DatabaseOperationError: Gets EventService data failed."},
      {"PATCH", "EventService DeliveryRetryAttempts", "DatabaseOperationError: Failed to update the EventService."},
      {"Submit", "LRANGE", "DatabaseOperationError: redisLRANGE failed."},
      {"Submit", "RPUSH", "Failed to create event based on the request body!"},
      {"Submit", "EXISTS", "OperationFailed: No key is free for the test event."},
  };
  for (const auto& row : cases) {
    proxy_.Reset({.failedText = row.failing});
    const Answer answer = row.request == "PATCH" ? Patch(R"({"DeliveryRetryAttempts": 4})")
                                                 : Submit(R"({"EventGroupId": 1, "MessageArgs": ["a"]})");
    EXPECT_EQ(answer.status, kException) << row.failing;
    EXPECT_EQ(answer.logText, row.logged);
    EXPECT_EQ(Stored("DeliveryRetryAttempts"), "3") << row.failing;
    EXPECT_EQ(EventKeys(), Lines()) << row.failing;
  }
}

}  // namespace
}  // namespace event_service
