/// What happens to a subscription between its creation and its end: PATCH, suspension, resume, GET.
#include "platform/data_encrypt/data_encrypt.h"
#include "subscriptions/get_preparation.h"
#include "subscriptions/patch.h"
#include "subscriptions/state.h"
#include "tests/subscriptions/subscriptions_fixture.h"
#include "tests/support/trip_counter.h"

namespace event_service {
namespace {

class ChangesTest : public SubscriptionsTest {
 protected:
  /// `body` is JSON text; null: none is stored.
  Answer Patch(const std::string& uri, const char* body, redisContext* connection = nullptr) {
    Request request = MakeRequest("PATCH", uri, body == nullptr ? Json() : Json::parse(body), connection);
    return PatchEventDestination(request);
  }
  Answer Resume(const std::string& uri) {
    Request request = MakeRequest("POSTACTION", uri + "/Actions/EventDestination.ResumeSubscription");
    return ResumeSubscription(request, uri);
  }
  Answer Suspend(const std::string& uri, const Json& state) {
    Request request = MakeRequest("PATCH", uri, {{"Status", {{"State", state}}}});
    request.announcement.responseKey = kFromEventing;
    return ApplyDeliveryState(request);
  }
};

TEST_F(ChangesTest, APatchIsStoredAlikeInRedisAndFile) {
  const std::string uri = Create(kBodies["Redfish"]);
  const struct {
    const char* body;
    const char* changed;
    const char* answer = "OK_RES Success()";
  } cases[] = {
      {R"({"VerifyCertificate": true, "DeliveryRetryPolicy": "SuspendRetries"})",
       R"({"VerifyCertificate": true, "DeliveryRetryPolicy": "SuspendRetries"})"},
      {R"({"HttpHeaders": [{}, null, {"A": "1"}]})",
       R"({"HttpHeaders": [{"X-Token": "secret"}, {"A": "1"}], "HttpHeaders@odata.count": 2})"},
      {R"({"HttpHeaders": []})", R"({"HttpHeaders": [], "HttpHeaders@odata.count": 0})"},
      {R"({"SyslogFilters": [{"LogFacilities": ["Kern"]}]})", R"({"SyslogFilters": [{"LogFacilities": ["Kern"]}]})"},
      {R"({"Context": null, "Protocol": "SNMPv1", "Nonsense": 1})", R"({"Context": null})",
       "OK_RES PropertyUnknown(Nonsense) @Nonsense, PropertyNotWritable(Protocol) @Protocol"},
  };
  for (const auto& row : cases) {
    Json expected = Stored(uri);
    expected.update(Json::parse(row.changed));
    const std::string formerEtag = expected["@odata.etag"];
    const std::string formerCollectionEtag = Field(kCollection, "@odata.etag");
    EXPECT_EQ(InShort(Patch(uri, row.body)), row.answer);
    const Json stored = Stored(uri);
    EXPECT_NE(stored["@odata.etag"], formerEtag);
    EXPECT_NE(Field(kCollection, "@odata.etag"), formerCollectionEtag);
    expected["@odata.etag"] = stored["@odata.etag"];
    EXPECT_EQ(Json::diff(stored, expected), Json::array()) << row.body;
    EXPECT_EQ(Json::diff(InFile()[uri], expected), Json::array()) << row.body;
    EXPECT_TRUE(Events().back().starts_with("change " + uri + " EventDestination ")) << Events().back();
  }
  EXPECT_EQ(KeyListing(redis(), "&&" + uri + "/HttpHeaders*"), Names{}) << "keys of old headers";
}

TEST_F(ChangesTest, SnmpMembersChangeOneByOne) {
  const std::string uri = Create(kBodies["SNMPv3"]);
  Json expected = Stored(uri)["SNMP"];
  const char* const body = R"({"SNMP": {"AuthenticationKey": null, "EncryptionKey": "newsecret",
                                        "AuthenticationProtocol": "HMAC_MD5"}})";
  ASSERT_EQ(InShort(Patch(uri, body)), "OK_RES Success()");
  const Json snmp = Stored(uri)["SNMP"];
  EXPECT_EQ(decryptHexString(snmp["EncryptionKey"].get<std::string>(), "secret"), "newsecret");
  expected.erase("AuthenticationKey");
  expected.update({{"AuthenticationKeySet", false}, {"AuthenticationProtocol", "HMAC_MD5"}});
  expected["EncryptionKey"] = snmp["EncryptionKey"];
  EXPECT_EQ(Json::diff(snmp, expected), Json::array());
  EXPECT_EQ(InFile()[uri]["SNMP"], snmp);

  const std::string mail = Create(kBodies["SMTP"]);  // has no SNMP object yet
  ASSERT_EQ(InShort(Patch(mail, R"({"SNMP": {"AuthenticationProtocol": "None"}})")), "OK_RES Success()");
  EXPECT_EQ(Stored(mail)["SNMP"]["EncryptionProtocol@Redfish.AllowableValues"].size(), 3u);
  EXPECT_EQ(Json::diff(InFile()[mail], Stored(mail)), Json::array());
}

