/// PATCH of the EventService and the file that keeps what it changed.
#include "requests/event_service/patch_event_service.h"

#include <filesystem>

#include "platform/data_encrypt/data_encrypt.h"
#include "requests/event_service/persistent_properties.h"
#include "tests/requests/event_service_test.h"

namespace event_service {
namespace {

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
