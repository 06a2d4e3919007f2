/// Creations against a real Redis and a real database file.
#include "subscriptions/creation.h"

#include "foundation/durable_file.h"
#include "platform/data_encrypt/data_encrypt.h"
#include "subscriptions/syslog_exchange.h"
#include "tests/requests/schema_check.h"
#include "tests/subscriptions/subscriptions_fixture.h"
#include "tests/support/trip_counter.h"
#include "tools/front_end/front_end.h"

namespace event_service {
namespace {

using Names = std::vector<std::string>;

class CreationTest : public SubscriptionsTest {};

TEST_F(CreationTest, EveryKindIsStoredAlikeInRedisAndFile) {
  uint32_t count = 0;
  for (const CreationBody& row : kCreationBodies) {
    const Json body = Json::parse(row.text);
    const std::string id = body["Id"];
    const std::string uri = Create(body);
    ASSERT_EQ(uri, kCollection + "/" + id) << row.name;
    const Json stored = Stored(uri);
    EXPECT_EQ(Json::diff(stored, InFile()[uri]), Json::array()) << row.name;
    for (const auto& [name, value] : body.items()) {
      const bool isChanged = name == "SNMP" || (name == "DeliveryRetryPolicy" && !value.is_null());
      EXPECT_TRUE(isChanged || stored[name] == value) << row.name << " " << name;
    }
    EXPECT_EQ(stored["&&CRUDprefix"], "&&/redfish/v1/EventDestination");
    EXPECT_EQ(stored["&&Privileges"], "ConfigureManager");
    EXPECT_EQ(Field(uri, "&&AllowMethod"), "GET,HEAD,PATCH,DELETE");
    EXPECT_EQ(Elements("&&" + kCollection + "/Members").back(), "&&ObjectRef &&" + uri);
    EXPECT_EQ(state_->subscriptionCount, ++count);
    EXPECT_EQ(Field(kCollection, "Members@odata.count"), std::to_string(count));
    EXPECT_EQ(Field(uri, "Actions"), "&&Object Actions &&" + uri + "/Actions");
    const std::string group = std::to_string(count);
    const Names events = Events();
    ASSERT_EQ(events.size(), 2 * count);
    EXPECT_EQ(events[events.size() - 2], "add " + uri + " EventDestination " + group);
    EXPECT_EQ(events.back(), "change " + kCollection + " EventDestinationCollection " + group);
  }
  EXPECT_EQ(Field("&&subs:Systems/1", "Redfish-1"), "3");
  EXPECT_EQ(Field("&&subs:Systems/1/*", "Redfish-1"), "3");
  EXPECT_EQ(Field("&&subs:*", "Messages-1"), "1");
  EXPECT_EQ(Field("&&subs:*", "SNMPv3-1"), "-1");
  EXPECT_EQ(Field("&&subs:*", "Metrics-1"), "");
  EXPECT_EQ(Field("&&subs:MetricReport", "Total_Num_Subscriber"), "1");
  EXPECT_EQ(Stored(kCollection + "/trap1")["Status"]["State"], "Disabled");
  EXPECT_EQ(Stored(kCollection + "/SNMPv3-1")["Status"]["State"], "Enabled");
  EXPECT_EQ(state_->syslogTlsDestinationIds, Names{"SyslogTLS-1"});
  const Json key = Stored(kCollection + "/SNMPv3-1")["SNMP"]["AuthenticationKey"];
  EXPECT_EQ(decryptHexString(key.get<std::string>(), FirstLineOf(settings_.paths.passwordFile)),
            "Passphrase:secret words");
}

TEST_F(CreationTest, WhatClientsSeeFollowsTheSchemas) {
  if (!HaveSchemas()) GTEST_SKIP() << "REDFISH_SCHEMAS names no folder of schemas";
  for (const CreationBody& row : kCreationBodies) {
    const auto shown = ReadForClient(redis(), Create(Json::parse(row.text)));
    ASSERT_TRUE(shown) << row.name;
    Json document = *shown;
    document.erase("HttpHeaders");  // the published pattern of header names forbids the letter s
    EXPECT_EQ(SchemaFaults("EventDestination.v1_11_2.json", "EventDestination", document), "") << row.name;
  }
  const auto stream = ReadForClient(redis(), CreateStream("Stream-01"));
  ASSERT_TRUE(stream);
  EXPECT_EQ(SchemaFaults("EventDestination.v1_11_2.json", "EventDestination", *stream), "");
}

TEST_F(CreationTest, AStreamStaysOutOfTheFile) {
  const std::string uri = CreateStream("Stream-01");
  const Json stored = Stored(uri);
  EXPECT_EQ(stored["SubscriptionType"], "SSE");
  EXPECT_EQ(Field(uri, "&&SSE-CHANNEL"), "stream 1");
  EXPECT_TRUE(Field(uri, "&&TimeStamp").starts_with("20"));
  EXPECT_FALSE(stored.contains("Status"));
  HashWrite(redis(), kCollection, "@odata.etag", "\"\\\"0\\\"\"");  // the file's copy is as old as the file
  EXPECT_TRUE(InFile().empty());
}

TEST_F(CreationTest, AnIdIsGeneratedUntilItIsFree) {
  const Json body = {{"Protocol", "Redfish"}, {"Destination", "https://c"}};
  static uint32_t draws;
  draws = 0;
  Request request = MakeRequest("POSTCREATE", kCollection, body);
  HashWrite(redis(), kCollection + "/0000ABCD", "a", "1");
  EXPECT_EQ(CreateEventDestination(request, [] { return draws++ < 10 ? 0xABCDu : 0xFEDCBA98u; }).status, kOkRes);
  EXPECT_EQ(Field("request", "&&Location"), kCollection + "/FEDCBA98");

  const DatabaseDump before = Dump();
  const LogCapture log;
  const Answer answer = CreateEventDestination(request, [] { return 0xABCDu; });
  EXPECT_EQ(answer.status, kException);
  EXPECT_EQ(answer.messages.front().id, "Base.1.12.OperationFailed");
  EXPECT_EQ(Dump(), before);
}

TEST_F(CreationTest, RefusalsLeaveRedisAsItWas) {
  Create(Json::parse(kCreationBodies.front().text));
  Create(Json::parse(kCreationBodies.back().text));
  const struct {
    const char* body;
    std::string_view status;
    const char* messageId;
    Names args;
  } cases[] = {
      {R"({"Id": "Redfish-1", "Protocol": "Redfish", "Destination": "https://c"})",
       kFailure,
       "Base.1.12.ResourceAlreadyExists",
       {"EventDestination", "Id", "Redfish-1"}},
      {R"({"Id": 5, "Protocol": "Redfish", "Destination": "https://c"})",
       kFailure,
       "Base.1.12.PropertyValueTypeError",
       {"5", "Id"}},
      {R"({"Id": "a/../b c*", "Protocol": "Redfish", "Destination": "https://c"})",
       kFailure,
       "Base.1.12.PropertyValueFormatError",
       {"a/../b c*", "Id"}},
      {R"({"Destination": "https://c"})", kException, "ExtendedError.1.2.DatabaseOperationError", {}},
      {R"({"Protocol": "Redfish"})", kFailure, "Base.1.12.CreateFailedMissingReqProperties", {"Destination"}},
      {R"({"Protocol": "Redfish", "Destination": "https://c", "MessageIds": ["&&Array &&request/RequestData"]})",
       kFailure,
       "Base.1.12.PropertyValueTypeError",
       {"&&Array &&request/RequestData", "MessageIds/0"}},
      {R"({"&&CRUDprefix": "x"})", kException, "ExtendedError.1.2.DatabaseOperationError", {}},
  };
  for (const auto& row : cases) {
    Request request = MakeRequest("POSTCREATE", kCollection, Json::parse(row.body));
    const DatabaseDump before = Dump();
    const Answer answer = CreateEventDestination(request);
    EXPECT_EQ(answer.status, row.status) << row.body;
    ASSERT_EQ(answer.messages.size(), 1u) << row.body;
    EXPECT_EQ(answer.messages.front().id, row.messageId) << row.body;
    EXPECT_EQ(answer.messages.front().args, row.args) << row.body;
    EXPECT_EQ(Dump(), before) << row.body;
  }
  Request bodiless = MakeRequest("POSTCREATE", kCollection);
  EXPECT_EQ(CreateEventDestination(bodiless).logText,
            "DatabaseOperationError: Failed to get request data from database.");
}

TEST_F(CreationTest, ControlFieldsOfAClientDoNotGetThrough) {
  const std::string uri = Create(Json::parse(
      R"({"Id": "Control-1", "Protocol": "Redfish", "Destination": "https://c", "&&SSE-CHANNEL": "mine",
          "&&CRUDprefix": "mine", "&&Privileges": "mine", "Context": "&&Array Context redisSHAScripts",
          "Context@odata.type": "x", "HttpHeaders": [{"&&x": "1", "A": "&&Object A redisSHAScripts"}]})"));
  const Json stored = Stored(uri);
  EXPECT_FALSE(stored.contains("&&SSE-CHANNEL") || stored.contains("Context@odata.type"));
  EXPECT_EQ(stored["&&CRUDprefix"], "&&/redfish/v1/EventDestination");
  EXPECT_EQ(stored["&&Privileges"], "ConfigureManager");
  EXPECT_EQ(stored["Context"], "&&Array Context redisSHAScripts");
  EXPECT_EQ(stored["HttpHeaders"], Json::parse(R"([{"A": "&&Object A redisSHAScripts"}])"));
}

TEST_F(CreationTest, SyslogThatDoesNotAgreeIsWithdrawn) {
  const Json body = Json::parse(kCreationBodies.back().text);
  for (const char* answer : {"ok", "FAILURE", ""}) {
    if (*answer != '\0') AnswerSyslog("SyslogTLS-1", answer);  // the last one is silent for 5 seconds
    Request request = MakeRequest("POSTCREATE", kCollection, body);
    DatabaseDump before = Dump();
    const LogCapture log;
    const Answer refusal = CreateEventDestination(request);
    EXPECT_EQ(refusal.status, kUnavailable);
    EXPECT_EQ(refusal.messages.front().id, "Base.1.12.OperationFailed");
    EXPECT_EQ(log.Errors(), Names{"Failed to create syslog subscription."});
    EXPECT_EQ(Elements(std::string(kSyslogQueue)),
              (Names{R"({"Action":"CREATE","Destination":"syslog://[::1]:6514","Id":"SyslogTLS-1","Type":"TLS"})",
                     R"({"Action":"DELETE","Id":"SyslogTLS-1"})"}));
    KeyDelete(redis(), kSyslogQueue);
    before.erase(std::string(kSyslogQueue) + "/SyslogTLS-1");
    EXPECT_EQ(Dump(), before);
    EXPECT_TRUE(state_->syslogTlsDestinationIds.empty());
  }
}

/// Fails the n-th command of a creation, for every n, and expects either nothing or a whole subscription.
TEST_F(CreationTest, AFailedCommandLeavesAllOrNothing) {
  TripCounter proxy(Server().SocketPath());
  const RedisContext connection = proxy.Connect();
  const char* const body = R"({"Id": "trap-tls", "Protocol": "SyslogTLS", "Destination": "10.0.0.2", "HttpHeaders":
      [{"A": "b"}], "OriginResources": [{"@odata.id": "/redfish/v1/A"}]})";
  size_t commands = 1;
  for (size_t n = 1; n <= commands; ++n) {
    FillRedis();
    state_->subscriptionCount = 0;
    state_->syslogTlsDestinationIds.clear();
    AnswerSyslog("trap-tls");
    Request request = MakeRequest("POSTCREATE", kCollection, Json::parse(body), connection.get());
    DatabaseDump before = DumpWithoutCounters();
    const LogCapture log;
    const StreamCapture store(STDERR_FILENO);
    proxy.Reset();
    proxy.FailCommand(n);
    const Answer answer = CreateEventDestination(request);
    commands = std::max(commands, proxy.commands());
    const bool isThere = KeyExists(redis(), kCollection + "/trap-tls");
    if (isThere) {
      EXPECT_TRUE(KeyExists(redis(), "&&" + kCollection + "/trap-tls/HttpHeaders")) << n;
      EXPECT_EQ(Elements("&&" + kCollection + "/Members").size(), 1u) << n;
      EXPECT_EQ(state_->syslogTlsDestinationIds.size(), 1u) << n;
      EXPECT_EQ(answer.status == kOkRes, state_->subscriptionCount == 1) << n;
      continue;
    }
    EXPECT_TRUE(answer.status == kException || answer.status == kUnavailable) << n;
    EXPECT_TRUE(state_->syslogTlsDestinationIds.empty()) << n;
    before.erase(std::string(kSyslogQueue) + "/trap-tls");
    DatabaseDump after = DumpWithoutCounters();
    after.erase(std::string(kSyslogQueue));
    after.erase(std::string(kSyslogQueue) + "/trap-tls");
    EXPECT_EQ(after, before) << n << " " << answer.logText;
  }
  EXPECT_GT(commands, 60u);
}

TEST_F(CreationTest, ATrapWhoseStateCannotBeSetIsTakenBack) {
  TripCounter proxy(Server().SocketPath());
  const RedisContext connection = proxy.Connect();
  Request request = MakeRequest("POSTCREATE", kCollection, Json::parse(kCreationBodies[3].text), connection.get());
  const DatabaseDump before = DumpWithoutCounters();
  proxy.Reset();
  proxy.FailCommandsWith("State \"Disabled\"");
  const LogCapture log;
  EXPECT_EQ(CreateEventDestination(request).logText, "DatabaseOperationError: Failed to set State.");
  EXPECT_EQ(log.Errors(), Names{});
  EXPECT_EQ(DumpWithoutCounters(), before);
}

TEST_F(CreationTest, TheLimitCountsSigned) {
  Request request = MakeRequest("POSTCREATE", kCollection);
  const struct {
    uint32_t count;
    bool passes;
  } cases[] = {{0, true}, {99, true}, {100, false}, {101, false}, {4294967295u, true}};
  for (const auto& row : cases) {
    state_->subscriptionCount = row.count;
    EXPECT_EQ(!CheckSubscriptionLimit(request), row.passes) << row.count;
  }
}

}  // namespace
}  // namespace event_service
