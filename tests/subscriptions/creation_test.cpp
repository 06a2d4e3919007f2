/// Creations against a real Redis and a real database file.
#include "subscriptions/creation.h"

#include <filesystem>

#include "subscriptions/syslog_exchange.h"
#include "tests/requests/schema_check.h"
#include "tests/subscriptions/subscriptions_fixture.h"
#include "tests/support/trip_counter.h"
#include "tools/front_end/front_end.h"

namespace event_service {
namespace {

using CreationTest = SubscriptionsTest;

const std::string kSyslogAnswers = std::string(kSyslogQueue) + "/";

TEST_F(CreationTest, WhatClientsSeeFollowsTheSchemas) {
  if (!HaveSchemas()) GTEST_SKIP() << "REDFISH_SCHEMAS names no folder of schemas";
  for (const auto& [kind, body] : kBodies.items()) {
    std::optional<Json> shown = ReadForClient(redis(), Create(body));
    ASSERT_TRUE(shown) << kind;
    shown->erase("HttpHeaders");  // the published pattern of header names forbids the letter s
    EXPECT_EQ(SchemaFaults("EventDestination.v1_11_2.json", "EventDestination", *shown), "") << kind;
  }
}

TEST_F(CreationTest, TheRestFollowsFromTheRequest) {
  const struct {
    const char* body;                   // beside an Id and, unless it names others, Protocol and Destination
    const char* stored;                 // "absent": is not there
    const char* index = "*{Id-1=-1} ";  // the origins with what stands there
  } cases[] = {
      {R"({"Context": "&&Array Context redisSHAScripts", "Name": "Mine", "Description": null, "EventFormatType": null,
           "DeliveryRetryPolicy": null, "SubscriptionType": null, "&&CRUDprefix": "mine", "Context@odata.x": "x",
           "RegistryPrefixes": []})",
       R"({"Context": "&&Array Context redisSHAScripts", "Name": "Destination", "DeliveryRetryPolicy": null,
           "EventFormatType": null, "SubscriptionType": null, "&&CRUDprefix": "&&/redfish/v1/EventDestination",
           "Context@odata.x": "absent"})"},
      {R"({"HttpHeaders": [{"&&x": "1", "A": "&&Object A redisSHAScripts"}], "HeartbeatIntervalMinutes": 2.5e1,
           "ResourceTypes": [], "MessageIds": [null], "EventTypes": ["Alert"]})",
       R"({"HttpHeaders": [{"A": "&&Object A redisSHAScripts"}], "HttpHeaders@odata.count": 1,
           "EventTypes@odata.count": "absent",
           "HeartbeatIntervalMinutes": 25, "ResourceTypes@odata.count": 0, "MessageIds@odata.count": 1})",
       "*{Id-1=0} "},
      {R"({"MessageIds": ["Base.1.12.A", "Base.1.12.B", "New.1.0.Z", "ResourceEvent"]})", "{}", "*{Id-1=3} "},
      {R"({"RegistryPrefixes": ["Y", "Base", "Z"], "OriginResources": [{"@odata.id": "/redfish/v1/A"}]})",
       R"({"OriginResources@odata.count": 1, "SubordinateResources": false, "EventFormatType": "Event"})",
       "A{Id-1=2147483647} "},
      {R"({"OriginResources": [{"@odata.id": "/redfish/v1/A"}, {"@odata.id": "/redfish/v1/B/"},
           {"@odata.id": "/redfish/v1/A"}, {"@odata.id": "/redfish/v1/*"}], "SubordinateResources": true})",
       "{}", "*{Id-1=-1} A{Id-1=-1} A/*{Id-1=-1} B/{Id-1=-1} B/*{Id-1=-1} "},
      {R"({"MetricReportDefinitions": []})", R"({"EventFormatType": "MetricReport"})",
       "MetricReport{Total_Num_Subscriber=1} "},
      {R"({"SNMP": {"AuthenticationKey": "Passphrase:x", "TrapCommunity": ""}})",
       R"({"SNMP/AuthenticationKeySet": true, "SNMP/TrapCommunity": null,
           "SNMP/TrapCommunitySet": "absent", "SubscriptionType": "RedfishEvent",
           "DeliveryRetryPolicy": "TerminateAfterRetries", "&&AllowMethod": "GET,HEAD,PATCH,DELETE",
           "SNMP/EncryptionProtocol@Redfish.AllowableValues": ["None", "CBC_DES", "CFB128_AES128"]})"},
      {R"({"SNMP": {"@odata.id": "x\u0000y"}, "HttpHeaders": [{"@odata.id": "/x", "A": "b"}],
           "SyslogFilters": [{"@odata.id": "/x"}, {"@odata.id": "/x", "LowestSeverity": "All"}]})",
       R"({"SNMP/@odata.id": "absent", "HttpHeaders": [{"A": "b"}], "SyslogFilters": [{}, {"LowestSeverity": "All"}]})"},
      {R"({"Protocol": "SyslogTCP", "Destination": "h", "SubscriptionType": "RedfishEvent"})",
       R"({"SubscriptionType": "Syslog", "DeliveryRetryPolicy": "RetryForever"})"},
      {R"({"Destination": "any text", "Context": "redfish-sse:", "&&SSE-CHANNEL": "mine"})",
       R"({"Destination": "any text", "SubscriptionType": "SSE", "&&SSE-CHANNEL": "stream 1", "Actions": "absent", "Status": "absent",
           "DeliveryRetryPolicy": "absent"})"},
  };
  for (const auto& row : cases) {
    FillRedis();
    ListAppend(redis(), "&&" + kCollection + "/Id-1/HttpHeaders", "\"of a deletion that was cut off\"");
    ListAppend(redis(), kMembers, kCollection + "/Id-1");
    Json body = {{"Id", "Id-1"}, {"Protocol", "Redfish"}, {"Destination", "https://c"}};
    body.update(Json::parse(row.body));
    const Json stored = Stored(Create(body));
    const Json expected = Json::parse(row.stored);
    for (const auto& [name, value] : expected.items()) {
      const Json::json_pointer place("/" + name);
      EXPECT_EQ((stored.contains(place) ? stored[place] : "absent").dump(), value.dump()) << name << row.body;
    }
    EXPECT_EQ(Elements(kMembers).size(), 1u);
    std::string index;
    for (const auto& [key, content] : Dump()) {
      if (key.starts_with("&&subs:")) index += key.substr(7) + content + ' ';
    }
    EXPECT_EQ(index, row.index) << row.body;
  }
  EXPECT_EQ(state_->registryPrefixBits.at("New"), 0);
}

