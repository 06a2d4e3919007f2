/// What happens to a subscription between its creation and its end: PATCH, suspension, resume.
#include <thread>

#include "platform/data_encrypt/data_encrypt.h"
#include "subscriptions/get_preparation.h"
#include "tests/subscriptions/subscriptions_fixture.h"
#include "tests/support/trip_counter.h"

namespace event_service {
namespace {

class ChangesTest : public SubscriptionsTest {
 protected:
  std::string Patch(const std::string& uri, const char* body) {
    const Answer answer = Handle("PATCH", uri, Json::parse(body));
    return InShort(answer) + (answer.body.empty() ? "" : " and no operation");
  }
};

TEST_F(ChangesTest, APatchChangesRedisAndFileAlikeOrNothingAtAll) {
  Json member = kBodies["Redfish"];
  member.update(Json::parse(R"({"VerifyCertificate": false, "DeliveryRetryPolicy": "RetryForever",
      "SyslogFilters": [{"LogFacilities": ["Kern"]}, {"LowestSeverity": "All"}],
      "SNMP": {"AuthenticationProtocol": "HMAC_MD5"}})"));
  const std::string uri = Create(member);
  const char* const mixed = R"({"Context": "e", "Destination": 5, "Foo": 1,
      "SNMP": {"Bar": 1, "EncryptionKeySet": true, "EncryptionProtocol": "None"}})";
  const char* const mixedAnswer =
      "OK_RES PropertyNotWritable(Destination) @Destination, PropertyUnknown(Foo) @Foo, PropertyUnknown(SNMP/Bar) "
      "@SNMP/Bar, PropertyNotWritable(SNMP/EncryptionKeySet) @SNMP/EncryptionKeySet";
  const struct {
    const char* body;
    const char* changed = nullptr;  // null: nothing at all
    const char* answer = "OK_RES Success()";
  } cases[] = {
      {R"({"Context": "d", "DeliveryRetryPolicy": "RetryForever"})", R"({"Context": "d"})"},
      {R"({"Context": null, "VerifyCertificate": true})", R"({"Context": null, "VerifyCertificate": true})"},
      {R"({"HttpHeaders": [{}, null, {"A": "1"}]})",
       R"({"HttpHeaders": [{"X-Token": "secret"}, {"A": "1"}], "HttpHeaders@odata.count": 2,
           "&&SensitiveData": "SNMP/TrapCommunity,SNMP/AuthenticationKey,SNMP/EncryptionKey,HttpHeaders"})"},
      {R"({"HttpHeaders": [{}, {"A": "1"}, {}]})", "{}"},  // that a secret stays the same is not told
      {R"({"HttpHeaders": [null, null, null]})", R"({"HttpHeaders": [], "HttpHeaders@odata.count": 0})"},
      {R"({"SyslogFilters": [{}, null, {"LogFacilities": ["User"], "x@odata.count": 1}]})",
       R"({"SyslogFilters": [{"LogFacilities": ["Kern"]}, {"LogFacilities": ["User"]}]})"},
      {mixed, R"({"Context": "e", "SNMP": {"EncryptionProtocol": "None"}})", mixedAnswer},
      {mixed, nullptr, mixedAnswer},
  };
  for (const auto& row : cases) {
    Json expected = Stored(uri);
    const DatabaseDump before = Resources();
    const std::string formerCollectionEtag = Field(kCollection, "@odata.etag");
    EXPECT_EQ(Patch(uri, row.body), row.answer) << row.body;
    if (row.changed == nullptr) {
      EXPECT_EQ(Resources(), before) << row.body;
      continue;
    }
    const Json stored = Stored(uri);
    expected.update(Json::parse(row.changed), /*merge_objects=*/true);
    EXPECT_NE(stored["@odata.etag"], expected["@odata.etag"]);
    EXPECT_NE(Field(kCollection, "@odata.etag"), formerCollectionEtag);
    expected["@odata.etag"] = stored["@odata.etag"];
    EXPECT_EQ(Json::diff(stored, expected), Json::array()) << row.body;
    for (const std::string& key : KeyListing(redis(), "&&" + uri + "/*/[0-9]*")) {
      EXPECT_LE(std::atoll(&key[key.rfind('/') + 1]), std::stoll(ContentOf("Array-Member-Sequence-ID"))) << key;
    }
    EXPECT_TRUE(Elements("events").back().starts_with("change " + uri + " EventDestination ")) << row.body;
  }
  EXPECT_EQ(KeyListing(redis(), "&&" + uri + "/HttpHeaders*"), Names{}) << "keys of old headers";
  Json many;
  for (int i = 0; i < 256; ++i) many[std::to_string(i)] = "";
  EXPECT_EQ(InShort(Handle("PATCH", uri, {{"HttpHeaders", {many}}})), "OK_RES Success()");
  EXPECT_EQ(Patch(uri, R"({"HttpHeaders": [{}, {"A": ""}]})"), "FAILURE PropertyValueError(HttpHeaders) @HttpHeaders")
      << "those that stay count";
}

