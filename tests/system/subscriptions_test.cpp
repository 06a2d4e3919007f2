#include <chrono>
#include <map>
#include <thread>

#include "resource_store/resource_reader.h"
#include "tests/system/daemon_test.h"
#include "tests/system/syslog_server.h"

namespace event_service {
namespace {

const char* const kEveryKind[] = {
    R"({"Id": "redfish-event", "Destination": "https://collector.example.com/e", "Protocol": "Redfish",
        "Context": "awkward \" \\ / ~ \u00e9 %s", "HttpHeaders": [{"X-Token": "header-secret"}, {"X-Other": "b"}],
        "RegistryPrefixes": ["ResourceEvent", "Base", "Base"], "ResourceTypes": ["Chassis"],
        "OriginResources": [{"@odata.id": "/redfish/v1/Chassis/1"}, {"@odata.id": "/redfish/v1/Systems/"}],
        "SubordinateResources": true, "DeliveryRetryPolicy": "SuspendRetries"})",
    R"({"Id": "message-ids", "Destination": "http://[fe80::1]:8080/", "Protocol": "Redfish",
        "MessageIds": ["ResourceEvent.1.2.ResourceChanged"], "IncludeOriginOfCondition": true})",
    R"({"Id": "metric-report", "Destination": "https://collector.example.com/m", "Protocol": "Redfish",
        "MetricReportDefinitions": [{"@odata.id": "/redfish/v1/TelemetryService/MetricReportDefinitions/1"}]})",
    R"({"Id": "snmp-version3", "Destination": "snmp://user@192.0.2.1:162", "Protocol": "SNMPv3",
        "SubscriptionType": "SNMPInform", "SNMP": {"AuthenticationProtocol": "HMAC128_SHA224",
        "AuthenticationKey": "Passphrase:auth-secret", "EncryptionProtocol": "CFB128_AES128",
        "EncryptionKey": "Passphrase:priv-secret"}})",
    R"({"Id": "trap7", "Destination": "snmp://192.0.2.1", "Protocol": "SNMPv2c", "SubscriptionType": "SNMPTrap",
        "SNMP": {"TrapCommunity": "community-secret"}})",
    R"({"Id": "mail-to-ops", "Destination": "mailto:ops@example.com", "Protocol": "SMTP"})",
    R"({"Id": "syslog-tcp-1", "Destination": "logs.example.com", "Protocol": "SyslogTCP"})",
    R"({"Id": "syslog-tls-1", "Destination": "logs.example.com:6514", "Protocol": "SyslogTLS",
        "SyslogFilters": [{"LogFacilities": ["Daemon"], "LowestSeverity": "Warning"}]})",
};

class Subscriptions : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    StartDaemon();
  }

  static std::string UriOf(const std::string& id) { return std::string(kCollection) + "/" + id; }

  void CreateEveryKind() {
    const SyslogServer syslog;
    for (const char* body : kEveryKind) {
      const FrontEndAnswer answer = Ask("POST", kCollection, body);
      EXPECT_EQ(InShort(answer), "OK_RES Base.1.12.Created()") << body;
      EXPECT_EQ(answer.location, UriOf(Json::parse(body)["Id"])) << body;
    }
  }

  /// Every member as it is stored, hidden fields and encrypted credentials included.
  std::map<std::string, Json> StoredMembers() {
    std::map<std::string, Json> members;
    for (const Json& entry : Value(kCollection, "/Members")) {
      const std::string uri = entry["@odata.id"];
      ReadResource(redis(), uri, members[uri], {.withControlFields = true});
    }
    return members;
  }

  DatabaseDump OriginIndex() {
    DatabaseDump dump = Dump();
    std::erase_if(dump, [](const auto& entry) { return !entry.first.starts_with("&&subs:"); });
    return dump;
  }
};

TEST_F(Subscriptions, OfEveryKindSurviveWhateverGoesDown) {
  CreateEveryKind();
  const std::map<std::string, Json> members = StoredMembers();
  const DatabaseDump index = OriginIndex();
  const Json etag = Value(kCollection, "/@odata.etag");
  ASSERT_EQ(members.size(), std::size(kEveryKind));
  ASSERT_EQ(index.size(), 6U) << "*, two origins with what is below them, metric reports";

  daemon().Kill();
  StartDaemon();
  EXPECT_EQ(StoredMembers(), members) << "after a restart of the daemon alone";
  EXPECT_EQ(OriginIndex(), index);
  for (int cycle = 1; cycle <= 3; ++cycle) {
    PowerCycle();
    EXPECT_EQ(StoredMembers(), members) << "after power cycle " << cycle;
    EXPECT_EQ(OriginIndex(), index) << "after power cycle " << cycle;
    EXPECT_EQ(Value(kCollection, "/@odata.etag"), etag);
    EXPECT_EQ(Value(kCollection, "/Members@odata.count"), std::size(kEveryKind));
  }
  EXPECT_EQ(Value(UriOf("trap7"), "/Status/State"), "Disabled");
}

