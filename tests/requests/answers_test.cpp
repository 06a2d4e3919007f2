/// What the EventService answers to requests that change nothing: refused, without effect, or failed on the way.
#include "tests/requests/event_service_test.h"

#include <filesystem>

namespace event_service {
namespace {

using namespace std::string_literals;

TEST_F(EventServiceTest, WhatIsRefusedOrChangesNothingLeavesEverythingAsItWas) {
  const Json lists(std::vector<Json>(256, Json{1}));
  const struct {
    std::string_view request;
    std::string body, answer;
  } cases[] = {
      {"PATCH", R"({"ServiceEnabled": "yes", "Bogus": 1, "Name": 1, "DeliveryRetryIntervalSeconds": 5})",
       "FAILURE PropertyUnknown(Bogus) PropertyNotWritable(Name) PropertyValueTypeError(yes, ServiceEnabled)"},
      {"PATCH", R"({"SMTP": [{"Password": "s", "HttpHeaders": [1]}, 2]})",
       R"(FAILURE PropertyValueTypeError([{"HttpHeaders":null,"Password":null},2], SMTP))"},
      {"PATCH", R"({"SMTP": {"Port": 65536}})", "FAILURE PropertyValueOutOfRange(65536, SMTP/Port)"},
      {"PATCH", R"({"SMTP": {"Password": ["s3cret"]}})", "FAILURE PropertyValueError(SMTP/Password)"},
      {"PATCH", R"({"SMTP": {"Authentication": "A"}})", "FAILURE PropertyValueNotInList(A, SMTP/Authentication)"},
      {"PATCH", R"({"SMTP": {"FromAddress": "a@b\r\nBcc: c"}})",
       "FAILURE PropertyValueFormatError(a@b\r\nBcc: c, SMTP/FromAddress)"},
      {"PATCH", R"({"SMTP": {"Username": "\u0000"}})",
       "FAILURE PropertyValueFormatError("s + '\0' + ", SMTP/Username)"},
      {"PATCH", Json{{"SMTP", {{"Port", lists}, {"Username", lists}, {"A", lists}, {"B", lists}}}, {"Name", 1}}.dump(),
       "FAILURE PropertyNotWritable(Name) PropertyValueError(SMTP)"},
      {"PATCH", R"({"SMTP": {"Username": "\u00e4)" + std::string(1024, 'x') + "\"}}",
       "FAILURE StringValueTooLong(\xC3\xA4" + std::string(63, 'x') + ", 1024)"},
      {"PATCH", R"({"Name": "n", "a@b.org": {}})", "FAILURE PropertyNotWritable(Name) PropertyUnknown(a@b.org)"},
      {"PATCH", R"({"Name": "n", "DeliveryRetryAttempts": 3})", "OK_RES PropertyNotWritable(Name)"},
      {"PATCH", R"({"@odata.etag": "x", "A@Redfish.B": 1, "&&SMTP": 1, "SMTP": {"@Message.A": 1, "@odata.id": "/"}})",
       "OK_RES"},
      {"PATCH", R"({"ServiceEnabled": true, "SMTP": {"Port": 2.50e1, "FromAddress": null}})", "OK_RES"},
      {"PATCH", R"({"DeliveryRetryAttempts": 2.5})", "FAILURE PropertyValueTypeError(2.5, DeliveryRetryAttempts)"},
      {"PATCH", R"({"DeliveryRetryAttempts": 1e99})", "FAILURE PropertyValueOutOfRange(1e+99, DeliveryRetryAttempts)"},
      {"Submit", R"({"Bogus": 1})", "FAILURE ActionParameterUnknown(#, Bogus)"},
      {"Submit", R"({"MessageId": 5})", "FAILURE ActionParameterValueTypeError(5, MessageId, #)"},
      {"Submit", R"({"EventTimestamp": "20"})", "FAILURE ActionParameterValueFormatError(20, EventTimestamp, #)"},
      {"Submit", R"({"EventType": "Other2"})", "FAILURE ActionParameterValueNotInList(Other2, EventType, #)"},
      {"Submit", R"({"MessageSeverity": "B"})", "FAILURE ActionParameterValueNotInList(B, MessageSeverity, #)"},
      {"Submit", R"({"EventGroupId": 9223372036854775808})",
       "FAILURE ActionParameterValueFormatError(9223372036854775808, EventGroupId, #)"},
      {"Submit", R"({"EventId": 7})", "FAILURE ActionParameterValueTypeError(7, EventId, #)"},
      {"Submit", R"({"MessageArgs": ["a", 2]})", "FAILURE ActionParameterValueTypeError(2, MessageArgs/1, #)"},
      {"Submit", R"({"MessageArgs": ["&&Object x"]})",
       "FAILURE ActionParameterValueTypeError(&&Object x, MessageArgs/0, #)"},
      {"Submit", R"({"MessageArgs": )" + Json(Lines(257)).dump() + "}",
       "FAILURE ActionParameterValueError(MessageArgs, #)"},
      {"Submit", R"({"OriginOfCondition": "/ "})", "FAILURE ActionParameterValueFormatError(/ , OriginOfCondition, #)"},
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
  const Answer pointers = Patch(R"({"SMTP": {"Port": true, "a/b~c": 1}})");
  EXPECT_EQ(Summary(pointers), "FAILURE PropertyValueTypeError(true, SMTP/Port) PropertyUnknown(SMTP/a/b~c)");
  EXPECT_EQ(pointers.messages[0].relatedProperties, Lines{"SMTP/Port"});
  EXPECT_EQ(pointers.messages[1].relatedProperties, Lines{"SMTP/a~1b~0c"});
  const Lines commands = proxy_.commands();
  EXPECT_EQ(std::ranges::count(commands, "LRANGE &&req/RequestData/MessageArgs 0 256"), 3) << "never more of a list";
  settings_.protocolOnly = true;
  EXPECT_EQ(Summary(Patch(R"({"SMTP": {"Port": 1}})")), "FAILURE PropertyNotWritable(SMTP)");
}

TEST_F(EventServiceTest, ABodyThatIsNotNamedLiesUnderItsUsualKey) {
  isBodyNamed_ = false;
  EXPECT_EQ(Summary(Patch(R"({"DeliveryRetryAttempts": 4})")), "OK_RES Success()");
  EXPECT_EQ(Summary(Patch("{}")), "EXCEPTION ExtendedError.1.2.DatabaseOperationError()") << "there is none";
}

TEST(NoOperation, IsAnErrorObjectWithTheRegistrysMessage) {
  const Json error = Json::parse(NoOperationAnswer().body)["error"];
  EXPECT_EQ(error["code"], "Base.1.12.NoOperation");
  EXPECT_EQ(error["@Message.ExtendedInfo"][0]["Message"], error["message"]);
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
