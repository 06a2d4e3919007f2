/// A service with everything that handlers of subscriptions need: Redis, settings, a database file, event scripts.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "requests/request.h"
#include "resource_store/resource_reader.h"
#include "resource_store/resource_writer.h"
#include "service/event_group_id.h"
#include "service/life_cycle_event.h"
#include "subscriptions/creation.h"
#include "subscriptions/deletion.h"
#include "subscriptions/patch.h"
#include "subscriptions/state.h"
#include "subscriptions/syslog_exchange.h"
#include "tests/requests/answer_text.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"

namespace event_service {

using Names = std::vector<std::string>;

inline const std::string kCollection = "/redfish/v1/EventService/Subscriptions";
inline const std::string kMembers = "&&" + kCollection + "/Members";

/// The bodies of creations by their kind, one of each that the service knows, with Ids.
inline const Json kBodies = Json::parse(R"({
    "Redfish": {"Id": "Redfish-1", "Protocol": "Redfish", "Destination": "https://[2001:db8::1]:443/a?b=c#d",
        "Context": "c", "RegistryPrefixes": ["Base", "ResourceEvent"],
        "HttpHeaders": [{"X-Token": "secret"}, {"X-Other": "1"}],
        "OriginResources": [{"@odata.id": "/redfish/v1/Systems/1"}], "SubordinateResources": true},
    "messages": {"Id": "Messages-1", "Protocol": "Redfish", "Destination": "http://host_1.example:8080",
        "MessageIds": ["Base.1.12.Success"], "ResourceTypes": ["Task"], "EventTypes": ["Alert"],
        "EventFormatType": "Event", "HeartbeatIntervalMinutes": 5, "IncludeOriginOfCondition": true,
        "SendHeartbeat": true, "SubscriptionType": "RedfishEvent", "VerifyCertificate": true},
    "metrics": {"Id": "Metrics-1", "Protocol": "Redfish", "Destination": "https://c/m", "Description": "d",
        "MetricReportDefinitions": [{"@odata.id": "/redfish/v1/TelemetryService/MetricReportDefinitions/1"}]},
    "trap": {"Id": "trap1", "Protocol": "SNMPv2c", "Destination": "10.0.0.1:162", "SubscriptionType": "SNMPTrap",
        "SNMP": {"TrapCommunity": "public", "AuthenticationProtocol": "CommunityString"}},
    "SNMPv3": {"Id": "SNMPv3-1", "Protocol": "SNMPv3", "Destination": "snmp://user@10.0.0.1",
        "SubscriptionType": "SNMPTrap",
        "SNMP": {"AuthenticationProtocol": "HMAC_SHA96", "AuthenticationKey": "Passphrase:a b",
                 "EncryptionProtocol": "CFB128_AES128", "EncryptionKey": "Hex:0123456789abcdef"}},
    "inform": {"Id": "inform1", "Protocol": "SNMPv3", "Destination": "snmp://[fe80::1]/",
        "SubscriptionType": "SNMPInform", "SNMP": {"AuthenticationKey": "Hex:0123456789abcdef01234567"}},
    "SMTP": {"Id": "SMTP-mail", "Protocol": "SMTP", "Destination": "mailto:a+b@example.org"},
    "TCP": {"Id": "SyslogTCP-1", "Protocol": "SyslogTCP", "Destination": "10.0.0.2:514", "SubscriptionType": "Syslog",
        "SyslogFilters": [{"LogFacilities": ["Kern", "Local7"], "LowestSeverity": "Error"}, {}]},
    "TLS": {"Id": "SyslogTLS-1", "Protocol": "SyslogTLS", "Destination": "syslog://[::1]:6514",
        "SyslogFilters": [null]},
    "stream": {"Id": "Stream-01", "Protocol": "Redfish", "Destination": "redfish-sse://10.0.0.1:99", "Context": "s",
        "HttpHeaders": [{"X-Stream": "a\"b"}]}
})");

