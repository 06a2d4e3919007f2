#include "tests/subscriptions/reference_model.h"

#include <random>

#include "tests/subscriptions/subscriptions_fixture.h"

namespace event_service {
namespace {

constexpr int kTries = 100'000;

const Json kValues = Json::parse(R"([
    null, true, 5, -1, 0, 65535.0, 65536, 1.5, 1e30, "", "Base", "Event", "MetricReport", "SNMPTrap", "Syslog", "SSE",
    "FTP", "Redfish", "SNMPv1", "SyslogTLS", "LPR", ".", "..", "a\u0000b", "&&Object x", "a\r\nb", "Passphrase:", {},
    {"Foo": 1}, {"TrapCommunity": ""}, [], [null], [{}], [["x"]], [{"a b": "1"}], ["Base", "Task", 5], ["&&Array x",
    "Base.1.12.Created"], [{"@odata.id": "/redfish/v1/a/../b"}, {"@odata.id": "/other"},
    {"@odata.id": "/redfish/v1/a#/b/0"}, {"@odata.id": 1}], "host", "host:", "host/", "[fe80::1]:514", "fe80::1",
    "user@host", "https://user@host/", "https://@h/", "//host/x", "HTTP://host:/", "https://host:0/", "https:host",
    "https://*/", "http://[::1", "https://[v1.a]/", "redfish-sse://h", "syslog://h@h", "MAILTO:a@b", "mailto:@b",
    "mailto:a@b,", "mailto:a%0dRcpt@b", "mailto:a@b?subject=x", "mailto:-a@b", "Total_Num_Subscriber", "Members", "_.",
    "-a", "snmp://", "snmp://[::1]:162", "snmp://u:p@h", "https://u:p@ss@h/", "u:p@h", "u:p://s@h",
    "https://[fe80::1%25eth0.1]/", "[::1%25]", "a..b", "-a.b", "a.-b"])");

const Json kNames = Json::parse(R"([
    "Actions", "Context", "Description", "Destination", "EventFormatType", "EventTypes", "HeartbeatIntervalMinutes",
    "Oem", "HttpHeaders", "Id", "IncludeOriginOfCondition", "MessageIds", "MetricReportDefinitions", "Name",
    "OriginResources", "Protocol", "RegistryPrefixes", "ResourceTypes", "SNMP", "Status", "SubordinateResources",
    "SubscriptionType", "SyslogFilters", "TrapCommunity", "AuthenticationKey", "AuthenticationKeySet",
    "EncryptionProtocol", "LowestSeverity", "LogFacilities", "Foo", "protocol", "&&SSE-CHANNEL", "A@odata.type",
    "x!#$%&'*+-.^_`|~9", "bad header", "host", "Connection", "Upgrade2", "N\r\n", ""])");

class Mutator {
 public:
  size_t Below(size_t limit) { return std::uniform_int_distribution<size_t>(0, limit - 1)(random_); }

  template <typename Container>
  auto& Pick(Container& container) {
    return *std::next(std::begin(container), static_cast<std::ptrdiff_t>(Below(std::size(container))));
  }
  /// A body of some kind with up to three changes.
  Json Body() {
    Json body = Pick(kBodies);
    for (size_t mutations = Below(4); mutations > 0; --mutations) Mutate(body);
    return body;
  }

 private:
  /// Long texts are about as long as some limit.
  Json Value() {
    constexpr size_t kLimits[] = {64, 1024, 2048, 8192 - 17};
    if (Below(30) != 0) return Pick(kValues);
    return std::string(Pick(kLimits) - 1 + Below(3), 'x');
  }

  /// Changes one thing, here or deeper down.
  void Mutate(Json& value) {
    if (value.is_structured() && !value.empty() && Below(4) != 0) return Mutate(Pick(value));
    if (value.is_object() && !value.empty() && Below(3) == 0) {
      value.erase(std::next(value.begin(), static_cast<std::ptrdiff_t>(Below(value.size()))));
    } else if (value.is_object()) {
      value[Pick(kNames).get<std::string>()] = Value();
    } else if (value.is_string() && Below(3) != 0) {
      constexpr std::string_view kCharacters = "aZ0:/@[]%?#. -_,&\"\\*\x01";
      std::string& text = value.get_ref<std::string&>();
      if (text.starts_with("Hex:") && Below(2) == 0) {
        text.resize(4 + 14 + Below(84), 'a');
      } else {
        text.replace(Below(text.size() + 1), Below(2), 1 + Below(2), Pick(kCharacters));
      }
    } else if (value.is_array() && Below(3) == 0) {
      if (Below(9) == 0) value = Json(255 + Below(4), value.empty() ? Json("Base") : value[0]);
      value.push_back(Value());
    } else {
      value = Value();
    }
  }

  std::mt19937 random_{20240229};
};

TEST(ReferenceModel, AgreesAboutRandomBodies) {
  ServiceSettings everything;
  everything.subordinateResourcesSupported = everything.includeOriginOfConditionSupported = true;
  everything.paths.headerValidatorModule = "/nonexistent/module";
  everything.allowedValues["MessageIds"] = {R"("Base.1.12.Success")", R"("Base.1.12.Created")"};
  everything.allowedValues["ResourceTypes"] = {R"("Chassis")", R"("Task")"};
  everything.allowedValues["RegistryPrefixes"] = {R"("Base")", R"("ResourceEvent")"};
  ServiceSettings nothing;
  nothing.paths = everything.paths;
  for (const char* name : {"MessageIds", "ResourceTypes", "RegistryPrefixes"}) nothing.allowedValues[name] = {};
  ServiceSettings undiscovered = everything;
  undiscovered.allowedValues["MessageIds"] = undiscovered.allowedValues["ResourceTypes"] = {};
  const CreationCircumstances worlds[] = {{.settings = everything},
                                          {.settings = everything, .isSse = true},
                                          {.settings = undiscovered, .syslogTlsDestinations = 2},
                                          {.settings = nothing, .syslogTlsDestinations = 3}};
  Mutator mutator;
  int accepted = 0;
  for (int i = 0; i < kTries; ++i) {
    const Json body = mutator.Body();
    const size_t world = mutator.Below(std::size(worlds));
    const std::string expected = reference_model::Verdict(body, worlds[world]);
    const Answer answer = CheckCreation(body, worlds[world]).value_or(Answer{});
    ASSERT_EQ(InShort(answer) + answer.logText, expected) << body << world;
    accepted += expected.empty() ? 1 : 0;
  }
  EXPECT_GT(accepted, kTries / 10);
  EXPECT_LT(accepted, kTries / 2);
}

}  // namespace
}  // namespace event_service
