/// What happens to a subscription between its creation and its end: PATCH, suspension, resume, GET.
#include "platform/data_encrypt/data_encrypt.h"
#include "subscriptions/get_preparation.h"
#include "subscriptions/patch.h"
#include "subscriptions/state.h"
#include "tests/subscriptions/subscriptions_fixture.h"
#include "tests/support/trip_counter.h"

namespace event_service {
namespace {

using Names = std::vector<std::string>;

class ChangesTest : public SubscriptionsTest {
 protected:
  Answer Patch(const std::string& uri, const Json& body, redisContext* connection = nullptr) {
    Request request = MakeRequest("PATCH", uri, body, connection);
    return PatchEventDestination(request);
  }
  Answer Patch(const std::string& uri, const char* body) { return Patch(uri, Json::parse(body)); }
  Answer Resume(const std::string& uri) {
    Request request = MakeRequest("POSTACTION", uri + "/Actions/EventDestination.ResumeSubscription");
    return ResumeSubscription(request, uri);
  }
  Answer Suspend(const std::string& uri, const Json& state = kStateDisabled) {
    Request request = MakeDeliveryRequest("PATCH", uri, {{"Status", {{"State", state}}}});
    return ApplyDeliveryState(request);
  }
  std::string CreateKind(const std::string& name) {
    for (const CreationBody& row : kCreationBodies) {
      if (row.name == name) return Create(Json::parse(row.text));
    }
    return {};
  }
};

TEST_F(ChangesTest, APatchIsStoredAlikeInRedisAndFile) {
  const std::string uri = CreateKind("Redfish");
  const struct {
    const char* body;
    const char* changed;
  } cases[] = {
      {R"({"Context": "new", "DeliveryRetryPolicy": "SuspendRetries"})",
       R"({"Context": "new", "DeliveryRetryPolicy": "SuspendRetries"})"},
      {R"({"VerifyCertificate": true})", R"({"VerifyCertificate": true})"},
      {R"({"HttpHeaders": [{}, null, {"A": "1"}]})",
       R"({"HttpHeaders": [{"X-Token": "secret"}, {"A": "1"}], "HttpHeaders@odata.count": 2})"},
      {R"({"HttpHeaders": []})", R"({"HttpHeaders": [], "HttpHeaders@odata.count": 0})"},
      {R"({"Context": null})", R"({"Context": null})"},
  };
  for (const auto& row : cases) {
    Json expected = Stored(uri);
    expected.update(Json::parse(row.changed));
    const std::string formerEtag = expected["@odata.etag"];
    const std::string formerCollectionEtag = Field(kCollection, "@odata.etag");
    const Answer answer = Patch(uri, row.body);
    ASSERT_EQ(answer.status, kOkRes) << row.body;
    EXPECT_EQ(answer.messages.front().id, "Base.1.12.Success");
    const Json stored = Stored(uri);
    EXPECT_NE(stored["@odata.etag"], formerEtag);
    EXPECT_NE(Field(kCollection, "@odata.etag"), formerCollectionEtag);
    expected["@odata.etag"] = stored["@odata.etag"];
    EXPECT_EQ(Json::diff(stored, expected), Json::array()) << row.body;
    EXPECT_EQ(Json::diff(InFile()[uri], expected), Json::array()) << row.body;
    EXPECT_TRUE(Events().back().starts_with("change " + uri + " EventDestination ")) << Events().back();
  }
  EXPECT_EQ(KeyListing(redis(), "&&" + kCollection + "/Redfish-1/HttpHeaders*"), Names{}) << "keys of old headers";
}

TEST_F(ChangesTest, SnmpMembersChangeOneByOne) {
  const std::string uri = CreateKind("SNMPv3");
  const Json before = Stored(uri)["SNMP"];
  ASSERT_EQ(Patch(uri, R"({"SNMP": {"AuthenticationKey": null, "EncryptionKey": "newsecret",
                                    "AuthenticationProtocol": "HMAC_MD5"}})")
                .status,
            kOkRes);
  const Json snmp = Stored(uri)["SNMP"];
  EXPECT_FALSE(snmp.contains("AuthenticationKey"));
  EXPECT_EQ(snmp["AuthenticationKeySet"], false);
  EXPECT_EQ(snmp["AuthenticationProtocol"], "HMAC_MD5");
  EXPECT_EQ(snmp["EncryptionProtocol"], before["EncryptionProtocol"]);
  EXPECT_EQ(snmp["AuthenticationProtocol@Redfish.AllowableValues"].size(), 8u);
  EXPECT_EQ(decryptHexString(snmp["EncryptionKey"].get<std::string>(), "secret"), "newsecret");
  EXPECT_EQ(InFile()[uri]["SNMP"], snmp);
}