TEST_F(ChangesTest, WhatChangesNothingLeavesEverythingAsItWas) {
  const std::string uri = Create(kBodies["Redfish"]);
  const std::string missing = kCollection + "/missing-1";
  const struct {
    std::string uri;
    const char* body;
    std::string answer;
  } cases[] = {
      {uri, R"({"Context": "c"})", "OK_RES"},
      {uri, R"({"@odata.etag": "x", "Context@Redfish.Copy": 1})", "OK_RES"},
      {uri, nullptr, "OK_RES"},
      {uri, R"({"Context": 5, "VerifyCertificate": true})", "FAILURE PropertyValueTypeError(5, Context) @Context"},
      {uri, R"({"Nonsense": 1})", "FAILURE PropertyUnknown(Nonsense) @Nonsense"},
      {uri, R"({"Context": "c", "Protocol": "SNMPv1"})", "OK_RES PropertyNotWritable(Protocol) @Protocol"},
      {missing, R"({"Context": "c"})", "NOT_FOUND ResourceMissingAtURI(" + missing + ")"},
      {"redisSHAScripts", R"({"Context": "c"})", "NOT_FOUND ResourceMissingAtURI(redisSHAScripts)"},
  };
  const DatabaseDump before = Resources();
  for (const auto& row : cases) {
    const Answer answer = Patch(row.uri, row.body);
    EXPECT_EQ(InShort(answer), row.answer);
    EXPECT_EQ(answer.body.empty(), row.answer != "OK_RES") << "the no-operation response";
    EXPECT_EQ(Resources(), before) << row.answer;
  }
  Request bodiless = MakeRequest("PATCH", uri);
  bodiless.record.requestData.clear();
  EXPECT_EQ(InShort(PatchEventDestination(bodiless)), "EXCEPTION ExtendedError.1.2.DatabaseOperationError()");
}

TEST_F(ChangesTest, AFailedWriteIsAnException) {
  const std::string uri = Create(kBodies["Redfish"]);
  TripCounter proxy(Server().SocketPath());
  const RedisContext connection = proxy.Connect();
  proxy.Reset();
  proxy.FailCommandsWith("Context");
  const Names events = Events();
  EXPECT_EQ(InShort(Patch(uri, R"({"Context": "new"})", connection.get())),
            "EXCEPTION ExtendedError.1.2.DatabaseOperationError()");
  EXPECT_EQ(Events(), events);
}

TEST_F(ChangesTest, SuspendedSubscriptionsAreResumed) {
  const std::string uri = Create(kBodies["Redfish"]);
  EXPECT_FALSE(Resume(uri).body.empty()) << "an enabled one gets the no-operation response";
  for (const Json& state : {Json("Disabled"), Json("Enabled"), Json("Disabled")}) {
    EXPECT_EQ(InShort(Suspend(uri, state)), "");
    EXPECT_EQ(Stored(uri)["Status"]["State"], state);
    EXPECT_EQ(Json::diff(InFile()[uri], Stored(uri)), Json::array());
    EXPECT_TRUE(Events().back().starts_with("status " + uri + " EventDestination ")) << Events().back();
  }
  const DatabaseDump before = Resources();
  for (const Json& state : {Json("Disabled"), Json("Nonsense"), Json(5), Json()}) {
    const LogCapture log;
    EXPECT_EQ(InShort(Suspend(uri, state)), "");
    EXPECT_EQ(log.Errors().empty(), state == "Disabled") << state;
    EXPECT_EQ(Resources(), before) << state;
  }
  EXPECT_EQ(InShort(Resume(uri)), "OK_RES Success()");
  EXPECT_EQ(Stored(uri)["Status"]["State"], "Enabled");
  EXPECT_EQ(Json::diff(InFile()[uri], Stored(uri)), Json::array());
  EXPECT_EQ(Resume(kCollection + "/missing-1").status, kNotFound);
}

TEST_F(ChangesTest, GetPreparationKeepsTheBooks) {
  const std::string snmpPaths = "SNMP/TrapCommunity,SNMP/AuthenticationKey,SNMP/EncryptionKey";
  const struct {
    const char* kind;
    std::string sensitive;
    const char* flag;
  } cases[] = {
      {"Redfish", snmpPaths + ",HttpHeaders", ""},
      {"messages", snmpPaths, ""},
      {"SNMPv3", snmpPaths, "true"},
      {"trap", snmpPaths, "false"},
      {"stream", "", ""},
  };
  for (const auto& row : cases) {
    const std::string uri = Create(kBodies[row.kind]);
    Request request = MakeRequest("GET", uri);
    for (int round = 0; round < 2; ++round) {
      PrepareGet(request);
      EXPECT_EQ(Field(uri, "&&SensitiveData"), row.sensitive) << row.kind;
      EXPECT_EQ(Field("&&" + uri + "/SNMP", "EncryptionKeySet"), row.flag) << row.kind;
    }
  }
  const DatabaseDump before = Resources();
  for (const std::string& uri : {kCollection, kCollection + "/missing-1"}) {
    Request request = MakeRequest("GET", uri);
    PrepareGet(request);
    EXPECT_EQ(Resources(), before) << uri;
  }
}

}  // namespace
}  // namespace event_service