TEST_F(ChangesTest, AMemberWeighs64KiBAtMost) {
  Json body = {{"Id", "Heavy-001"}, {"Protocol", "Redfish"}, {"Destination", "https://c"}, {"Context", "\"\n"}};
  const std::string longText(8100, 'x');
  for (int i = 0; i < 8; ++i) body["HttpHeaders"].push_back({{"X", longText}});
  body["HttpHeaders"][7]["X"] = "";
  Json light = Stored(Create(body));
  std::erase_if(light.get_ref<Json::object_t&>(), [](const auto& member) { return member.first.starts_with("&&"); });
  const size_t room = 64 * 1024 - light.dump().size();
  body["HttpHeaders"][7]["X"] = std::string(room + 1, 'x');
  body["Id"] = "Heavy-002";
  const std::string tooHeavy = "FAILURE PropertyValueError(HttpHeaders) @HttpHeaders";
  EXPECT_EQ(InShort(Handle("POSTCREATE", kCollection, body)), tooHeavy);
  body["HttpHeaders"][7]["X"] = std::string(room, 'x');
  const std::string uri = Create(body);
  const DatabaseDump before = Resources();
  EXPECT_EQ(Patch(uri, R"({"Context": "\n\n\n"})"), tooHeavy);
  EXPECT_EQ(Patch(uri, R"({"VerifyCertificate": true, "Foo": 1, "Id": "x"})"),
            "FAILURE PropertyUnknown(Foo) @Foo, PropertyValueError(HttpHeaders) @HttpHeaders, "
            "PropertyNotWritable(Id) @Id");
  EXPECT_EQ(Resources(), before);
  EXPECT_EQ(Patch(uri, R"({"Context": "abcd"})"), "OK_RES Success()");
}

TEST_F(ChangesTest, TheSyslogForwarderKnowsTheFirstFilter) {
  const std::string uri = Create(kBodies["TCP"]);
  const std::string queue(kSyslogQueue);
  const std::string answers = queue + "/SyslogTCP-1";
  KeyDelete(redis(), queue);
  const std::string deleted = R"({"Action":"DELETE","Id":"SyslogTCP-1"})";
  const auto created = [](const char* severity) {
    return R"({"Action":"CREATE","Destination":"10.0.0.2:514","Id":"SyslogTCP-1",)" + std::string(severity) +
           R"("Type":"TCP"})";
  };
  const std::string all = created(R"("Severity":"All",)");
  const struct {
    std::string filters;
    Names answers;  // of the forwarder
    Names orders;
    bool isHalfChanged = false;  // beforehand
  } cases[] = {
      {R"([{}, {"LowestSeverity": "Debug"}])", {}, {}},
      {R"([{"LowestSeverity": "All"}, {}])", {"OK"}, {deleted, all}},
      {R"([null])", {"no", "OK"}, {deleted, created(""), deleted, all}},
      {R"([null])", {"no", "no"}, {deleted, created(""), deleted, all}},
      {R"([null, null])", {"OK"}, {deleted, created("")}},
      {R"([{}])", {"OK"}, {deleted, created("")}, true},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.filters);
    if (row.isHalfChanged) state_->halfChangedUris.insert(uri);
    ListAppend(redis(), answers, "OK");  // from earlier times
    Names orders;
    std::thread forwarder([&, connection = Connect()] {
      for (size_t answered = 0; answered < row.answers.size();) {
        const RedisReply order = SendArguments(connection.get(), {"BLPOP", queue, "0"});
        orders.emplace_back(TextOf(order->element[1]));
        if (orders.back() != deleted) ListAppend(connection.get(), answers, row.answers[answered++]);
      }
    });
    const DatabaseDump before = Resources();
    const LogCapture log;
    const auto refusals = static_cast<size_t>(std::ranges::count(row.answers, "no"));
    EXPECT_EQ(Patch(uri, (R"({"SyslogFilters": )" + row.filters + "}").c_str()),
              refusals > 0 ? "UNAVAILABLE OperationFailed()" : "OK_RES Success()");
    forwarder.join();
    EXPECT_EQ(orders, row.orders);
    EXPECT_EQ(Elements(queue), Names{});
    EXPECT_EQ(log.Errors().size(), refusals);
    EXPECT_EQ(Resources() == before, refusals > 0);
    EXPECT_TRUE(row.answers.empty() || Elements(answers).empty());
    Stored(uri);
  }
}