TEST_F(ChangesTest, AnSnmpObjectCanBeAdded) {
  const std::string uri = CreateKind("SMTP");
  ASSERT_EQ(Patch(uri, R"({"SNMP": {"AuthenticationProtocol": "None"}})").status, kOkRes);
  const Json stored = Stored(uri);
  EXPECT_EQ(stored["SNMP"]["EncryptionProtocol@Redfish.AllowableValues"].size(), 3u);
  EXPECT_EQ(Json::diff(InFile()[uri], stored), Json::array());
}

TEST_F(ChangesTest, WhatChangesNothingLeavesEverythingAsItWas) {
  const std::string uri = CreateKind("Redfish");
  const struct {
    std::string uri;
    const char* body;  // null: none is stored
    std::string_view status;
    const char* messageId;
  } cases[] = {
      {uri, R"({"Context": "c"})", kOkRes, nullptr},
      {uri, R"({"@odata.etag": "x", "Context@Redfish.Copy": 1})", kOkRes, nullptr},
      {uri, nullptr, kOkRes, nullptr},
      {uri, R"({"Context": 5, "VerifyCertificate": true})", kFailure, "Base.1.12.PropertyValueTypeError"},
      {uri, R"({"Protocol": "SNMPv1", "Nonsense": 1})", kFailure, "Base.1.12.PropertyUnknown"},
      {uri, R"({"Context": "c", "Protocol": "SNMPv1"})", kOkRes, "Base.1.12.PropertyNotWritable"},
      {kCollection + "/missing-1", R"({"Context": "c"})", kNotFound, "Base.1.12.ResourceMissingAtURI"},
      {"redisSHAScripts", R"({"Context": "c"})", kNotFound, "Base.1.12.ResourceMissingAtURI"},
  };
  for (const auto& row : cases) {
    Request request = MakeRequest("PATCH", row.uri, row.body == nullptr ? Json() : Json::parse(row.body));
    const DatabaseDump before = Dump();
    const Answer answer = PatchEventDestination(request);
    EXPECT_EQ(answer.status, row.status) << row.body;
    EXPECT_EQ(answer.messages.empty(), row.messageId == nullptr) << row.body;
    if (row.messageId != nullptr && !answer.messages.empty()) {
      EXPECT_EQ(answer.messages.front().id, row.messageId) << row.body;
    }
    EXPECT_EQ(Dump(), before) << row.body;
  }
  Request bodiless = MakeRequest("PATCH", uri);
  bodiless.record.requestData.clear();
  EXPECT_EQ(PatchEventDestination(bodiless).messages.front().id, "ExtendedError.1.2.DatabaseOperationError");
}

TEST_F(ChangesTest, PropertiesThatCannotBeUpdatedAreNamedBesideThoseThatWere) {
  const std::string uri = CreateKind("Redfish");
  const Answer answer = Patch(uri, R"({"Context": "new", "Protocol": "SNMPv1", "Nonsense": 1})");
  EXPECT_EQ(answer.status, kOkRes);
  ASSERT_EQ(answer.messages.size(), 2u);
  EXPECT_EQ(answer.messages[0].args, Names{"Nonsense"});
  EXPECT_EQ(answer.messages[1].args, Names{"Protocol"});
  EXPECT_EQ(Stored(uri)["Context"], "new");
  EXPECT_EQ(Stored(uri)["Protocol"], "Redfish");
}