class SubscriptionsTest : public RedisTest {
 protected:
  void SetUp() override {
    RedisTest::SetUp();
    ForgetMaxEventGroupId();
    ForgetLifeCycleSetting();
    settings_ = ServiceSettings();
    settings_.subordinateResourcesSupported = true;
    settings_.includeOriginOfConditionSupported = true;
    settings_.allowedValues["RegistryPrefixes"] = {"\"Base\"", "\"ResourceEvent\"", "\"Y\"", "\"Z\""};
    state_.emplace();
    state_->registryPrefixBits = {{"Base", 1}, {"ResourceEvent", 2}, {"Y", 2147483647}, {"Z", 2147483647}};
    SetProcessState(&settings_, &*state_);

    WriteFile(settings_.paths.passwordFile, "secret");
    WriteFile(settings_.paths.plainDatabaseFile, R"({"Members": [], "@odata.etag": "\"0\""})");
    ASSERT_TRUE(state_->db.File().EncodeDbFile());
    FillRedis();
  }
  void TearDown() override { SetProcessState(nullptr, nullptr); }
  /// Redis with an empty collection.
  void FillRedis() {
    ASSERT_TRUE(SendCommand(redis(), "FLUSHALL"));
    ASSERT_TRUE(WriteResource(redis(), kCollection, {{"@odata.id", kCollection}, {"@odata.etag", "\"0\""}}));
    HashWrite(redis(), "/redfish/v1/EventService", "ServiceEnabled", "true");
    HashWrite(redis(), "webDefaultValue", "MAX_EVENT_GROUP_ID", "1000000");
    const std::string event = "table.concat(KEYS, ' ', 1, 3) .. ' ' .. KEYS[5]";
    RegisterScript("resourceChange", "redis.call('RPUSH', 'events', " + event + ") return 1");
    RegisterScript("enqueueEvent", "redis.call('RPUSH', 'queued', KEYS[1]) return 1");
  }

  /// A request as the listener hands it over; one with a stream's destination opens a stream. The record is stored
  /// under "request", the answer goes under "response".
  Request MakeRequest(const std::string& method, const std::string& uri, const Json& body = Json(),
                      redisContext* connection = nullptr) {
    for (const std::string& key : KeyListing(redis(), "*request*")) KeyDelete(redis(), key);
    EXPECT_TRUE(IsInteger(SendArguments(
        redis(), {"HSET", "request", "&&RequestMethod", method, "&&TargetURI", uri, "&&Privileges", "ConfigureManager",
                  "&&SSE-CHANNEL", "stream 1", "&&RequestData", "request/RequestData"})));
    EXPECT_TRUE(body.is_null() || WriteResource(redis(), "request/RequestData", body));
    RequestRecord record = ReadRequestRecord(redis(), "request");
    Request request{connection ? connection : redis(), {"request", "response"}, std::move(record), settings_, &*state_};
    if (body.dump().find("redfish-sse:") != std::string::npos) request.record.isSse = "true";
    return request;
  }
  /// Hands it to the method's handler: POSTCREATE, POSTACTION (to resume), PATCH, DELETE, and STATE from delivery.
  Answer Handle(const std::string& method, const std::string& uri, const Json& body = Json(),
                redisContext* connection = nullptr) {
    Request request = MakeRequest(method, uri, body, connection);
    if (method == "POSTCREATE") return CreateEventDestination(request);
    if (method == "POSTACTION") return ResumeSubscription(request, uri);
    if (method == "PATCH") return PatchEventDestination(request);
    if (uri == "SSE-ALL") return DeleteAllSseSubscriptions(request);
    if (method == "DELETE") return DeleteEventDestination(request);
    request.announcement.responseKey = kFromEventing;
    return ApplyDeliveryState(request);
  }

  /// Creates a subscription, which must succeed, and gives its URI.
  std::string Create(const Json& body) {
    const std::string answerList = std::string(kSyslogQueue) + "/" + body.value("Id", "");
    if (body["Protocol"].get<std::string>().starts_with("Syslog")) ListAppend(redis(), answerList, "OK");
    EXPECT_EQ(InShort(Handle("POSTCREATE", kCollection, body)), "OK_RES Created()") << body;
    return Field("request", "&&Location");
  }

  /// What is stored there, with control fields. The test fails when the database file holds something else, unless it
  /// is a stream, which no file knows, or no subscription.
  Json Stored(const std::string& uri) {
    Json document;
    EXPECT_TRUE(ReadResource(redis(), uri, document, {.withControlFields = true}));
    if (uri.starts_with(kCollection + "/") && document["SubscriptionType"] != "SSE") {
      Json file = InFile();
      EXPECT_EQ(Json::diff(file["Members"][uri], document), Json::array()) << uri;
      EXPECT_EQ(file["@odata.etag"].dump(), Field(kCollection, "@odata.etag"));
    }
    return document;
  }
  /// The database file, with an object of the members by URI.
  Json InFile() const {
    Json file = Json::parse(DecryptedDatabase(settings_.paths), nullptr, false);
    Json members;
    for (const Json& member : file["Members"]) members[member["@odata.id"].get<std::string>()] = member;
    file["Members"] = members;
    return file;
  }
  std::string Field(const std::string& key, const std::string& field) { return HashRead(redis(), key, field); }
  /// The members are so many, and every place that counts them says so.
  void ExpectCount(size_t count) {
    EXPECT_EQ(Elements(kMembers).size(), count);
    EXPECT_EQ(state_->subscriptionCount, count);
    EXPECT_EQ(Field(kCollection, "Members@odata.count"), std::to_string(count));
  }
  /// The last two life-cycle events, in one group, say this about the member and that the collection changed.
  void ExpectEvents(const std::string& change, const std::string& uri) {
    const std::string group = Field("/redfish/v1/EventService", "&&EVENT_GROUP_ID_COUNTER");
    const Names events = Elements("events");
    ASSERT_GE(events.size(), 2u);
    EXPECT_EQ(events[events.size() - 2], change + " " + uri + " EventDestination " + group);
    EXPECT_EQ(events.back(), "change " + kCollection + " EventDestinationCollection " + group);
  }
  /// Redis without requests, the counters and sequence ids that they take and what they say to the syslog forwarder.
  DatabaseDump Resources() {
    DatabaseDump dump = Dump();
    std::erase_if(dump, [](const auto& entry) {
      const std::string& key = entry.first;
      return key.find("request") != std::string::npos || key.starts_with(kSyslogQueue) ||
             key == "Array-Member-Sequence-ID" || key == "/redfish/v1/EventService";
    });
    return dump;
  }

  ServiceSettings settings_;
  std::optional<SubscriptionsState> state_;
};

}  // namespace event_service
