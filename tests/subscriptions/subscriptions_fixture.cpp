#include "tests/subscriptions/subscriptions_fixture.h"

#include <jansson.h>

#include <cstdlib>
#include <memory>

#include "resource_store/resource_reader.h"
#include "resource_store/resource_writer.h"
#include "service/event_group_id.h"
#include "service/life_cycle_event.h"
#include "subscriptions/creation.h"
#include "subscriptions/syslog_exchange.h"
#include "tests/subscriptions/message_text.h"

namespace event_service {

const Json kBodies = Json::parse(R"({
    "Redfish": {"Id": "Redfish-1", "Protocol": "Redfish", "Destination": "https://client.example/events", "Context": "c",
        "RegistryPrefixes": ["Base", "ResourceEvent"], "HttpHeaders": [{"X-Token": "secret"}, {"X-Other": "1"}],
        "OriginResources": [{"@odata.id": "/redfish/v1/Systems/1"}], "SubordinateResources": true},
    "messages": {"Id": "Messages-1", "Protocol": "Redfish", "Destination": "http://c", "ResourceTypes": ["Task"],
        "MessageIds": ["Base.1.12.Success"], "EventTypes": ["Alert"], "EventFormatType": "Event"},
    "metrics": {"Id": "Metrics-1", "Protocol": "Redfish", "Destination": "https://c/m",
        "MetricReportDefinitions": [{"@odata.id": "/redfish/v1/TelemetryService/MetricReportDefinitions/1"}]},
    "trap": {"Id": "trap1", "Protocol": "SNMPv1", "Destination": "snmp://10.0.0.1", "SubscriptionType": "SNMPTrap",
        "SNMP": {"TrapCommunity": "public"}},
    "SNMPv3": {"Id": "SNMPv3-1", "Protocol": "SNMPv3", "Destination": "snmp://user@10.0.0.1",
        "SubscriptionType": "SNMPTrap",
        "SNMP": {"AuthenticationProtocol": "HMAC_SHA96", "AuthenticationKey": "Passphrase:secret words",
                 "EncryptionProtocol": "CFB128_AES128", "EncryptionKey": "othersecret"}},
    "SMTP": {"Id": "SMTP-mail", "Protocol": "SMTP", "Destination": "mailto:admin@example.org"},
    "TCP": {"Id": "SyslogTCP-1", "Protocol": "SyslogTCP", "Destination": "10.0.0.2:514", "SubscriptionType": "Syslog",
        "SyslogFilters": [{"LogFacilities": ["Kern", "Auth"], "LowestSeverity": "Error"}, {}]},
    "TLS": {"Id": "SyslogTLS-1", "Protocol": "SyslogTLS", "Destination": "syslog://[::1]:6514"},
    "stream": {"Id": "Stream-01", "Protocol": "Redfish", "Destination": "redfish-sse://10.0.0.1:99", "Context": "s"}
})");

std::string InShort(const Answer& answer) {
  return std::string(answer.status) + (answer.messages.empty() ? "" : " ") + Joined(MessageTexts(answer.messages));
}

void SubscriptionsTest::SetUp() {
  RedisTest::SetUp();
  ForgetMaxEventGroupId();
  ForgetLifeCycleSetting();
  settings_ = ServiceSettings();
  settings_.subordinateResourcesSupported = true;
  settings_.includeOriginOfConditionSupported = true;
  settings_.allowedValues["RegistryPrefixes"] = {"\"Base\"", "\"ResourceEvent\""};
  state_.emplace();
  state_->registryPrefixBits = {{"Base", 1}, {"ResourceEvent", 2}};
  SetProcessState(&settings_, &*state_);

  WriteFile(settings_.paths.passwordFile, "secret");
  WriteFile(settings_.paths.plainDatabaseFile, R"({"Members": [], "@odata.etag": "\"0\""})");
  ASSERT_TRUE(state_->db.EncodeDbFile());
  FillRedis();
}

