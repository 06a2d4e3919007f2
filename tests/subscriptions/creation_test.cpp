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

class CreationTest : public SubscriptionsTest {
 protected:
  Answer Post(const Json& body, redisContext* connection = nullptr) {
    Request request = MakeRequest("POSTCREATE", kCollection, body, connection);
    return CreateEventDestination(request);
  }
  /// What is there when the EventGroupId does not count.
  DatabaseDump WithoutCounters() {
    DatabaseDump dump = Resources();
    dump.erase("/redfish/v1/EventService");
    return dump;
  }
};

TEST_F(CreationTest, EveryKindIsStoredAlikeInRedisAndFile) {
  uint32_t count = 0;
  for (const auto& [kind, body] : kBodies.items()) {
    const std::string uri = Create(body);
    ASSERT_EQ(uri, kCollection + "/" + body["Id"].get<std::string>());
    const Json stored = Stored(uri);
    if (kind != "stream") {
      EXPECT_EQ(Json::diff(stored, InFile()[uri]), Json::array()) << kind;
    }
    for (const auto& [name, value] : body.items()) EXPECT_TRUE(name == "SNMP" || stored[name] == value) << kind << name;
    EXPECT_EQ(Elements(kMembers).back(), "&&ObjectRef &&" + uri);
    EXPECT_EQ(state_->subscriptionCount, ++count);
    EXPECT_EQ(Field(kCollection, "Members@odata.count"), std::to_string(count));
    const std::string group = std::to_string(count);
    const Names events = Events();
    ASSERT_EQ(events.size(), 2 * count);
    EXPECT_EQ(events[events.size() - 2], "add " + uri + " EventDestination " + group);
    EXPECT_EQ(events.back(), "change " + kCollection + " EventDestinationCollection " + group);
  }
  EXPECT_FALSE(InFile().contains(kCollection + "/Stream-01"));
  EXPECT_EQ(Stored(kCollection + "/trap1")["Status"]["State"], "Disabled");
  EXPECT_EQ(state_->syslogTlsDestinationIds, Names{"SyslogTLS-1"});
  const Json snmp = Stored(kCollection + "/SNMPv3-1")["SNMP"];
  EXPECT_EQ(decryptHexString(snmp["AuthenticationKey"].get<std::string>(), "secret"), "Passphrase:secret words");
}

TEST_F(CreationTest, WhatClientsSeeFollowsTheSchemas) {
  if (!HaveSchemas()) GTEST_SKIP() << "REDFISH_SCHEMAS names no folder of schemas";
  for (const auto& [kind, body] : kBodies.items()) {
    std::optional<Json> shown = ReadForClient(redis(), Create(body));
    ASSERT_TRUE(shown) << kind;
    shown->erase("HttpHeaders");  // the published pattern of header names forbids the letter s
    EXPECT_EQ(SchemaFaults("EventDestination.v1_11_2.json", "EventDestination", *shown), "") << kind;
  }
}

TEST_F(CreationTest, SomeValuesHaveAStoredFormOfTheirOwn) {
  const struct {
    const char* body;
    const char* stored;
    const char* mask;  // in the index of every origin
  } cases[] = {
      {R"({"HeartbeatIntervalMinutes": 2.5e1, "MessageIds": [null]})",
       R"({"HeartbeatIntervalMinutes": 25, "MessageIds": [null], "MessageIds@odata.count": 1})", "0"},
      {R"({"EventFormatType": null, "SubscriptionType": null, "DeliveryRetryPolicy": null})",
       R"({"EventFormatType": null, "SubscriptionType": null, "DeliveryRetryPolicy": null})", "-1"},
      {R"({"&&SSE-CHANNEL": "mine", "&&CRUDprefix": "mine", "Context": "&&Array Context redisSHAScripts",
           "Context@odata.type": "x", "HttpHeaders": [{"&&x": "1", "A": "&&Object A redisSHAScripts"}]})",
       R"({"&&SSE-CHANNEL": null, "&&CRUDprefix": "&&/redfish/v1/EventDestination", "Context@odata.type": null,
           "Context": "&&Array Context redisSHAScripts", "HttpHeaders": [{"A": "&&Object A redisSHAScripts"}]})",
       "-1"},
  };
  for (const auto& row : cases) {
    FillRedis();
    Json body = {{"Id", "Special-1"}, {"Protocol", "Redfish"}, {"Destination", "https://c"}};
    body.update(Json::parse(row.body));
    const Json stored = Stored(Create(body));
    const Json expected = Json::parse(row.stored);
    for (const auto& [name, value] : expected.items()) {
      EXPECT_EQ(stored.value(name, Json()).dump(), value.dump()) << name;
    }
    EXPECT_EQ(Field("&&subs:*", "Special-1"), row.mask) << row.body;
  }
}

