/// PATCH of the EventService and the file that keeps what it changed.
#include "requests/patch_event_service.h"

#include <sys/stat.h>

#include "platform/data_encrypt/data_encrypt.h"
#include "requests/persistent_properties.h"
#include "tests/requests/event_service_test.h"

namespace event_service {
namespace {

constexpr std::string_view kKeyLine = "a line of random text";

class PatchTest : public EventServiceTest {
 protected:
  void SetUp() override {
    EventServiceTest::SetUp();
    // What a start leaves.
    ASSERT_TRUE(WriteResource(redis(), kEventServiceUri, Json::parse(R"({
        "ServiceEnabled": true, "DeliveryRetryAttempts": 3, "DeliveryRetryIntervalSeconds": 60, "Id": "EventService",
        "@odata.etag": "\"1\"", "SMTP": {"Port": 25, "ServerAddress": "mail", "Username": null, "Password": null}})")));
    HashWrite(redis(), kSmtpKey, "&&Password", "null");
    WriteFile(settings_.paths.passwordFile, std::string(kKeyLine) + "\nand more");
    RegisterScript("resourceChange", "return redis.call('RPUSH', 'raised', table.concat(KEYS, ' '))");
  }
  Answer Patch(const std::string& body, redisContext* connection = nullptr) {
    return Handle("PATCH", kEventServiceUri, Json::parse(body), connection);
  }
  /// Everything but what storing the request itself leaves.
  DatabaseDump State() {
    DatabaseDump dump = Dump();
    std::erase_if(dump, [](const auto& entry) {
      return entry.first.find("req") != std::string::npos || entry.first == "Array-Member-Sequence-ID";
    });
    return dump;
  }
  std::string Stored(std::string_view field) { return HashRead(redis(), kEventServiceUri, field); }
  std::string Smtp(std::string_view field) { return HashRead(redis(), kSmtpKey, field); }
  std::string KeptFile() { return ReadFile(settings_.paths.persistentProperties); }
};

TEST_F(PatchTest, AChangeIsStoredKeptAndAnnouncedInThreeTrips) {
  TripCounter proxy(Server().SocketPath());
  const RedisContext context = proxy.Connect();
  proxy.Reset();
  EXPECT_EQ(Summary(Patch(R"({"DeliveryRetryAttempts": 2.5e1})", context.get())), "OK_RES Base.1.12.Success()");
  EXPECT_EQ(proxy.trips(), 3U);
  EXPECT_EQ(Stored("DeliveryRetryAttempts"), "25");
  EXPECT_EQ(Stored("DeliveryRetryIntervalSeconds"), "60");
  EXPECT_TRUE(Json::parse(Stored("@odata.etag")).get<std::string>().starts_with('"'));
  EXPECT_NE(Stored("@odata.etag"), R"("\"1\"")");
  EXPECT_EQ(Dump()["raised"], "[change /redfish/v1/EventService EventService EventGroupId 1]");
  EXPECT_EQ(log_.Errors(), Lines());
}

TEST_F(PatchTest, TheFileGathersTheChangesForItsOwnerAlone) {
  WriteFile(settings_.paths.persistentProperties, "SMTP/Port=7\nno property\nServiceEnabled=true\n");
  Patch(R"({"SMTP": {"Port": 587, "Username": "me"}})");
  EXPECT_EQ(Smtp("Port"), "587");
  EXPECT_EQ(Smtp("ServerAddress"), "\"mail\"");
  EXPECT_EQ(KeptFile(), "SMTP/Port=587\nSMTP/Username=\"me\"\nServiceEnabled=true\n");
  struct stat status {};
  ASSERT_EQ(stat(settings_.paths.persistentProperties.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(PatchTest, ThePasswordIsKeptEncryptedAndReadsAsNull) {
  EXPECT_EQ(Patch(R"({"SMTP": {"Password": "s3cret"}})").status, "OK_RES");
  const std::string encrypted = Smtp("&&Password");
  EXPECT_EQ(decryptHexString(encrypted, kKeyLine), "s3cret");
  EXPECT_EQ(Smtp("Password"), "null");
  EXPECT_EQ(KeptFile(), "SMTP/Password=\"" + encrypted + "\"\n");
  EXPECT_EQ(Patch(R"({"SMTP": {"Password": "s3cret"}})").body, "") << "a secret always counts as a change";
  EXPECT_NE(Smtp("&&Password"), encrypted);
  EXPECT_EQ(Patch(R"({"SMTP": {"Password": null}})").body, "");
  EXPECT_EQ(Smtp("&&Password"), "null");

  RemoveFile(settings_.paths.passwordFile);
  const DatabaseDump before = State();
  const Answer answer = Patch(R"({"DeliveryRetryAttempts": 4, "SMTP": {"Password": "s3cret"}})");
  EXPECT_EQ(Summary(answer), "EXCEPTION Base.1.12.OperationFailed()");
  EXPECT_EQ(answer.logText, "OperationFailed: Failed to encrypt the SMTP password.");
  EXPECT_EQ(State(), before);
  EXPECT_EQ(KeptFile(), "SMTP/Password=null\n");
}

TEST_F(PatchTest, WhatIsRefusedOrChangesNothingLeavesEverythingAsItWas) {
  const struct {
    std::string body, answer;
  } cases[] = {
      {R"({"ServiceEnabled": "yes", "DeliveryRetryAttempts": null, "Bogus": 1, "DeliveryRetryIntervalSeconds": 5})",
       "FAILURE Base.1.12.PropertyUnknown(Bogus) Base.1.12.PropertyValueTypeError(null, DeliveryRetryAttempts) "
       "Base.1.12.PropertyValueTypeError(yes, ServiceEnabled)"},
      {R"({"DeliveryRetryAttempts": 1.5})", "FAILURE Base.1.12.PropertyValueTypeError(1.5, DeliveryRetryAttempts)"},
      {R"({"DeliveryRetryAttempts": 18446744073709551615})",
       "FAILURE Base.1.12.PropertyValueOutOfRange(18446744073709551615, DeliveryRetryAttempts)"},
      {R"({"SMTP": null})", "FAILURE Base.1.12.PropertyValueTypeError(null, SMTP)"},
      {R"({"SMTP": [{"Password": "s"}]})", R"(FAILURE Base.1.12.PropertyValueTypeError([{"Password":null}], SMTP))"},
      {R"({"SMTP": {"Port": 65536, "Password": ["s3cret"], "Authentication": "Guess", "ServerAddress": "a\u0000"}})",
       std::string("FAILURE Base.1.12.PropertyValueNotInList(Guess, SMTP/Authentication) "
                   "Base.1.12.PropertyValueError(SMTP/Password) Base.1.12.PropertyValueOutOfRange(65536, SMTP/Port) ") +
           "Base.1.12.PropertyValueFormatError(a" + '\0' + ", SMTP/ServerAddress)"},
      {R"({"SMTP": {"FromAddress": ")" + std::string(1025, 'x') + "\"}}",
       "FAILURE Base.1.12.StringValueTooLong(" + std::string(64, 'x') + ", 1024)"},
      {R"({"Name": "n", "SMTP": {"Nothing": 1}})",
       "FAILURE Base.1.12.PropertyNotWritable(Name) Base.1.12.PropertyUnknown(SMTP/Nothing)"},
      {R"({"Name": "n", "DeliveryRetryAttempts": 3})", "OK_RES Base.1.12.PropertyNotWritable(Name)"},
      {"{}", "OK_RES"},
      {R"({"@odata.etag": "x", "A@Redfish.B": 1})", "OK_RES"},
      {R"({"ServiceEnabled": true, "SMTP": {"Port": 25.0}})", "OK_RES"},
  };
  const DatabaseDump before = State();
  for (const auto& row : cases) {
    const Answer answer = Patch(row.body);
    EXPECT_EQ(Summary(answer), row.answer) << row.body;
    EXPECT_EQ(answer.body.find("Base.1.12.NoOperation") != std::string::npos, row.answer == "OK_RES") << row.body;
    EXPECT_EQ(State(), before) << row.body;
  }
  EXPECT_FALSE(FileExists(settings_.paths.persistentProperties));
  EXPECT_EQ(Patch(R"({"SMTP": {"Port": true}})").messages.front().relatedProperties, Lines{"SMTP/Port"});
  settings_.protocolOnly = true;
  EXPECT_EQ(Summary(Patch(R"({"SMTP": {"Port": 1}})")), "FAILURE Base.1.12.PropertyNotWritable(SMTP)");
}

TEST_F(PatchTest, WhatCanNeverBeUpdatedDoesNotStopTheRest) {
  EXPECT_EQ(Summary(Patch(R"({"Name": "n", "SMTP/Port": 1, "SMTP": {"Nothing": 1, "Port": 26}})")),
            "OK_RES Base.1.12.PropertyNotWritable(Name) Base.1.12.PropertyUnknown(SMTP/Nothing) "
            "Base.1.12.PropertyUnknown(SMTP/Port)");
  EXPECT_EQ(Smtp("Port"), "26");
}

TEST_F(PatchTest, TurningTheServiceOffAsksForTheEndOfTheStreams) {
  Patch(R"({"ServiceEnabled": null})");
  EXPECT_TRUE(KeyListing(redis(), "*SSE-ALL*").empty());
  EXPECT_EQ(log_.Errors(), Lines{"The SSE subscriptions could not be deleted: nobody listens for the request."});

  HashWrite(redis(), kEventServiceUri, "ServiceEnabled", "true");
  const RedisContext listener = Connect();
  ASSERT_TRUE(SendArguments(listener.get(), {"SUBSCRIBE", kSubscriptionsChannel}));
  Patch(R"({"ServiceEnabled": false})");
  void* reply = nullptr;
  ASSERT_EQ(redisGetReply(listener.get(), &reply), REDIS_OK);
  const RedisReply message(static_cast<redisReply*>(reply));
  const std::optional<Announcement> announcement = ParseAnnouncement(TextOf(message->element[2]));
  ASSERT_TRUE(announcement);
  EXPECT_EQ(announcement->responseKey, kFromEventing);
  EXPECT_EQ(Dump()[announcement->requestKey], "{&&RequestMethod=DELETE, &&TargetURI=SSE-ALL}");
}

TEST_F(PatchTest, EachFailureIsAnsweredOrLogged) {
  TripCounter proxy(Server().SocketPath());
  const RedisContext context = proxy.Connect();
  const struct {
    std::string failing, answered, logged;
  } cases[] = {
      {"HGETALL req/RequestData", "DatabaseOperationError: Gets request data failed.", ""},
      {"HGETALL /redfish", "DatabaseOperationError: Gets EventService data failed.", ""},
      {"EventService DeliveryRetryAttempts", "DatabaseOperationError: Failed to update the EventService.", ""},
      {"@odata.etag", "", "Failed to set the etag of the EventService."},
      {"EVALSHA", "", "The life cycle event for /redfish/v1/EventService could not be handed over."},
  };
  for (const auto& row : cases) {
    log_.Clear();
    proxy.Reset();
    proxy.FailCommandsWith(row.failing);
    HashWrite(redis(), kEventServiceUri, "DeliveryRetryAttempts", "3");
    const Answer answer = Patch(R"({"DeliveryRetryAttempts": 4})", context.get());
    EXPECT_EQ(answer.status, row.answered.empty() ? "OK_RES" : "EXCEPTION") << row.failing;
    EXPECT_EQ(answer.logText, row.answered);
    EXPECT_EQ(log_.Errors(), row.logged.empty() ? Lines() : Lines{row.logged}) << row.failing;
  }
}

TEST_F(PatchTest, AFileThatCannotBeWrittenIsLoggedAndTheChangeStands) {
  for (const std::string& path : {std::string("/nonexistent/folder/file"), Sandbox().Root()}) {
    settings_.paths.persistentProperties = path;
    EXPECT_EQ(Patch(R"({"DeliveryRetryAttempts": 5, "SMTP": {"Password": null}})").status, "OK_RES");
  }
  EXPECT_EQ(log_.Errors(), (Lines{"Failed to write the persistent properties; the change is not kept.",
                                  "Failed to read the persistent properties; the change is not kept."}));
  EXPECT_EQ(Stored("DeliveryRetryAttempts"), "5");
}

// ---- The file -------------------------------------------------------------------------------------------------------

TEST(PersistentProperties, OnlyKnownPropertiesWithValidValuesAreTaken) {
  const PersistentProperties properties = ParsePersistentProperties(
      "ServiceEnabled=false\n\nSMTP/Port=70000\nBogus=1\nSMTP/Password=\"no hex\"\nSMTP/Password=\"0AF\"\n"
      "DeliveryRetryAttempts=3.0\nDeliveryRetryAttempts=x\nno equals sign\n=\nSMTP/Username=\"a=b\"");
  const ServiceValues expected = {
      {"ServiceEnabled", false}, {"SMTP/Password", "0AF"}, {"DeliveryRetryAttempts", 3}, {"SMTP/Username", "a=b"}};
  EXPECT_EQ(properties.values, expected);
  EXPECT_EQ(properties.unusableLines, (std::vector<size_t>{3, 4, 5, 8, 9, 10}));
  EXPECT_EQ(ParsePersistentProperties(FormatPersistentProperties(expected)).values, expected);
}

TEST_F(PatchTest, ARestorationSkipsWhatItCannotUse) {
  EXPECT_TRUE(RestorePersistentProperties(redis(), settings_)) << "there is no file";
  WriteFile(settings_.paths.persistentProperties, "SMTP/Port=26\nBogus=\"s3cret\"\nDeliveryRetryAttempts=8\n");
  settings_.protocolOnly = true;
  const std::string etag = Stored("@odata.etag");
  EXPECT_TRUE(RestorePersistentProperties(redis(), settings_));
  EXPECT_NE(Stored("@odata.etag"), etag);
  EXPECT_EQ(Smtp("Port"), "25");
  EXPECT_EQ(Stored("DeliveryRetryAttempts"), "8");
  EXPECT_EQ(log_.Errors(),
            Lines{"Line 2 of the persistent properties is passed over: not a known property with a valid value."});
  const DatabaseDump restored = Dump();
  EXPECT_TRUE(RestorePersistentProperties(redis(), settings_));
  EXPECT_EQ(Dump(), restored) << "a second start changes nothing";
}

TEST_F(PatchTest, ARestorationThatFailsSaysSo) {
  WriteFile(settings_.paths.persistentProperties, "DeliveryRetryAttempts=8\n");
  TripCounter proxy(Server().SocketPath());
  const RedisContext context = proxy.Connect();
  for (const char* failing : {"HSET", "HGETALL"}) {
    proxy.FailCommandsWith(failing);
    EXPECT_FALSE(RestorePersistentProperties(context.get(), settings_));
  }
  settings_.paths.persistentProperties = Sandbox().Root();
  EXPECT_FALSE(RestorePersistentProperties(redis(), settings_));
  EXPECT_EQ(log_.Errors(), (Lines{"Failed to write the persistent properties into the database.",
                                  "Failed to read the EventService for its persistent properties.",
                                  "Failed to read the persistent properties."}));
}

}  // namespace
}  // namespace event_service
