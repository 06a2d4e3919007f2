/// Requests to the EventService: what is refused, what a PATCH changes, and the file that keeps it.
/// of the EventService and the file that keeps what it changed.
#include <filesystem>

#include "platform/data_encrypt/data_encrypt.h"
#include "requests/event_service/patch_event_service.h"
#include "requests/event_service/persistent_properties.h"
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

using PatchTest = EventServiceTest;

TEST_F(PatchTest, AChangeIsStoredKeptForTheOwnerAloneAndAnnounced) {
  WriteFile(file_, "SMTP/Port=7\nno property\nServiceEnabled=true\n");
  EXPECT_EQ(InShort(Patch(R"({"DeliveryRetryAttempts": 2.5e1})")), "OK_RES Success()");
  EXPECT_EQ(proxy_.trips(), 3U);
  EXPECT_EQ(Stored("DeliveryRetryAttempts"), "25");
  EXPECT_NE(Stored("@odata.etag"), R"("\"1\"")");
  EXPECT_EQ(Dump()["raised"], "[change /redfish/v1/EventService EventService EventGroupId 1]");

  EXPECT_EQ(InShort(Patch(R"({"Name": "n", "SMTP/Port": 1, "SMTP": {"Nothing": 1, "Port": 26, "Username": "me"}})")),
            "OK_RES PropertyNotWritable(Name) @Name, PropertyUnknown(SMTP/Nothing) @SMTP/Nothing, "
            "PropertyUnknown(SMTP/Port) @SMTP~1Port");
  EXPECT_EQ(Dump()[std::string(kSmtpKey)], R"({&&Password=null, Port=26, ServerAddress="mail", Username="me"})");
  EXPECT_EQ(ReadFile(file_), "DeliveryRetryAttempts=25\nSMTP/Port=26\nSMTP/Username=\"me\"\nServiceEnabled=true\n");
  EXPECT_EQ(std::filesystem::status(file_).permissions(), std::filesystem::perms(0600));
  EXPECT_EQ(log_.Errors(), Lines());
}

TEST_F(PatchTest, ThePasswordIsKeptEncryptedAndReadsAsNull) {
  WriteFile(settings_.paths.passwordFile, "a line of random text\nand more");
  EXPECT_EQ(Patch(R"({"SMTP": {"Password": "s3cret"}})").status, "OK_RES");
  const std::string encrypted = StoredSmtp("&&Password");
  EXPECT_EQ(decryptHexString(encrypted, "a line of random text"), "s3cret");
  EXPECT_EQ(StoredSmtp("Password"), "null");
  EXPECT_EQ(ReadFile(file_), "SMTP/Password=\"" + encrypted + "\"\n");
  Patch(R"({"SMTP": {"Password": "s3cret"}})");
  EXPECT_NE(StoredSmtp("&&Password"), encrypted) << "a secret always counts as a change";
  Patch(R"({"SMTP": {"Password": null}})");

  std::filesystem::remove(settings_.paths.passwordFile);
  const DatabaseDump before = Dump();
  const Answer answer = Patch(R"({"DeliveryRetryAttempts": 4, "SMTP": {"Password": "s3cret"}})");
  EXPECT_EQ(InShort(answer), "EXCEPTION OperationFailed()");
  EXPECT_EQ(answer.logText, "OperationFailed: Failed to encrypt the SMTP password.");
  EXPECT_EQ(Dump(), before);
  EXPECT_EQ(ReadFile(file_), "SMTP/Password=null\n");
}

TEST_F(PatchTest, TurningTheServiceOffAsksForTheEndOfTheStreams) {
  Patch(R"({"ServiceEnabled": null})");
  EXPECT_TRUE(KeyListing(redis(), "*SSE-ALL*").empty());
  EXPECT_EQ(log_.Errors(), Lines{"The SSE subscriptions could not be deleted: nobody listens for the request."});

  HashWrite(redis(), kEventServiceUri, "ServiceEnabled", "true");
  const RedisContext listener = Connect();
  ASSERT_TRUE(SendArguments(listener.get(), {"SUBSCRIBE", kSubscriptionsChannel}));
  Patch(R"({"ServiceEnabled": false})");
  const std::string key = KeyListing(redis(), "*SSE-ALL*").at(0);
  EXPECT_EQ(Dump()[key], "{&&RequestMethod=DELETE, &&TargetURI=SSE-ALL}");
  EXPECT_EQ(proxy_.commands().back(), "PUBLISH " + std::string(kSubscriptionsChannel) + " " + key + " FROM_EVENTING");
}