TEST_F(CreationTest, AnIdIsGeneratedUntilItIsFree) {
  static uint32_t draws;
  draws = 0;
  Request request = MakeRequest("POSTCREATE", kCollection, {{"Protocol", "Redfish"}, {"Destination", "https://c"}});
  HashWrite(redis(), kCollection + "/0000ABCD", "a", "1");
  EXPECT_EQ(CreateEventDestination(request, [] { return draws++ < 10 ? 0xABCDu : 0xFEDCBA98u; }).status, kOkRes);
  EXPECT_EQ(Field("request", "&&Location"), kCollection + "/FEDCBA98");

  const DatabaseDump before = Dump();
  EXPECT_EQ(InShort(CreateEventDestination(request, [] { return 0xABCDu; })), "EXCEPTION OperationFailed()");
  EXPECT_EQ(Dump(), before);

  TripCounter proxy(Server().SocketPath());
  const RedisContext connection = proxy.Connect();
  request.redis = connection.get();
  draws = 10;
  proxy.Reset();
  proxy.FailCommandsWith("EXISTS " + kCollection + "/FEDCBA98");
  EXPECT_EQ(CreateEventDestination(request, [] { return draws++ < 11 ? 0xABCDu : 0xFEDCBA98u; }).logText,
            "DatabaseOperationError: Failed to get request data from database.");
  EXPECT_EQ(Dump(), before);
}

TEST_F(CreationTest, RefusalsLeaveRedisAsItWas) {
  const Json fine = {{"Id", "Refused-1"}, {"Protocol", "Redfish"}, {"Destination", "https://c"}};
  Create(fine);
  const struct {
    Json patch;  // null takes a property out
    const char* answer;
  } cases[] = {
      {{}, "FAILURE ResourceAlreadyExists(EventDestination, Id, Refused-1) @Id"},
      {{{"Id", 5}}, "FAILURE PropertyValueTypeError(5, Id) @Id"},
      {{{"Id", "a/../b c*"}}, "FAILURE PropertyValueFormatError(a/../b c*, Id) @Id"},
      {{{"Protocol", nullptr}}, "EXCEPTION ExtendedError.1.2.DatabaseOperationError()"},
      {{{"Destination", nullptr}}, "FAILURE CreateFailedMissingReqProperties(Destination) @Destination"},
      {{{"MessageIds", {"&&Array x"}}}, "FAILURE PropertyValueTypeError(&&Array x, MessageIds/0) @MessageIds/0"},
      {{{"Id", nullptr}, {"Protocol", nullptr}, {"Destination", nullptr}, {"&&CRUDprefix", "x"}},
       "EXCEPTION ExtendedError.1.2.DatabaseOperationError()"},
  };
  const DatabaseDump before = Resources();
  for (const auto& row : cases) {
    Json body = fine;
    body.merge_patch(row.patch.is_null() ? Json::object() : row.patch);
    EXPECT_EQ(InShort(Post(body)), row.answer);
    EXPECT_EQ(Resources(), before) << row.answer;
  }
  EXPECT_EQ(Post(Json()).logText, "DatabaseOperationError: Failed to get request data from database.");
}

TEST_F(CreationTest, SyslogThatDoesNotAgreeIsWithdrawn) {
  const DatabaseDump before = Resources();
  for (const char* answer : {"ok", "FAILURE", ""}) {
    if (*answer != '\0') AnswerSyslog("SyslogTLS-1", answer);  // the last one is silent for 5 seconds
    const LogCapture log;
    EXPECT_EQ(InShort(Post(kBodies["TLS"])), "UNAVAILABLE OperationFailed()");
    EXPECT_EQ(log.Errors(), Names{"Failed to create syslog subscription."});
    EXPECT_EQ(Elements(std::string(kSyslogQueue)),
              (Names{R"({"Action":"CREATE","Destination":"syslog://[::1]:6514","Id":"SyslogTLS-1","Type":"TLS"})",
                     R"({"Action":"DELETE","Id":"SyslogTLS-1"})"}));
    KeyDelete(redis(), kSyslogQueue);
    EXPECT_EQ(Resources(), before);
    EXPECT_TRUE(state_->syslogTlsDestinationIds.empty());
  }
}