TEST_F(Subscriptions, SecretsAreNowhereToBeReadAndNoFileIsOpenToOthers) {
  CreateEveryKind();
  EXPECT_EQ(AskShort("PATCH", UriOf("snmp-version3"), R"({"SNMP": {"EncryptionKey": "Passphrase:patched-secret"}})"),
            "OK_RES Base.1.12.Success()");
  EXPECT_EQ(AskShort("PATCH", kService, R"({"SMTP": {"Password": "smtp-secret"}})"), "OK_RES Base.1.12.Success()");
  EXPECT_EQ(Value(kService, "/SMTP/Password"), Json());
  EXPECT_EQ(AskShort("GET", UriOf("redfish-event")), "");
  EXPECT_EQ(Value(UriOf("redfish-event"), "/HttpHeaders"), Json::array());
  EXPECT_EQ(AskShort("GET", UriOf("snmp-version3")), "");
  const Json snmp = Value(UriOf("snmp-version3"), "/SNMP");
  EXPECT_EQ(snmp["AuthenticationKey"], Json());
  EXPECT_EQ(snmp["AuthenticationKeySet"], true);

  // The delivery side reads header values from Redis; everything else is encrypted there.
  for (const auto& [key, content] : Dump()) {
    if (key.find("/HttpHeaders/") != std::string::npos) continue;
    EXPECT_EQ(content.find("-secret"), std::string::npos) << key;
  }
  EXPECT_EQ((Log() + Output()).find("-secret"), std::string::npos);
  const std::string folder = Sandbox().Root() + "/var/nginx";
  EXPECT_EQ(RunCommand("find " + folder + " -type f -perm /077"), "");
  EXPECT_EQ(RunCommand("grep -rl -e -secret " + folder + " || true"), "");
}

TEST_F(Subscriptions, GeneratedOnesExistOnceAfterAnyNumberOfStarts) {
  WriteFile(Sandbox().Paths().generatedDestinations, R"({"Members": [
    {"Destination": "https://generated.example.com/1", "Protocol": "Redfish", "Context": "first"},
    {"Destination": "ftp://generated.example.com/2", "Protocol": "Redfish"},
    {"Id": "generated-3", "Destination": "https://generated.example.com/3", "Protocol": "Redfish"}]})");
  for (int start = 1; start <= 3; ++start) {
    PowerCycle();
    for (int tries = 0; tries < 500 && Value(kCollection, "/Members@odata.count") != 2; ++tries) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // a surplus one would come now
    EXPECT_EQ(Value(kCollection, "/Members@odata.count"), 2) << "start " << start;
    EXPECT_EQ(Value(UriOf("generated-3"), "/Destination"), "https://generated.example.com/3");
  }
}

TEST_F(Subscriptions, BothListenersServeAtTheSameTime) {
  std::thread service([] {
    const RedisContext redis(redisConnectContext());
    for (int i = 0; i < 60; ++i) {
      const FrontEndRequest request{
          .method = "PATCH", .targetUri = kService, .body = Json::object({{"DeliveryRetryAttempts", i}})};
      EXPECT_EQ(InShort(SendRequest(redis.get(), request).value_or(FrontEndAnswer{})), "OK_RES Base.1.12.Success()");
    }
  });
  const std::string body = R"({"Destination": "https://c.example.com", "Protocol": "Redfish"})";
  for (int i = 0; i < 10; ++i) {
    const std::string uri = Ask("POST", kCollection, body).location;
    EXPECT_EQ(AskShort("PATCH", uri, R"({"Context": "changed"})"), "OK_RES Base.1.12.Success()");
    EXPECT_EQ(AskShort("DELETE", uri), "OK_EMPTY");
  }
  service.join();
  EXPECT_EQ(Value(kService, "/DeliveryRetryAttempts"), 59);
  EXPECT_EQ(Log().find("[Error]", Log().find("Failed to read password") + 1), std::string::npos) << Log();
}

}  // namespace
}  // namespace event_service