TEST_F(PatchTest, WhatDidNotGetIntoRedisOrTheFileIsSettledByTheNextChange) {
  const RedisContext listener = Connect();
  ASSERT_TRUE(SendArguments(listener.get(), {"SUBSCRIBE", kSubscriptionsChannel}));
  const char* const body = R"({"DeliveryRetryAttempts": 4, "ServiceEnabled": false, "SMTP": {"Port": 26}})";
  proxy_.Reset({.failedText = " ServiceEnabled"});
  EXPECT_EQ(Patch(body).status, "EXCEPTION");
  EXPECT_TRUE(KeyListing(redis(), "*SSE-ALL*").empty()) << "the service is on";
  proxy_.Reset({.failedText = "&&Object SMTP"});  // the last write
  EXPECT_EQ(Patch(body).status, "EXCEPTION");
  EXPECT_FALSE(KeyListing(redis(), "*SSE-ALL*").empty()) << "the service is off";
  proxy_.Reset();
  EXPECT_EQ(InShort(Patch(body)), "OK_RES Success()");
  EXPECT_EQ(ReadFile(file_), "DeliveryRetryAttempts=4\nSMTP/Port=26\nServiceEnabled=false\n");

  const std::string file = std::exchange(settings_.paths.persistentProperties, Sandbox().Root());
  EXPECT_EQ(Patch(R"({"SMTP": {"Username": "me"}})").status, "OK_RES");
  settings_.paths.persistentProperties = file;
  proxy_.Reset({.failedText = "@odata.etag"});
  Patch(R"({"DeliveryRetryAttempts": 5})");
  EXPECT_EQ(log_.Errors().back(), "Failed to set the etag of the EventService.");
  EXPECT_EQ(ReadFile(file_), "DeliveryRetryAttempts=5\nSMTP/Port=26\nSMTP/Username=\"me\"\nServiceEnabled=false\n");
}

TEST_F(PatchTest, ARestorationTakesOnlyKnownPropertiesWithValidValues) {
  const auto restore = [this] { return RestorePersistentProperties(proxied_.get(), settings_); };
  EXPECT_TRUE(restore()) << "there is no file";
  WriteFile(file_,
            "DeliveryRetryIntervalSeconds=7\nDeliveryRetryIntervalSeconds=8.0\n\nSMTP/"
            "Port=70000\nBogus=\"s3cret\"\nSMTP/Password=\"no hex\"\n"
            "SMTP/Password=\"0AF\"\nSMTP/Password=\"\"\nServiceEnabled=x\nno equals sign\n=\nSMTP/Username=\"a=b\"\n"
            "DeliveryRetryAttempts=3" +
                std::string(1, '\0') + "\nSMTP/Port=" + std::string(10000, '[') + std::string(10000, ']'));
  settings_.protocolOnly = true;
  EXPECT_TRUE(restore());
  EXPECT_EQ(log_.Errors().size(), 9U);
  EXPECT_EQ(log_.Errors().front(),
            "Line 4 of the persistent properties is passed over: not a known property with a valid value.");
  EXPECT_EQ(Stored("DeliveryRetryIntervalSeconds"), "8");
  EXPECT_NE(Stored("@odata.etag"), R"("\"1\"")");
  EXPECT_EQ(StoredSmtp("Username"), "null");
  settings_.protocolOnly = false;
  EXPECT_TRUE(restore());
  EXPECT_EQ(StoredSmtp("Username"), "\"a=b\"");
  EXPECT_EQ(StoredSmtp("&&Password"), "0AF");
  const DatabaseDump restored = Dump();
  EXPECT_TRUE(restore());
  EXPECT_EQ(Dump(), restored) << "a second start changes nothing";
  HashWrite(redis(), kSmtpKey, "&&Password", "null");
  EXPECT_TRUE(restore());
  EXPECT_EQ(Dump(), restored) << "as every start does: the password alone makes no other content";
  for (const char* failing : {"HGETALL", "HSET"}) {
    HashWrite(redis(), kSmtpKey, "&&Password", "null");
    proxy_.Reset({.failedText = failing});
    EXPECT_FALSE(restore()) << failing;
  }
  WriteFile(file_, std::string(64 * 1024 + 1, '\n'));
  EXPECT_FALSE(restore()) << "larger than any file of ours";
}

}  // namespace
}  // namespace event_service
