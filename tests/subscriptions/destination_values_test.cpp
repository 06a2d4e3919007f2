/// What is decided without Redis: URIs, masks, index keys, syslog messages and the complete resource.
#include <gtest/gtest.h>

#include "platform/data_encrypt/data_encrypt.h"
#include "subscriptions/event_destination.h"
#include "subscriptions/filter_mask.h"
#include "subscriptions/member_uri.h"
#include "subscriptions/origin_index.h"
#include "subscriptions/syslog_exchange.h"

namespace event_service {
namespace {

Json Parse(const char* text) { return Json::parse(text); }

TEST(MemberUris, OneToSevenCharactersWithoutBlanksCannotBeDeleted) {
  const struct {
    const char* rest;
    bool undeletable;
    const char* id;
  } cases[] = {{"/1", true, "1"},  {"/1234567", true, "1234567"}, {"/12345678", false, "12345678"}, {"/", false, ""},
               {"", false, ""},    {"/a b", false, "a b"},        {"/a\nb", false, "a\nb"},         {"/a/b", true, ""},
               {"X/1", false, ""}, {"/a%\xff", true, "a%\xff"}};
  for (const auto& row : cases) {
    const std::string uri = std::string("/redfish/v1/EventService/Subscriptions") + row.rest;
    EXPECT_EQ(IsUndeletableSubscriptionUri(uri), row.undeletable) << uri;
    EXPECT_EQ(MemberIdOf(uri), row.id) << uri;
  }
  EXPECT_TRUE(IsSnmpTrapDestination(MemberUri("1234567"), "SNMPTrap"));
  EXPECT_FALSE(IsSnmpTrapDestination(MemberUri("12345678"), "SNMPTrap"));
  EXPECT_FALSE(IsSnmpTrapDestination(MemberUri("1"), "SNMPInform"));
}

TEST(FilterMasks, BitsAreJoinedAndNeverOverflow) {
  const RegistryPrefixBits bits = {{"A", 1}, {"B", 2}, {"Y", 2147483647}, {"Z", 2147483647}};
  const struct {
    const char* body;
    int32_t mask;
  } cases[] = {
      {R"({})", -1},
      {R"({"RegistryPrefixes": [], "MessageIds": []})", -1},
      {R"({"RegistryPrefixes": ["B", "A", "B"]})", 3},
      {R"({"RegistryPrefixes": ["Y", "Z", "A"]})", 2147483647},
      {R"({"RegistryPrefixes": ["Unknown"]})", 0},
      {R"({"MessageIds": [null]})", 0},
      {R"({"MessageIds": ["A.1.0.X", "A.1.0.Y", "New.1.0.Z", "B"]})", 3},
  };
  for (const auto& row : cases) {
    RegistryPrefixBits known = bits;
    EXPECT_EQ(FilterMask(Parse(row.body), known), row.mask) << row.body;
  }
  RegistryPrefixBits known = bits;
  FilterMask(Parse(R"({"MessageIds": ["New.1.0.Z"], "RegistryPrefixes": ["Other"]})"), known);
  EXPECT_EQ(known.at("New"), 0);
  EXPECT_EQ(known.count("Other"), 0u);
}

TEST(OriginIndex, KeysFollowOriginsAndSubordinates) {
  using Keys = std::vector<std::string>;
  const struct {
    const char* destination;
    bool matchesSubordinates;
    Keys keys;
  } cases[] = {
      {R"({})", true, {"&&subs:*"}},
      {R"({"OriginResources": [], "SubordinateResources": true})", true, {"&&subs:*"}},
      {R"({"EventFormatType": "MetricReport"})", true, {}},
      {R"({"OriginResources": [{"@odata.id": "/redfish/v1/Systems/1"}], "SubordinateResources": false})",
       true,
       {"&&subs:Systems/1"}},
      {R"({"OriginResources": [{"@odata.id": "/redfish/v1/A"}, {"@odata.id": "/redfish/v1/B/"},
           {"@odata.id": "/redfish/v1/A"}, {"@odata.id": "/redfish/v1/*"}], "SubordinateResources": true})",
       true,
       {"&&subs:A", "&&subs:A/*", "&&subs:B/", "&&subs:B/*", "&&subs:*"}},
      {R"({"OriginResources": [{"@odata.id": "/redfish/v1/A"}], "SubordinateResources": true})", false, {"&&subs:A"}},
  };
  for (const auto& row : cases) {
    EXPECT_EQ(OriginIndexKeys(Parse(row.destination), row.matchesSubordinates), row.keys) << row.destination;
  }
}

