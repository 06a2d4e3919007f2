/// Subscriptions of every kind from their creation to their end, and ends that go wrong.
#include "subscriptions/deletion.h"

#include <algorithm>

#include "platform/data_encrypt/data_encrypt.h"
#include "service/redis_keys.h"
#include "subscriptions/get_preparation.h"
#include "subscriptions/resource/member_weight.h"
#include "subscriptions/syslog_exchange.h"
#include "tests/subscriptions/subscriptions_fixture.h"
#include "tests/support/trip_counter.h"

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
  /// What GET shows as sensitive, and whether it says that there is a key.
  void ExpectPreparedForGet(const std::string& uri, const Json& body) {
    for (int round = 0; round < 2; ++round) PrepareGet(MakeRequest("GET", uri));
    std::string sensitive = ",SNMP/TrapCommunity,SNMP/AuthenticationKey,SNMP/EncryptionKey";
    if (uri.ends_with("Stream-01")) sensitive.clear();
    if (body.contains("HttpHeaders")) sensitive += ",HttpHeaders";
    EXPECT_EQ("," + Field(uri, "&&SensitiveData"), sensitive);
    const bool hasKey = body.contains("/SNMP/EncryptionKey"_json_pointer);
    EXPECT_EQ(Field("&&" + uri + "/SNMP", "EncryptionKeySet"), !body.contains("SNMP") ? "" : hasKey ? "true" : "false");
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
    ExpectPreparedForGet(uri, body);

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

}  // namespace
}  // namespace event_service