TEST_F(ChangesTest, AFailedWriteIsAnException) {
  const std::string uri = CreateKind("Redfish");
  TripCounter proxy(Server().SocketPath());
  const RedisContext connection = proxy.Connect();
  Request request = MakeRequest("PATCH", uri, {{"Context", "new"}}, connection.get());
  proxy.Reset();
  proxy.FailCommandsWith("Context");
  const DatabaseDump events = {{"events", Dump()["events"]}};
  EXPECT_EQ(PatchEventDestination(request).messages.front().id, "ExtendedError.1.2.DatabaseOperationError");
  EXPECT_EQ(Dump()["events"], events.at("events"));
}

TEST_F(ChangesTest, SuspendedSubscriptionsAreResumed) {
  const std::string uri = CreateKind("Redfish");
  EXPECT_FALSE(Resume(uri).body.empty()) << "an enabled one gets the no-operation response";
  for (const std::string_view state : {kStateDisabled, kStateEnabled, kStateDisabled}) {
    EXPECT_TRUE(Suspend(uri, state).status.empty());
    EXPECT_EQ(Stored(uri)["Status"]["State"], state);
    EXPECT_EQ(InFile()[uri]["Status"]["State"], state);
    EXPECT_TRUE(Events().back().starts_with("status " + uri + " EventDestination ")) << Events().back();
  }
  const Answer answer = Resume(uri);
  EXPECT_EQ(answer.status, kOkRes);
  EXPECT_EQ(answer.messages.front().id, "Base.1.12.Success");
  EXPECT_EQ(Stored(uri)["Status"]["State"], "Enabled");
  EXPECT_EQ(Json::diff(InFile()[uri], Stored(uri)), Json::array());
  EXPECT_EQ(Resume(kCollection + "/missing-1").status, kNotFound);
}

TEST_F(ChangesTest, StatesThatSayNothingNewAreIgnored) {
  const std::string uri = CreateKind("Redfish");
  for (const Json& state : {Json("Enabled"), Json("Nonsense"), Json(5), Json()}) {
    Request request = MakeDeliveryRequest("PATCH", uri, {{"Status", {{"State", state}}}});
    const DatabaseDump before = Dump();
    const LogCapture log;
    EXPECT_TRUE(ApplyDeliveryState(request).status.empty());
    EXPECT_EQ(log.Errors().empty(), state == "Enabled") << state;
    EXPECT_EQ(Dump(), before) << state;
  }
}

TEST_F(ChangesTest, GetPreparationKeepsTheBooks) {
  const struct {
    const char* kind;
    std::string sensitive;
    const char* flags;  // null: no SNMP
  } cases[] = {
      {"Redfish", "SNMP/TrapCommunity,SNMP/AuthenticationKey,SNMP/EncryptionKey,HttpHeaders", nullptr},
      {"message ids", "SNMP/TrapCommunity,SNMP/AuthenticationKey,SNMP/EncryptionKey", nullptr},
      {"SNMPv3", "SNMP/TrapCommunity,SNMP/AuthenticationKey,SNMP/EncryptionKey", "true"},
      {"SNMPv2c", "SNMP/TrapCommunity,SNMP/AuthenticationKey,SNMP/EncryptionKey", "false"},
  };
  for (const auto& row : cases) {
    const std::string uri = CreateKind(row.kind);
    Request request = MakeRequest("GET", uri);
    for (int round = 0; round < 2; ++round) {
      PrepareGet(request);
      EXPECT_EQ(Field(uri, "&&SensitiveData"), row.sensitive) << row.kind;
      EXPECT_EQ(Field("&&" + uri + "/SNMP", "EncryptionKeySet"), row.flags == nullptr ? "" : row.flags) << row.kind;
    }
  }
  for (const std::string& uri : {kCollection, kCollection + "/missing-1", CreateStream("Stream-01")}) {
    Request request = MakeRequest("GET", uri);
    const DatabaseDump before = Dump();
    PrepareGet(request);
    EXPECT_EQ(Dump(), before) << uri;
  }
}

}  // namespace
}  // namespace event_service