/// Fails the n-th command of a creation, for every n, and expects either nothing or a whole subscription.
TEST_F(CreationTest, AFailedCommandLeavesAllOrNothing) {
  TripCounter proxy(Server().SocketPath());
  const Json body = Json::parse(R"({"Id": "trap-tls", "Protocol": "SyslogTLS", "Destination": "10.0.0.2",
      "HttpHeaders": [{"A": "b"}], "OriginResources": [{"@odata.id": "/redfish/v1/A"}]})");
  const RedisContext connection = proxy.Connect();
  const DatabaseDump before = WithoutCounters();
  size_t commands = 1;
  for (size_t n = 1; n <= commands; ++n) {
    FillRedis();
    state_->subscriptionCount = 0;
    state_->syslogTlsDestinationIds.clear();
    AnswerSyslog("trap-tls");
    const LogCapture log;
    const StreamCapture store(STDERR_FILENO);
    Request request = MakeRequest("POSTCREATE", kCollection, body, connection.get());
    proxy.Reset();
    proxy.FailCommand(n);
    const Answer answer = CreateEventDestination(request);
    commands = std::max(commands, proxy.commands());
    const bool isThere = KeyExists(redis(), kCollection + "/trap-tls");
    EXPECT_EQ(state_->syslogTlsDestinationIds.size(), isThere ? 1u : 0u) << n;
    if (isThere) {
      EXPECT_TRUE(KeyExists(redis(), "&&" + kCollection + "/trap-tls/HttpHeaders")) << n;
      EXPECT_EQ(Elements(kMembers).size(), 1u) << n;
      EXPECT_EQ(answer.status == kOkRes, state_->subscriptionCount == 1) << n;
    } else {
      EXPECT_TRUE(answer.status == kException || answer.status == kUnavailable) << n;
      EXPECT_EQ(Field("request", "&&Location"), "") << n;
      EXPECT_EQ(WithoutCounters(), before) << n << " " << answer.logText;
    }
  }
  EXPECT_GT(commands, 60u);
}

TEST_F(CreationTest, NothingIsReplacedOrKeptByHalvesWhenRedisDoesNotTell) {
  TripCounter proxy(Server().SocketPath());
  const struct {
    const char* kind;
    std::string failed;  // the commands with this
    const char* logText;
    Names errors = {};
  } cases[] = {
      {"Redfish", "EXISTS", "DatabaseOperationError: Failed to get request data from database."},
      {"trap", "State \"Disabled\"", "DatabaseOperationError: Failed to set State."},
      {"messages",
       kMembers + ' ',
       "",
       {"DatabaseOperationError: Failed to create event destination object.",
        "Failed to delete data of event destination whencreate failed."}},
  };
  Create(kBodies["Redfish"]);
  const DatabaseDump before = WithoutCounters();
  for (const auto& row : cases) {
    const RedisContext connection = proxy.Connect();
    const LogCapture log;
    proxy.Reset();
    proxy.FailCommandsWith(row.failed);
    EXPECT_EQ(Post(kBodies[row.kind], connection.get()).logText, row.logText);
    EXPECT_EQ(log.Errors(), row.errors);
    EXPECT_EQ(WithoutCounters(), before);
  }
}

TEST_F(CreationTest, TheLimitCountsSigned) {
  Request request = MakeRequest("POSTCREATE", kCollection);
  const std::pair<uint32_t, bool> cases[] = {{0, true}, {99, true}, {100, false}, {101, false}, {4294967295u, true}};
  for (const auto& [count, passes] : cases) {
    state_->subscriptionCount = count;
    EXPECT_EQ(!CheckSubscriptionLimit(request), passes) << count;
  }
}

}  // namespace
}  // namespace event_service