TEST_F(ChangesTest, SnmpMembersChangeOneByOne) {
  const std::string uri = Create(kBodies["SNMPv3"]);
  Json expected = Stored(uri)["SNMP"];
  ASSERT_EQ(Patch(uri, R"({"SNMP": {"AuthenticationKey": null, "EncryptionKey": "newsecret"}})"), "OK_RES Success()");
  const Json snmp = Stored(uri)["SNMP"];
  EXPECT_EQ(decryptHexString(snmp["EncryptionKey"].get<std::string>(), "secret"), "newsecret");
  expected.erase("AuthenticationKey");
  expected["AuthenticationKeySet"] = false;
  expected["EncryptionKey"] = snmp["EncryptionKey"];
  EXPECT_EQ(Json::diff(snmp, expected), Json::array());

  for (const auto& [kind, allowed] : {std::pair("SMTP", 3u), {"stream", 0u}}) {
    const std::string other = Create(kBodies[kind]);  // has no SNMP object yet
    ASSERT_EQ(Patch(other, R"({"SNMP": {"AuthenticationProtocol": "None"}})"), "OK_RES Success()");
    EXPECT_EQ(Stored(other)["SNMP"]["EncryptionProtocol@Redfish.AllowableValues"].size(), allowed);
  }

  SendArguments(redis(), {"RENAME", "&&" + uri + "/SNMP", "&&/other"});
  HashWrite(redis(), uri, "SNMP", "&&Object SNMP &&/other");
  ASSERT_EQ(Patch(uri, R"({"SNMP": {"EncryptionKey": null}})"), "OK_RES Success()");
  EXPECT_TRUE(KeyExists(redis(), "&&/other")) << "what a marker leads to may belong to another resource";
}

TEST_F(ChangesTest, TheNextChangeCompletesWhatFailedHalfWay) {
  const std::string uri = Create(kBodies["Redfish"]);
  TripCounter proxy(Server().SocketPath());
  const RedisContext connection = proxy.Connect();
  Json body = {{"Context", "c"}, {"VerifyCertificate", true}, {"Status", {{"State", "Disabled"}}}};
  for (const char* method : {"PATCH", "POSTACTION", "STATE", "STATE"}) {
    body["Context"] = body["Context"].get<std::string>() + "c";
    proxy.Reset({.failedText = "VerifyCertificate"});
    const Names events = Elements("events");
    EXPECT_EQ(Handle("PATCH", uri, body, connection.get()).status, kException);
    EXPECT_EQ(Elements("events"), events);
    proxy.Reset();
    Json repeated = body;
    repeated.erase("VerifyCertificate");  // the context stands in Redis already
    EXPECT_NE(InShort(Handle(method, uri, repeated)), "OK_RES") << method;
    EXPECT_EQ(Stored(uri)["Context"], body["Context"]) << method;
  }
  EXPECT_EQ(InShort(Handle("PATCH", uri, {{"Context", body["Context"]}})), "OK_RES") << "all is in the file";
  SendCommand(redis(), "ACL SETUSER keeper on nopass ~* &* +@all -lrem -unlink");
  const RedisContext keeper = Connect();
  SendCommand(keeper.get(), "AUTH keeper x");
  EXPECT_EQ(Handle("DELETE", uri, {}, keeper.get()).status, kException);
  EXPECT_EQ(InShort(Handle("PATCH", uri, {{"Context", "kept"}})), "OK_RES Success()");
  EXPECT_EQ(Stored(uri)["Context"], "kept") << "the file has lost it with the deletion";
  proxy.Reset({.failedText = "HGET " + uri + " &&SensitiveData"});
  PrepareGet(MakeRequest("GET", uri, {}, connection.get()));
  EXPECT_TRUE(Field(uri, "&&SensitiveData").starts_with("SNMP/")) << "what cannot be read is not written over";
  proxy.Reset({.failedText = "&&Array SyslogFilters"});
  body = {{"SyslogFilters", {{{"LowestSeverity", "All"}}}}};
  EXPECT_EQ(Handle("PATCH", uri, body, connection.get()).status, kException);
  Handle("DELETE", uri);
  EXPECT_EQ(KeyListing(redis(), "*" + EscapeGlob(uri) + "*"), Names{}) << "with what no marker names";
  EXPECT_TRUE(state_->halfChangedUris.empty()) << "a later member of this Id has nothing to do with it";
}

TEST_F(ChangesTest, SuspendedSubscriptionsAreResumed) {
  const std::string stream = Create(kBodies["stream"]);
  const DatabaseDump withStream = Resources();
  EXPECT_EQ(InShort(Handle("POSTACTION", stream, {})), "OK_RES");
  EXPECT_EQ(Resources(), withStream) << "a stream has no Status";
  const std::string uri = Create(kBodies["Redfish"]);
  const struct {
    std::string method;
    Json state;
    const char* answer = "";
    bool isChange = false;
  } cases[] = {{"POSTACTION", {}, "OK_RES"},  // with the no-operation response
               {"STATE", "Disabled", "", true},
               {"STATE", "Disabled"},
               {"STATE", 5},
               {"POSTACTION", {}, "OK_RES Success()", true}};
  for (const auto& row : cases) {
    SCOPED_TRACE(row.method + row.state.dump());
    const DatabaseDump before = Resources();
    const LogCapture log;
    EXPECT_EQ(InShort(Handle(row.method, uri, {{"Status", {{"State", row.state}}}})), row.answer);
    EXPECT_EQ(Stored(uri)["Status"]["State"], row.method == "STATE" ? "Disabled" : "Enabled");
    EXPECT_EQ(Resources() != before, row.isChange);
    EXPECT_TRUE(!row.isChange || Elements("events").back().starts_with("status " + uri + " "));
    EXPECT_EQ(log.Errors().size(), row.state == 5 ? 1u : 0u);
  }
}

}  // namespace
}  // namespace event_service
