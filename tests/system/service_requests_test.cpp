#include "tests/system/daemon_test.h"

namespace event_service {
namespace {

class ServiceRequests : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    StartDaemon();
  }
};

TEST_F(ServiceRequests, EachGetsItsOneAnswer) {
  const std::string event = R"({"MessageId": "ResourceEvent.1.2.ResourceChanged", )";
  const struct {
    const char* method;
    std::string uri;
    std::string body;
    std::string answer;
  } cases[] = {
      {"POST", kTestEvent, event + R"("Message": "hello"})", "OK_RES"},
      {"POST", kTestEvent, event + R"("OriginOfCondition": "/redfish/v1/EventService"})", "OK_RES"},
      {"POST", kTestEvent, event + R"("OriginOfCondition": "/redfish/v1/Gone"})",
       "FAILURE Base.1.12.ResourceMissingAtURI(/redfish/v1/Gone)"},
      {"POST", kTestEvent, R"({"EventId": "1"})",
       "FAILURE Base.1.12.ActionParameterMissing(EventService.SubmitTestEvent, MessageId)"},
      {"POST", kTestEvent, event + R"("EventGroupId": "one"})",
       "FAILURE Base.1.12.ActionParameterValueTypeError(one, EventGroupId, EventService.SubmitTestEvent)"},
      {"POST", kTestEvent, event + R"("EventTimestamp": "yesterday"})",
       "FAILURE Base.1.12.ActionParameterValueFormatError(yesterday, EventTimestamp, EventService.SubmitTestEvent)"},
      {"POST", kTestEvent, event + R"("Colour": "red"})",
       "FAILURE Base.1.12.ActionParameterUnknown(EventService.SubmitTestEvent, Colour)"},
      {"POST", "/redfish/v1/EventService/Actions/EventService.Other", "{}",
       "NOT_FOUND Base.1.12.ActionNotSupported(/redfish/v1/EventService/Actions/EventService.Other)"},
      {"DELETE", kService, "", "NOT_ALLOWED ExtendedError.1.2.MethodNotAllowed(/redfish/v1/EventService, DELETE)"},
      {"POST", kService, "{}", "NOT_ALLOWED ExtendedError.1.2.MethodNotAllowed(/redfish/v1/EventService, POST)"},
      {"PATCH", kService, R"({"DeliveryRetryAttempts": 7})", "OK_RES Base.1.12.Success()"},
      {"PATCH", kService, R"({"DeliveryRetryAttempts": -7})",
       "FAILURE Base.1.12.PropertyValueOutOfRange(-7, DeliveryRetryAttempts)"},
      {"PATCH", kService, R"({"Id": "x", "ServiceEnabled": "yes"})",
       "FAILURE Base.1.12.PropertyNotWritable(Id) Base.1.12.PropertyValueTypeError(yes, ServiceEnabled)"},
      {"DELETE", std::string(kCollection) + "/short", "", "FAILURE Base.1.12.ResourceCannotBeDeleted()"},
      {"HEAD", std::string(kCollection) + "/12345678", "", ""},
  };
  for (const auto& row : cases) EXPECT_EQ(AskShort(row.method, row.uri, row.body), row.answer) << row.body;
  EXPECT_EQ(Value(kService, "/DeliveryRetryAttempts"), 7);
  EXPECT_TRUE(KeyListing(redis(), "&&Request:*").empty());
}

TEST_F(ServiceRequests, ADisabledServiceSubmitsNoTestEvents) {
  ASSERT_EQ(AskShort("PATCH", kService, R"({"ServiceEnabled": false})"), "OK_RES Base.1.12.Success()");
  EXPECT_EQ(AskShort("POST", kTestEvent, R"({"MessageId": "Base.1.12.Success"})"),
            "UNAVAILABLE ExtendedError.1.2.ServiceDisabled()");
  ASSERT_EQ(AskShort("PATCH", kService, R"({"ServiceEnabled": true})"), "OK_RES Base.1.12.Success()");
  EXPECT_EQ(AskShort("POST", kTestEvent, R"({"MessageId": "Base.1.12.Success"})"), "OK_RES");
}

TEST_F(ServiceRequests, PatchedPropertiesSurviveAPowerCycle) {
  ASSERT_EQ(AskShort("PATCH", kService,
                     R"({"DeliveryRetryIntervalSeconds": 11, "SMTP": {"Port": 2525, "Password": "hush-hush"}})"),
            "OK_RES Base.1.12.Success()");
  const std::string password = HashRead(redis(), "&&/redfish/v1/EventService/SMTP", "&&Password");
  PowerCycle();
  EXPECT_EQ(Value(kService, "/DeliveryRetryIntervalSeconds"), 11);
  EXPECT_EQ(Value(kService, "/SMTP/Port"), 2525);
  EXPECT_EQ(Value(kService, "/SMTP/Password"), Json());
  EXPECT_EQ(HashRead(redis(), "&&/redfish/v1/EventService/SMTP", "&&Password"), password);
  for (const auto& [key, content] : Dump()) EXPECT_EQ(content.find("hush-hush"), std::string::npos) << key;
  EXPECT_EQ(Log().find("hush-hush"), std::string::npos);
}

}  // namespace
}  // namespace event_service
