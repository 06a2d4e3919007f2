/// Subscriptions of every kind from their creation to their end, and creations and ends that go wrong.
#include <algorithm>
#include <filesystem>

#include "platform/data_encrypt/data_encrypt.h"
#include "service/redis_keys.h"
#include "subscriptions/get_preparation.h"
#include "subscriptions/resource/member_weight.h"
#include "tests/requests/schema_check.h"
#include "tests/subscriptions/subscriptions_fixture.h"
#include "tests/support/trip_counter.h"
#include "tools/front_end/front_end.h"

namespace event_service {
namespace {

class LifeTest : public SubscriptionsTest {
 protected:
  /// What is there beside the subscriptions' counters and what was said about them.
  DatabaseDump WithoutNews() {
    HashWrite(redis(), kCollection, "@odata.etag", "\"0\"");
    DatabaseDump dump = Resources();
    std::erase_if(dump, [](const auto& entry) {
      const std::string& key = entry.first;
      return key == "events" || key == "queued" || key == "&&subs:MetricReport" || key == "response" ||
             key.starts_with("&&/redfish/v1/EventService/Actions/");
    });
    return dump;
  }
};

TEST_F(LifeTest, EveryKindIsStoredAlikeInRedisAndFileAndLeavesNothing) {
  Create({{"Id", "Bystander"}, {"Protocol", "Redfish"}, {"Destination", "https://c"}});
  for (const auto& [kind, body] : kBodies.items()) {
    SCOPED_TRACE(kind);
    const DatabaseDump before = WithoutNews();
    const std::string uri = Create(body);
    Json stored = Stored(uri);
    EXPECT_EQ(uri, kCollection + "/" + body["Id"].get<std::string>());
    EXPECT_EQ(InFile()["Members"].size(), kind == "stream" ? 1u : 2u);
    ExpectCount(2);
    ExpectEvents("add", uri);
    EXPECT_EQ(Elements(kMembers).back(), "&&ObjectRef &&" + uri);
    if (kind == "SNMPv3") {
      EXPECT_EQ(decryptHexString(stored["SNMP"]["AuthenticationKey"].get<std::string>(), "secret"), "Passphrase:a b");
    }
    RedisPipeline weighing(redis());
    std::optional<PropertyWeights> weights;
    AskWeights(weighing, uri, weights);
    weighing.Execute();
    EXPECT_EQ(weights, WeightsOf(stored));
    for (const auto& [name, value] : body.items()) EXPECT_TRUE(name == "SNMP" || stored[name] == value) << name;
    EXPECT_TRUE(kind == "stream" || stored["Status"]["State"] == (kind == "trap" ? "Disabled" : "Enabled"));
    EXPECT_EQ(state_->syslogTlsDestinationIds.size(), kind == "TLS" ? 1u : 0u);
    EXPECT_EQ(Field("&&subs:MetricReport", "Total_Num_Subscriber") == "1", kind == "metrics");
    for (int round = 0; round < 2; ++round) PrepareGet(MakeRequest("GET", uri));
    std::string sensitive = kind == "stream" ? "" : ",SNMP/TrapCommunity,SNMP/AuthenticationKey,SNMP/EncryptionKey";
    if (body.contains("HttpHeaders")) sensitive += ",HttpHeaders";
    EXPECT_EQ("," + Field(uri, "&&SensitiveData"), sensitive);
    const char* const hasKey = body.contains("/SNMP/EncryptionKey"_json_pointer) ? "true" : "false";
    EXPECT_EQ(Field("&&" + uri + "/SNMP", "EncryptionKeySet"), body.contains("SNMP") ? hasKey : "");
    Json shown = ReadForClient(redis(), uri).value();
    shown.erase("HttpHeaders");  // the published pattern of header names forbids the letter s
    EXPECT_EQ(SchemaFaults("EventDestination.v1_11_2.json", "EventDestination", shown), "");

    const bool isBroken = kind == "messages";  // it cannot be read, and is deleted all the same
    if (isBroken) HashWrite(redis(), uri, "Protocol", "no JSON");
    if (kind == "Redfish") ListAppend(redis(), kMembers, uri);  // once more, in the form of another loader
    EXPECT_EQ(Handle("DELETE", kind == "stream" ? "SSE-ALL" : uri).status, isBroken ? kException : "");
    EXPECT_TRUE(isBroken || Field("response", "&&ReturnStatus") == "OK_EMPTY");
    EXPECT_EQ(InFile()["Members"].size(), 1u);
    ExpectCount(1);
    ExpectEvents("remove", uri);
    EXPECT_TRUE(state_->syslogTlsDestinationIds.empty());
    EXPECT_NE(Field("&&subs:MetricReport", "Total_Num_Subscriber"), "1");
    Json terminated = Stored(Elements("queued").back());
    EXPECT_EQ(terminated["&&EventDestination"], uri);
    EXPECT_EQ(terminated.value("Context", "none"), body.value("Context", "none"));
    EXPECT_EQ(terminated["Events"][0]["MessageId"], "Base.1.12.SubscriptionTerminated");
    EXPECT_EQ(terminated["Events"][0]["OriginOfCondition"]["@odata.id"], uri);
    EXPECT_EQ(WithoutNews(), before);
  }
  EXPECT_EQ(Elements(std::string(kSyslogQueue)),
            (Names{R"({"Action":"CREATE","Destination":"10.0.0.2:514","Facilities":["Kern","Local7"],)"
                   R"("Id":"SyslogTCP-1","Severity":"Error","Type":"TCP"})",
                   R"({"Action":"DELETE","Id":"SyslogTCP-1"})",
                   R"({"Action":"CREATE","Destination":"syslog://[::1]:6514","Id":"SyslogTLS-1","Type":"TLS"})",
                   R"({"Action":"DELETE","Id":"SyslogTLS-1"})"}));
}

TEST_F(LifeTest, WhatIsNoMemberStaysAndLeavesTheCollection) {
  const std::string uri = Create(kBodies["Redfish"]);
  KeyDelete(redis(), uri);
  ListAppend(redis(), uri, "x");
  TripCounter proxy(Server().SocketPath());
  const RedisContext connection = proxy.Connect();
  const LogCapture log;
  const Json body = {{"Status", {{"State", "Disabled"}}}};
  state_->subscriptionCount = 0;  // it must not pass below
  PrepareGet(MakeRequest("GET", uri));
  for (const char* method : {"PATCH", "POSTACTION", "STATE", "DELETE"}) {
    EXPECT_EQ(Handle(method, uri, body).status, kNotFound) << method;
  }
  EXPECT_EQ(log.Errors(), Names{});
  EXPECT_EQ(Elements(uri), Names{"x"});
  EXPECT_EQ(KeyListing(redis(), "&&" + EscapeGlob(uri) + "/*"), Names{});
  EXPECT_EQ(KeyListing(redis(), "&&subs:*"), Names{});
  EXPECT_TRUE(InFile()["Members"].empty());
  ExpectCount(0);
  proxy.Reset({.failedText = "HLEN"});
  EXPECT_EQ(Handle("POSTACTION", uri, body, connection.get()).status, kException);
}

TEST_F(LifeTest, AFailedCommandLeavesOneStepUndoneAtMostAndIsTold) {
  const Json body = Json::parse(R"({"Id": "trap-tls", "Protocol": "SyslogTLS", "Destination": "10.0.0.2",
      "HttpHeaders": [{"A": "b"}], "OriginResources": [{"@odata.id": "/redfish/v1/A"}], "SyslogFilters": [{}]})");
  const Json change = Json::parse(R"({"Context": "new", "SyslogFilters": [{}, {"LowestSeverity": "All"}]})");
  const std::string uri = kCollection + "/trap-tls";
  TripCounter proxy(Server().SocketPath());
  for (const std::string method : {"POSTCREATE", "PATCH", "DELETE"}) {
    const bool isCreation = method == "POSTCREATE";
    size_t commands = 0;  // known after the first round, in which nothing fails
    for (size_t n = 0; n <= 2 * commands + 1; ++n) {
      const bool isCut = n % 2 == 1;  // nothing can follow then or be taken back
      SCOPED_TRACE(method + (isCut ? " cut before command " : ", failed command ") + std::to_string(n / 2));
      FillRedis();
      state_.emplace();
      if (!isCreation) Create(body);
      const DatabaseDump before = Resources();
      ListAppend(redis(), std::string(kSyslogQueue) + "/trap-tls", "OK");
      const RedisContext connection = proxy.Connect();
      proxy.Reset(isCut ? RedisFaults{.cutAfter = n / 2 - 1} : RedisFaults{.failedCommand = n / 2});
      const LogCapture log;
      const StreamCapture store(STDERR_FILENO);
      const Json& sent = isCreation ? body : method == "PATCH" ? change : Json();
      const Answer answer = Handle(method, isCreation ? kCollection : uri, sent, connection.get());
      commands = std::max(commands, proxy.commands().size());

      const bool isRefused = answer.status == kException || answer.status == kUnavailable;
      const bool isTold = !log.Errors().empty() || !answer.logText.empty();
      const bool isListed = !Elements(kMembers).empty(), hasHeaders = KeyExists(redis(), "&&" + uri + "/HttpHeaders");
      const bool hasKeys = !KeyListing(redis(), "*Subscriptions/trap-tls*").empty();
      const std::map<std::string, std::vector<bool>> undoneSteps = {
          {"POSTCREATE", {!isListed, !hasHeaders}},
          {"PATCH", {Field(uri, "Context") != "\"new\"", Elements("&&" + uri + "/SyslogFilters").size() < 2}},
          {"DELETE", {isListed, hasKeys, !KeyListing(redis(), "&&subs:*").empty()}}};
      const auto undone = std::ranges::count(undoneSteps.at(method), true);
      EXPECT_TRUE(isRefused ? isTold : undone == 0);
      EXPECT_TRUE(isTold || method != "DELETE" || !Elements("queued").empty());
      if (isCreation) {
        EXPECT_TRUE(!isListed || hasHeaders) << "a part is listed";
        EXPECT_TRUE(Field(uri, "&&CRUDprefix").empty() || isListed) << "a part is whole";
        EXPECT_EQ(isRefused, state_->subscriptionCount == 0);
      }
      if (isCut) continue;
      const size_t known = isCreation ? state_->syslogTlsDestinationIds.size() : state_->subscriptionCount;
      EXPECT_EQ(known, isListed ? 1u : 0u);
      EXPECT_TRUE(undone == 0 || (undone == 1 && !isCreation) || Resources() == before);
    }
  }
}

using CreationTest = SubscriptionsTest;

const std::string kSyslogAnswers = std::string(kSyslogQueue) + "/";

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
