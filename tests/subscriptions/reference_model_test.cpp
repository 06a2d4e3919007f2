#include "tests/subscriptions/reference_model.h"

#include <gtest/gtest.h>

#include <random>

#include "subscriptions/creation_check.h"
#include "tests/subscriptions/message_text.h"

namespace event_service {
namespace {

using reference_model::World;
using Texts = std::vector<std::string>;

constexpr int kBodies = 100'000;

// Bodies of every kind, which mutation starts from.
const Json kValidBodies = Json::parse(R"([
    {"Protocol": "Redfish", "Destination": "https://[2001:db8::1]:443/a?b=c#d", "Context": "c", "Id": "Client-1",
        "MessageIds": ["Base.1.12.Success"], "ResourceTypes": ["Chassis"], "EventFormatType": "Event",
        "OriginResources": [{"@odata.id": "/redfish/v1/Chassis/1"}], "SubordinateResources": true,
        "HttpHeaders": [{"X-Token": "s3cret", "Accept": "*/*"}], "DeliveryRetryPolicy": "RetryForever"},
    {"Protocol": "Redfish", "Destination": "http://host_1.example:8080", "RegistryPrefixes": ["Base"],
        "Name": "n", "Description": "d", "EventTypes": ["Alert"], "SubscriptionType": "RedfishEvent",
        "VerifyCertificate": true, "SendHeartbeat": true, "HeartbeatIntervalMinutes": 5},
    {"Protocol": "Redfish", "Destination": "redfish-sse://10.0.0.1:443", "SubscriptionType": "SSE"},
    {"Protocol": "Redfish", "Destination": "https://h/", "EventFormatType": "MetricReport",
        "MetricReportDefinitions": [{"@odata.id": "/redfish/v1/TelemetryService/MetricReportDefinitions/a"}]},
    {"Protocol": "SNMPv2c", "Destination": "snmp://10.0.0.1:162", "SubscriptionType": "SNMPTrap",
        "SNMP": {"TrapCommunity": "public", "AuthenticationProtocol": "CommunityString"}},
    {"Protocol": "SNMPv3", "Destination": "snmp://user@10.0.0.1", "SubscriptionType": "SNMPInform",
        "SNMP": {"AuthenticationKey": "Hex:0123456789abcdef01234567", "EncryptionKey": "Passphrase:p",
                 "EncryptionProtocol": "CBC_DES"}},
    {"Protocol": "SMTP", "Destination": "mailto:a%2Bb@example.com,c@d?subject=x"},
    {"Protocol": "SyslogTLS", "Destination": "host:6514", "SubscriptionType": "Syslog",
        "SyslogFilters": [{"LogFacilities": ["Kern", "Local7"], "LowestSeverity": "All"}]},
    {"Protocol": "SyslogTCP", "Destination": "syslog://[::1]:514"}
])");

const Json kValues = Json::parse(R"([
    null, true, 5, -1, 65535.0, 65536, 1.5, 1e30, "", "Base", "Event", "MetricReport", "SNMPTrap", "Syslog", "SSE", "FTP",
    "Redfish", "SNMPv1", "SyslogTLS", "host", "a\u0000b", "&&Object x", "a\r\nb", "Hex:00", {}, {"Foo": 1},
    {"TrapCommunity": ""}, [], [null], [{}], [["x"]], [{"a b": "1"}], ["Base", "Task", 5], ["&&Array x", "Base.1.12.Created"],
    [{"@odata.id": "/redfish/v1/a/../b"}, {"@odata.id": "/other"}, {"@odata.id": 1}]
])");

const Json kNames = Json::parse(R"([
    "Actions", "Context", "Description", "Destination", "EventFormatType", "EventTypes", "HeartbeatIntervalMinutes",
    "HttpHeaders", "Id", "IncludeOriginOfCondition", "MessageIds", "MetricReportDefinitions", "Name", "Oem",
    "OriginResources", "Protocol", "RegistryPrefixes", "ResourceTypes", "SNMP", "Status", "SubordinateResources",
    "SubscriptionType", "SyslogFilters", "TrapCommunity", "AuthenticationKey", "AuthenticationKeySet",
    "EncryptionProtocol", "LowestSeverity", "LogFacilities", "Foo", "protocol", "&&SSE-CHANNEL", "Context@odata.type",
    "X-Header", "bad header"
])");