TEST_F(CreationTest, AnIdIsGeneratedUntilItIsFree) {
  static uint32_t taken;  // so many draws
  const RandomSource draw = [] { return taken-- > 0 ? 0xABCDu : 0xFEDCBA98u; };
  HashWrite(redis(), kCollection + "/0000ABCD", "a", "1");
  Request request =
      MakeRequest("POSTCREATE", kCollection, {{"Id", ""}, {"Protocol", "Redfish"}, {"Destination", "https://c"}});
  const DatabaseDump before = Dump();
  taken = 11;
  EXPECT_EQ(InShort(CreateEventDestination(request, draw)), "EXCEPTION OperationFailed()");
  EXPECT_EQ(Dump(), before);
  taken = 10;
  request.record.isSse = "True";  // another word
  EXPECT_EQ(CreateEventDestination(request, draw).status, kOkRes);
  EXPECT_EQ(Field("request", "&&Location"), kCollection + "/FEDCBA98");
  EXPECT_EQ(Field(kCollection + "/FEDCBA98", "SubscriptionType"), "\"RedfishEvent\"");
}

TEST_F(CreationTest, RefusalsLeaveRedisAsItWas) {
  const Json fine = {{"Id", "Refused-1"}, {"Protocol", "Redfish"}, {"Destination", "https://c"}};
  Create(fine);
  SendCommand(redis(), "HDEL %s @odata.etag", kCollection.c_str());  // which is taken back as well
  for (const char* lie : {"ok", "FAILURE"}) ListAppend(redis(), kSyslogAnswers + "SyslogTLS-1", lie);
  const std::string exception = "EXCEPTION ExtendedError.1.2.DatabaseOperationError()";
  const std::string withdrawn = "UNAVAILABLE OperationFailed()";
  ListAppend(redis(), kSyslogAnswers + "SyslogTCP-1", "OK");
  Json many;  // nested objects, more than are fetched
  for (int i = 0; i < 1025; ++i) many[std::to_string(i)] = Json::object();
  const struct {
    Json patch;  // null takes a property out; alone, there is no body
    std::string answer;
    std::string failed = "none";  // the commands with this
  } cases[] = {
      {Json::object(), "FAILURE ResourceAlreadyExists(EventDestination, Id, Refused-1) @Id"},
      {Json::object(), exception, "EXISTS"},
      {{}, exception},
      {kBodies["trap"], exception, "State \"Disabled\""},
      {kBodies["messages"], exception, kMembers + " "},
      {{{"Id", "Headers-1"}, {"HttpHeaders", {{{"X", "y"}}}}}, exception, "SET Array-Member-Sequence-ID"},
      {kBodies["TCP"], withdrawn, R"({"Action":"CREATE")"},  // not pushed, not waited for
      {kBodies["TLS"], withdrawn},
      {kBodies["TLS"], withdrawn},
      {kBodies["TLS"], withdrawn},  // silent for 5 seconds
      {{{"SNMP", many}}, "FAILURE PropertyValueError(SNMP) @SNMP"},
      {{{"Id", "Secret-01"}, {"SNMP", {{"EncryptionKey", "no password"}}}}, "EXCEPTION OperationFailed()"},
  };
  TripCounter proxy(Server().SocketPath());
  const RedisContext connection = proxy.Connect();
  const DatabaseDump before = Resources();
  for (const auto& row : cases) {
    if (row.patch.contains("SNMP") && row.patch.size() == 2) std::filesystem::remove(settings_.paths.passwordFile);
    proxy.Reset({.failedText = row.failed});
    const LogCapture log;
    Json body = fine;
    body.merge_patch(row.patch);
    const Answer answer = Handle("POSTCREATE", kCollection, body, connection.get());
    EXPECT_EQ(InShort(answer), row.answer);
    EXPECT_NE(log.Errors().empty() && answer.logText.empty(), answer.status != kFailure) << "not told: " << row.answer;
    EXPECT_EQ(Resources(), before) << row.answer;
    EXPECT_EQ(Field("request", "&&Location"), "") << row.answer;
  }
  EXPECT_EQ(Elements(std::string(kSyslogQueue)).back(), R"({"Action":"DELETE","Id":"SyslogTLS-1"})");
  EXPECT_TRUE(state_->syslogTlsDestinationIds.empty());
}

}  // namespace
}  // namespace event_service