TEST(SyslogMessages, CarryTheFirstFilterAsFarAsItGoes) {
  const struct {
    const char* destination;
    const char* message;
  } cases[] = {
      {R"({"Id": "A", "Protocol": "SyslogTCP", "Destination": "10.0.0.1:514"})",
       R"({"Action":"CREATE","Destination":"10.0.0.1:514","Id":"A","Type":"TCP"})"},
      {R"({"Id": "A", "Protocol": "SyslogTLS", "Destination": "h", "SyslogFilters": [null]})",
       R"({"Action":"CREATE","Destination":"h","Id":"A","Type":"TLS"})"},
      {R"({"Id": "A", "Protocol": "SyslogTLS", "Destination": "h", "SyslogFilters":
           [{"LogFacilities": ["Kern"], "LowestSeverity": "Error"}, {"LowestSeverity": "All"}]})",
       R"({"Action":"CREATE","Destination":"h","Facilities":["Kern"],"Id":"A","Severity":"Error","Type":"TLS"})"},
  };
  for (const auto& row : cases) EXPECT_EQ(SyslogCreateMessage(Parse(row.destination)), row.message);
  EXPECT_EQ(SyslogDeleteMessage("A"), R"({"Action":"DELETE","Id":"A"})");
}

/// What the service adds to every destination, with `changed` members replaced and added.
Json Expected(const char* changed) {
  Json expected = Parse(R"({
      "&&AllowMethod": "GET,HEAD,PATCH,DELETE", "&&PATCHValidation": "v_EventDestination.json", "&&Privileges": "Admin",
      "@odata.context": "/redfish/v1/$metadata#EventDestination.EventDestination", "@odata.etag": "\"E\"",
      "@odata.id": "/redfish/v1/EventService/Subscriptions/0000ABCD",
      "@odata.type": "#EventDestination.v1_11_2.EventDestination", "Id": "0000ABCD", "Name": "Destination",
      "Context": null, "Description": "This resource represents the target of an event subscription, including the types of events subscribed and context to provide to the target in the Event payload.",
      "EventFormatType": "Event", "HttpHeaders": [], "IncludeOriginOfCondition": false, "MessageIds": [],
      "MetricReportDefinitions": [], "MetricReportDefinitions@odata.count": 0, "OriginResources": [],
      "OriginResources@odata.count": 0, "RegistryPrefixes": [], "ResourceTypes": [], "SubordinateResources": null,
      "SubscriptionType": "RedfishEvent",
      "&&SensitiveData": "SNMP/TrapCommunity,SNMP/AuthenticationKey,SNMP/EncryptionKey",
      "Actions": {"#EventDestination.ResumeSubscription": {"title": "ResumeSubscription",
        "target": "/redfish/v1/EventService/Subscriptions/0000ABCD/Actions/EventDestination.ResumeSubscription"}},
      "DeliveryRetryPolicy": "SuspendRetries", "Status": {"State": "Enabled"},
      "DeliveryRetryPolicy@Redfish.AllowableValues":
          ["TerminateAfterRetries", "SuspendRetries", "RetryForever", "RetryForeverWithBackoff"]})");
  expected.update(Parse(changed));
  return expected;
}