class Mutator {
 public:
  const Json& Pick(const Json& array) { return array[Below(array.size())]; }
  size_t Below(size_t limit) { return std::uniform_int_distribution<size_t>(0, limit - 1)(random_); }

  Json Body() {
    Json body = Pick(kValidBodies);
    for (size_t mutations = Below(4); mutations > 0; --mutations) Mutate(body);
    return body;
  }

 private:
  Json Value() { return Below(50) == 0 ? Json(std::string(1020 + Below(10), 'x')) : Pick(kValues); }

  /// Changes one thing, here or deeper down.
  void Mutate(Json& value) {
    if (value.is_structured() && !value.empty() && Below(4) != 0)
      return Mutate(*std::next(value.begin(), long(Below(value.size()))));
    if (value.is_object()) return MutateObject(value);
    if (value.is_string() && Below(3) != 0) return MutateText(value.get_ref<std::string&>());
    if (value.is_array() && Below(3) == 0) {
      value = Below(9) == 0 ? Json(255 + Below(4), value.empty() ? Json("Base") : value[0]) : value;
      value.push_back(Value());
    } else {
      value = Value();
    }
  }
  void MutateObject(Json& object) {
    if (Below(3) != 0 || object.empty()) {
      object[Pick(kNames).get<std::string>()] = Value();
    } else {
      object.erase(std::next(object.begin(), long(Below(object.size()))));
    }
  }
  void MutateText(std::string& text) {
    constexpr std::string_view kCharacters = "aZ0:/@[]%?#. -_,&\"\\\x01";
    const size_t at = Below(text.size() + 1);
    text.replace(at, Below(2), 1 + Below(2), kCharacters[Below(kCharacters.size())]);
  }

  std::mt19937 random_{20240229};
};

ServiceSettings SettingsOf(const World& world) {
  const auto quoted = [](const Texts& texts) {
    Texts jsonTexts;
    for (const std::string& text : texts) jsonTexts.push_back('"' + text + '"');
    return jsonTexts;
  };
  ServiceSettings settings;
  settings.subordinateResourcesSupported = world.subordinateResources;
  settings.includeOriginOfConditionSupported = world.includeOriginOfCondition;
  settings.allowedValues["MessageIds"] = quoted(world.messageIds);
  settings.allowedValues["ResourceTypes"] = quoted(world.resourceTypes);
  settings.allowedValues["RegistryPrefixes"] = quoted(world.registryPrefixes);
  settings.paths.headerValidatorModule = "/nonexistent/module";
  return settings;
}

Texts Verdict(const Json& body, const World& world, const ServiceSettings& settings) {
  const auto answer = CheckCreation(
      body, {.settings = settings, .syslogTlsDestinations = world.syslogTlsDestinations, .isSse = world.isSse});
  if (!answer) return {};
  Texts verdict = MessageTexts(answer->messages);
  verdict.insert(verdict.begin(), std::string(answer->status));
  return verdict;
}

TEST(ReferenceModel, AgreesAboutRandomBodies) {
  const World everything = {.messageIds = {"Base.1.12.Success", "Base.1.12.Created"},
                            .resourceTypes = {"Chassis", "Task"},
                            .registryPrefixes = {"Base"}};
  World nothing = {.subordinateResources = false, .includeOriginOfCondition = false, .syslogTlsDestinations = 3};
  World stream = everything;
  stream.isSse = true;
  World undiscovered = everything;
  undiscovered.messageIds = undiscovered.resourceTypes = {};
  const World worlds[] = {everything, nothing, stream, undiscovered};
  const ServiceSettings settings[] = {SettingsOf(worlds[0]), SettingsOf(worlds[1]), SettingsOf(worlds[2]),
                                      SettingsOf(worlds[3])};
  for (const Json& body : kValidBodies) {
    EXPECT_EQ(Verdict(body, worlds[body.value("SubscriptionType", "") == "SSE" ? 2 : 0], settings[2]), Texts()) << body;
  }
  Mutator mutator;
  int accepted = 0;
  for (int i = 0; i < kBodies; ++i) {
    const Json body = mutator.Body();
    const size_t world = mutator.Below(4);
    const Texts expected = reference_model::Verdict(body, worlds[world]);
    ASSERT_EQ(Verdict(body, worlds[world], settings[world]), expected) << body << " in world " << world;
    accepted += expected.empty() ? 1 : 0;
  }
  EXPECT_GT(accepted, kBodies / 10);
  EXPECT_LT(accepted, kBodies / 2);
}

}  // namespace
}  // namespace event_service