void SubscriptionsTest::FillRedis() {
  ASSERT_TRUE(SendCommand(redis(), "FLUSHALL"));
  ASSERT_TRUE(WriteResource(redis(), kCollection, {{"@odata.id", kCollection}, {"@odata.etag", "\"0\""}}));
  HashWrite(redis(), "/redfish/v1/EventService", "ServiceEnabled", "true");
  HashWrite(redis(), "webDefaultValue", "MAX_EVENT_GROUP_ID", "1000000");
  const std::pair<const char*, const char*> scripts[] = {
      {"resourceChange", "return redis.call('RPUSH', 'events', table.concat(KEYS, ' ', 1, 3) .. ' ' .. KEYS[5])"},
      {"enqueueEvent", "redis.call('RPUSH', 'queued', KEYS[1]) return 1"},
  };
  for (const auto& [name, script] : scripts) {
    HashWrite(redis(), "redisSHAScripts", name, TextOf(SendArguments(redis(), {"SCRIPT", "LOAD", script})));
  }
}

Request SubscriptionsTest::MakeRequest(const std::string& method, const std::string& uri, const Json& body,
                                       redisContext* connection) {
  for (const std::string& key : KeyListing(redis(), "*request*")) KeyDelete(redis(), key);
  HashBatch record = {{"request",
                       {{"&&RequestMethod", method},
                        {"&&TargetURI", uri},
                        {"&&Privileges", "ConfigureManager"},
                        {"&&SSE-CHANNEL", "stream 1"},
                        {"&&RequestData", "request/RequestData"}}}};
  EXPECT_TRUE(HashBatchWrite(redis(), record));
  EXPECT_TRUE(body.is_null() || WriteResource(redis(), "request/RequestData", body));
  Request request{connection != nullptr ? connection : redis(),
                  {"request", "response"},
                  ReadRequestRecord(redis(), "request"),
                  settings_,
                  &*state_};
  if (body.dump().find("redfish-sse:") != std::string::npos) request.record.isSse = "true";
  return request;
}

std::string SubscriptionsTest::Create(const Json& body) {
  if (body.value("Protocol", "").starts_with("Syslog")) AnswerSyslog(body.value("Id", ""));
  Request request = MakeRequest("POSTCREATE", kCollection, body);
  EXPECT_EQ(InShort(CreateEventDestination(request)), "OK_RES Created()") << body;
  return Field("request", "&&Location");
}

void SubscriptionsTest::AnswerSyslog(const std::string& id, const std::string& answer) {
  ListAppend(redis(), std::string(kSyslogQueue) + "/" + id, answer);
}

Json SubscriptionsTest::Stored(const std::string& uri) {
  Json document;
  EXPECT_TRUE(ReadResource(redis(), uri, document, {.withControlFields = true}));
  return document;
}

std::map<std::string, Json> SubscriptionsTest::InFile() {
  std::map<std::string, Json> members;
  const DbValue root = state_->db.LoadDb();
  const std::unique_ptr<char, decltype(&std::free)> text(json_dumps(root.get(), 0), std::free);
  if (!text) return members;
  const Json document = Json::parse(text.get());
  for (const Json& member : document["Members"]) members[member["@odata.id"]] = member;
  EXPECT_EQ(document["@odata.etag"].dump(), Field(kCollection, "@odata.etag"));
  return members;
}

Names SubscriptionsTest::Elements(const std::string& list) {
  Names elements;
  const RedisReply reply = SendArguments(redis(), {"LRANGE", list, "0", "-1"});
  for (size_t i = 0; IsArray(reply) && i < reply->elements; ++i) elements.emplace_back(TextOf(reply->element[i]));
  return elements;
}

DatabaseDump SubscriptionsTest::Resources() {
  DatabaseDump dump = Dump();
  std::erase_if(dump, [](const auto& entry) {
    const std::string& key = entry.first;
    return key.find("request") != std::string::npos || key.starts_with(kSyslogQueue) ||
           key == "Array-Member-Sequence-ID";
  });
  return dump;
}

}  // namespace event_service