TEST(CompleteDestination, FollowsFromTheRequest) {
  const struct {
    const char* name;
    const char* body;
    const char* changed;
  } cases[] = {
      {"least", R"({})", R"({})"},
      {"the client's words count",
       R"({"Context": "c", "Name": "Mine", "Description": null, "DeliveryRetryPolicy": null, "EventFormatType": null})",
       R"({"Context": "c", "Description": null, "DeliveryRetryPolicy": null, "EventFormatType": null})"},
      {"arrays are counted",
       R"({"MessageIds": ["A.1.0.B"], "HttpHeaders": [{"X": "1"}], "EventTypes": ["Alert"], "ResourceTypes": []})",
       R"({"MessageIds": ["A.1.0.B"], "MessageIds@odata.count": 1, "HttpHeaders": [{"X": "1"}],
           "HttpHeaders@odata.count": 1, "EventTypes": ["Alert"], "ResourceTypes@odata.count": 0})"},
      {"origins without a word on subordinates", R"({"OriginResources": [{"@odata.id": "/redfish/v1/A"}]})",
       R"({"OriginResources": [{"@odata.id": "/redfish/v1/A"}], "OriginResources@odata.count": 1,
           "SubordinateResources": false})"},
      {"a null on subordinates stays",
       R"({"OriginResources": [{"@odata.id": "/redfish/v1/A"}], "SubordinateResources": null})",
       R"({"OriginResources": [{"@odata.id": "/redfish/v1/A"}], "OriginResources@odata.count": 1})"},
      {"metric reports", R"({"MetricReportDefinitions": []})", R"({"EventFormatType": "MetricReport"})"},
      {"syslog overrides",
       R"({"Protocol": "SyslogTLS", "SubscriptionType": "RedfishEvent", "DeliveryRetryPolicy": null})",
       R"({"Protocol": "SyslogTLS", "SubscriptionType": "Syslog", "DeliveryRetryPolicy": "RetryForever"})"},
  };
  ServiceSettings settings;
  settings.defaultRetryPolicy = "SuspendRetries";
  for (const auto& row : cases) {
    const auto built =
        BuildEventDestination(Parse(row.body), {.id = "0000ABCD", .privileges = "Admin", .etag = "\"E\""}, settings);
    ASSERT_TRUE(built) << row.name;
    EXPECT_EQ(Json::diff(*built, Expected(row.changed)), Json::array()) << row.name;
  }
}

TEST(CompleteDestination, AStreamEndsAfterTheCommonPart) {
  Json expected = Expected(R"({"SubscriptionType": "SSE", "&&SSE-CHANNEL": "ch\u0000", "&&TimeStamp": "now"})");
  for (const char* name :
       {"Actions", "Status", "&&SensitiveData", "DeliveryRetryPolicy", "DeliveryRetryPolicy@Redfish.AllowableValues"}) {
    expected.erase(name);
  }
  const NewDestination about = {.id = "0000ABCD",
                                .privileges = "Admin",
                                .etag = "\"E\"",
                                .passwordLine = "",
                                .isSse = true,
                                .sseChannel = std::string("ch\0", 3),
                                .timeStamp = "now"};
  const auto built = BuildEventDestination(Json::object(), about, {});
  ASSERT_TRUE(built);
  EXPECT_EQ(Json::diff(*built, expected), Json::array());
}

TEST(SnmpSecrets, AreEncryptedAndToldByFlags) {
  const char* body = R"({"SNMP": {"TrapCommunity": "", "AuthenticationKey": "caf\u00e9 1234", "AuthenticationProtocol":
      "HMAC_MD5", "EncryptionKey": "secret"}})";
  auto built = BuildEventDestination(Parse(body), {.id = "0000ABCD", .passwordLine = "key line"}, {});
  ASSERT_TRUE(built);
  Json& snmp = (*built)["SNMP"];
  for (const auto& [name, text] : {std::pair{"AuthenticationKey", "caf\u00e9 1234"}, {"EncryptionKey", "secret"}}) {
    EXPECT_EQ(decryptHexString(snmp[name].get<std::string>(), "key line"), text);
    snmp.erase(name);
  }
  EXPECT_EQ(snmp, Parse(R"({"TrapCommunity": null, "AuthenticationKeySet": true, "EncryptionKeySet": true,
      "AuthenticationProtocol": "HMAC_MD5", "AuthenticationProtocol@Redfish.AllowableValues": ["None",
      "CommunityString", "HMAC_MD5", "HMAC_SHA96", "HMAC128_SHA224", "HMAC192_SHA256", "HMAC256_SHA384",
      "HMAC384_SHA512"], "EncryptionProtocol@Redfish.AllowableValues": ["None", "CBC_DES", "CFB128_AES128"]})"));
  EXPECT_FALSE(BuildEventDestination(Parse(body), {.id = "0000ABCD"}, {})) << "without a password nothing is encrypted";

  Json stored = Parse(R"({"AuthenticationKey": "old", "AuthenticationKeySet": true, "EncryptionKeySet": true})");
  ASSERT_TRUE(MergeSnmp(Parse(R"({"AuthenticationKey": null})"), "key line", stored));
  EXPECT_EQ(stored, Parse(R"({"AuthenticationKeySet": false, "EncryptionKeySet": true})"));
}

}  // namespace
}  // namespace event_service
