/// What a creation and a PATCH may hold: rows of values, without Redis. The platform's header validator: what it is
/// asked, and what becomes of its answers and failures.
#include <filesystem>
#include <thread>

#include "subscriptions/judgement/creation_check.h"
#include "subscriptions/judgement/patch_check.h"
#include "subscriptions/resource/filter_mask.h"
#include "tests/subscriptions/subscriptions_fixture.h"

namespace event_service {
namespace {

/// With lists of discovered values, or with empty ones.
ServiceSettings MakeSettings(bool hasDiscovered) {
  ServiceSettings settings;
  settings.subordinateResourcesSupported = settings.includeOriginOfConditionSupported = hasDiscovered;
  settings.paths.headerValidatorModule = "/nonexistent/module";
  for (const char* name : {"MessageIds", "ResourceTypes", "RegistryPrefixes"}) {
    if (hasDiscovered) settings.allowedValues[name] = {"\"Base\"", "\"Base.1.12.Success\"", "\"Task\""};
  }
  return settings;
}
const ServiceSettings kEverything = MakeSettings(true);
const ServiceSettings kNothing = MakeSettings(false);

std::string Check(const Json& body, const CreationCircumstances& circumstances) {
  return InShort(CheckCreation(body, circumstances).value_or(Answer{}));
}

/// Of bodies that are SMTP's unless they say otherwise.
const char* const kRows = R"json([
["PropertyNotWritable", ["Actions", "Certificates", "ClientCertificates", "OEMProtocol", "OEMSubscriptionType", "Oem",
  "Status", "SNMP/AuthenticationKeySet", "SNMP/EncryptionKeySet"], [null, 1]],
["PropertyUnknown", ["Foo", "protocol", "SNMP/Foo", "SyslogFilters/0/Foo"], [null, 1]],
["", ["&&SSE-CHANNEL", "A@odata.type", "SNMP/x@Redfish.y", "@Message.z"], [null, 1]],
["", ["Context", "Description"], [null, "", "&&Object x", "a\r\nb"]],
["", ["Name"], ["", "x"]],
["PropertyValueTypeError", ["Context", "Description"], [5, true, {}, []]],
["PropertyValueTypeError", ["Destination", "Id", "Name", "Protocol", "SNMP"], [null, 5, []]],
["PropertyValueFormatError", ["Context", "Description", "Destination", "Id", "Name"], ["a\u0000b"]],
["", ["DeliveryRetryPolicy"], [null, "TerminateAfterRetries", "SuspendRetries", "RetryForeverWithBackoff"]],
["", ["EventFormatType"], [null, "Event", "MetricReport"]],
["", ["SNMP/AuthenticationProtocol"], [null, "None", "HMAC384_SHA512"]],
["", ["SNMP/EncryptionProtocol"], [null, "None", "CFB128_AES128"]],
["", ["SyslogFilters/0/LowestSeverity"], [null, "Emergency", "All"]],
["", ["SubscriptionType"], [null, "RedfishEvent", "SNMPTrap", "SNMPInform"]],
["", ["SubscriptionType"], ["Syslog"], "TLS"],
["PropertyValueTypeError", ["DeliveryRetryPolicy", "EventFormatType", "SubscriptionType",
  "SNMP/AuthenticationProtocol", "SNMP/EncryptionProtocol", "SyslogFilters/0/LowestSeverity"], [5, {}, []]],
["PropertyValueNotInList", ["DeliveryRetryPolicy", "EventFormatType", "SubscriptionType", "Protocol",
  "SNMP/AuthenticationProtocol", "SNMP/EncryptionProtocol", "SyslogFilters/0/LowestSeverity"], ["", "none", "SSE"]],
["PropertyValueNotInList", ["SubscriptionType"], ["Syslog"]],
["PropertyValueNotInList", ["Protocol"], ["FTP", "redfish", "SNMPv4", "OEM"]],
["", ["IncludeOriginOfCondition", "SendHeartbeat", "SubordinateResources", "VerifyCertificate"], [null, true, false]],
["PropertyValueTypeError", ["IncludeOriginOfCondition", "SendHeartbeat", "SubordinateResources", "VerifyCertificate"],
  [0, "true", []]],
["", ["HeartbeatIntervalMinutes"], [null, 1, 25.0, 65535, 65535.0]],
["PropertyValueTypeError", ["HeartbeatIntervalMinutes"], [1.5, "5", true, []]],
["PropertyValueOutOfRange", ["HeartbeatIntervalMinutes"], [0, -1, 65536, 1e30]],
["", ["Id"], ["", "a", "_.", "A-z_0.9", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"]],
["PropertyValueFormatError", ["Id"], ["-a", ".a", "a b", "a/b", "é", "Members", "Actions", "CHANNEL", "SSE-ALL",
  "Total_Num_Subscriber", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"]],
["", ["EventTypes", "MessageIds", "MetricReportDefinitions", "OriginResources", "RegistryPrefixes", "ResourceTypes",
  "SyslogFilters", "HttpHeaders"], [[]]],
["PropertyValueTypeError", ["EventTypes", "MessageIds", "MetricReportDefinitions", "OriginResources",
  "RegistryPrefixes", "ResourceTypes", "SyslogFilters", "SyslogFilters/0/LogFacilities"], [null, 5, {}, "x"]],
["", ["EventTypes/0"], ["StatusChange", "Other"]],
["PropertyValueNotInList", ["EventTypes/0", "SyslogFilters/0/LogFacilities/0"], ["", "alert"]],
["PropertyValueTypeError", ["EventTypes/0", "SyslogFilters/0/LogFacilities/1"], [5, {}, "&&Object x"]],
["PropertyValueTypeError", ["EventTypes/0"], [null]],
["", ["MessageIds/0", "RegistryPrefixes/0", "ResourceTypes/0"], ["Base", "Task"]],
["PropertyValueNotInList", ["MessageIds/0", "RegistryPrefixes/0", "ResourceTypes/0"], [null, "base"]],
["PropertyValueTypeError", ["MessageIds/0", "RegistryPrefixes/0", "ResourceTypes/0"], [5, {}, "&&Array x"]],
["", ["MetricReportDefinitions/0", "OriginResources/0"],
  [{"@odata.id": "/redfish/v1/a#/b/0"}, {"@odata.id": "/redfish/v1/..a"}]],
["PropertyValueTypeError", ["MetricReportDefinitions/0", "OriginResources/0"],
  [null, 5, "/redfish/v1/a", [], {}, {"@odata.id": 1}]],
["PropertyValueFormatError", ["MetricReportDefinitions/0", "OriginResources/0"], [{"@odata.id": "/redfish/v1/a/../b"},
  {"@odata.id": "/redfish/v1/."}, {"@odata.id": "/other"}, {"@odata.id": "/redfish/v1/a b"}]],
["", ["SyslogFilters/0"], [null, {}, {"LogFacilities": [null, "Kern", "Local7"], "LowestSeverity": null}]],
["PropertyValueTypeError", ["SyslogFilters/0"], [5, "x", []]],
["", ["HttpHeaders"], [[{}], [{"A": "", "b": "a b"}, {"A": "c"}]]],
["", ["HttpHeaders/0/x!#$%&'*+-.^_`|~09", "HttpHeaders/0/Upgrade2", "HttpHeaders/0/X-Host"], ["x"]],
["PropertyValueError", ["HttpHeaders"], [null, 5, {}, "x"]],
["PropertyValueError", ["HttpHeaders/0"], [null, "x", [], {"@odata.id": "/x"}]],
["PropertyValueError", ["HttpHeaders/0/A"], [null, 5, {}, "a\r\nb", "\u0000", "\u007f"]],
["", ["SNMP/TrapCommunity"], [null, "", "public"]],
["PropertyValueError", ["SNMP/TrapCommunity"], [5, {}, "a\u0000b"]],
["", ["SNMP/AuthenticationKey", "SNMP/EncryptionKey"], ["x", "hex:", "Passphrase:a b", "Hex:0123456789abcdefABCDEF00"]],
["", ["SNMP/AuthenticationKey"], ["Hex:aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"]],
["", ["SNMP/EncryptionKey"], ["Hex:0123456789abcdef", "Hex:aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"]],
["PropertyValueError", ["SNMP/AuthenticationKey", "SNMP/EncryptionKey"], [null, 5, "", "a\nb", "é", "Hex:",
  "Passphrase:", "Hex:0123456789abcde", "Hex:g123456789abcdefABCDEF00"]],
["PropertyValueError", ["SNMP/AuthenticationKey"], ["Hex:0123456789abcdef0123456",
  "Hex:aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"]],
["PropertyValueError", ["SNMP/EncryptionKey"], ["Hex:aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"]],
["", ["Destination"], ["https://host", "HTTP://host:/", "https://[fe80::1%25eth0.1]/", "http://a_b.c:80/x?y#z"],
  "metrics"],
["PropertyValueFormatError", ["Destination"], ["", "host", "http://", "https:host", "https://*/", "http://[::1",
  "https://[v1.a]/", "https://host:0/", "https://host:65536/", "//host/x", "redfish-sse://h", "https://user@host/",
  "https://@h/", "https://a..b", "https://-a.b", "https://a.-b", "https://h/ x", "https://[::1%25]"], "metrics"],
["", ["Destination"], ["host", "host:162", "[::1]:162", "snmp://u@h", "SNMP://[fe80::1]/"], "trap"],
["PropertyValueFormatError", ["Destination"], ["fe80::1", "host:", "host/", "user@host", "snmp://", "https://h"],
  "inform"],
["", ["Destination"], ["mailto:a@b", "MAILTO:a+b.c=d@b.c"]],
["PropertyValueFormatError", ["Destination"], ["mailto:a", "a@b", "mailto:@b", "mailto:a@b,", "mailto:a%0dRcpt@b",
  "mailto:a@b?subject=x", "mailto:-a@b"]],
["", ["Destination"], ["10.0.0.2:514", "[fe80::1]", "syslog://[::1]:6514"], "TCP"],
["PropertyValueFormatError", ["Destination"], ["syslog://h@h", "tcp://h", "h?x", "h#x", "[::1%25]"], "TLS"]])json";

TEST(Judgement, EachPropertyHasItsValues) {
  ExpectFaults(kRows, [](const std::string& kind, const Json::json_pointer& place, const Json& value) {
    Json body = kBodies[kind.empty() ? "SMTP" : kind];
    body[place] = value;
    return CheckCreation(body, {.settings = kEverything}).value_or(Answer{}).messages;
  });
}

TEST(Judgement, TextsAndArraysHaveTheirLimits) {
  const struct {
    std::string fault;
    std::vector<std::string> paths;
    size_t limit;
    Json element = "x";  // one: it is about a text
  } rows[] = {
      {"StringValueTooLong", {"Context", "Name", "MessageIds/0", "SNMP/AuthenticationProtocol"}, 1024},
      {"StringValueTooLong", {"Destination"}, 2048},
      {"PropertyValueError", {"SNMP/TrapCommunity", "SNMP/EncryptionKey"}, 1024},
      {"PropertyValueError", {"HttpHeaders/0/ABCDE"}, 8192 - 5},
      {"PropertyValueError", {"SyslogFilters"}, 256, nullptr},
      {"PropertyValueError", {"OriginResources", "MetricReportDefinitions"}, 256, {{"@odata.id", "/redfish/v1/a"}}},
      {"PropertyValueError", {"HttpHeaders"}, 256, {{"A", "b"}}},
      {"PropertyValueError", {"EventTypes"}, 256, "Other"},
  };
  for (const auto& row : rows) {
    for (const std::string& path : row.paths) {
      const std::string longest = "https://" + std::string(row.limit - 8, 'x');
      const std::string shown = longest.substr(0, 64) + ", " + std::to_string(row.limit);
      const std::string refusal = "FAILURE " + row.fault + "(" + (row.fault[0] == 'S' ? shown : path) + ") @" + path;
      for (const size_t excess : {size_t{0}, size_t{1}}) {
        const Json array(row.limit + excess, row.element);
        Json body = kBodies["metrics"];
        body[Json::json_pointer("/" + path)] = row.element == "x" ? Json(longest + std::string(excess, 'x')) : array;
        EXPECT_EQ(Check(body, {.settings = kNothing}) == refusal, excess == 1) << path;
      }
    }
  }
  EXPECT_TRUE(Check({{"OriginResources", {{{"@odata.id", "/redfish/v1/" + std::string(1025 - 12, 'x')}}}}},
                    {.settings = kNothing})
                  .starts_with("FAILURE StringValueTooLong(/redfish"));
  Json unknown = Json::object();
  for (int i = 0; i < 1000; ++i) unknown["a b" + std::to_string(i)] = "";
  EXPECT_EQ(CheckCreation(unknown, {.settings = kNothing})->messages.size(), kMostMessages);
  EXPECT_EQ(CheckCreation({{"HttpHeaders", {unknown}}, {"Id", 5}}, {.settings = kNothing})->messages.size(),
            kMostMessages);
  unknown["b"] = unknown["VerifyCertificate"] = 1;  // what is not listed refuses all the same
  EXPECT_EQ(JudgePatch(unknown, Json::object(), kNothing).answer->status, kFailure);
}

TEST(Judgement, HeaderNamesAreTokensOfTheClient) {
  for (const char* name : {"", "bad header", "a:b", "N\r\n", "\xc3\xa9", "host", "CONTENT-LENGTH", "Transfer-Encoding",
                           "Connection", "upgrade"}) {
    const std::string refused =
        "FAILURE PropertyValueFormatError(" + std::string(name) + ", HttpHeaders/0) @HttpHeaders/0";
    EXPECT_EQ(Check({{"HttpHeaders", {{{name, 5}, {"A", "x"}}}}}, {.settings = kNothing}), refused);
  }
}

TEST(Judgement, TheFirstFindingGroupAnswers) {
  const CreationCircumstances poor{.settings = kNothing, .syslogTlsDestinations = 3};
  const CreationCircumstances rich{.settings = kEverything, .syslogTlsDestinations = 2};
  const CreationCircumstances stream{.settings = kEverything, .isSse = true};
  const std::string notImplemented = "NOT_SUPPORTED ExtendedError.1.2.NotImplemented(";
  const std::string unprocessable = "FAILURE ExtendedError.1.2.UnprocessableEntity(";
  const struct {
    const CreationCircumstances& world;
    const char* body;
    std::string outcome = "";
  } rows[] = {
      {poor, R"({"IncludeOriginOfCondition": 5, "SubordinateResources": null, "Protocol": "SyslogTLS"})",
       notImplemented + "SubordinateResources, IncludeOriginOfCondition)"},
      {poor, R"({"IncludeOriginOfCondition": true})", notImplemented + "IncludeOriginOfCondition)"},
      {poor, R"({"Protocol": "SyslogTLS", "Foo": 1})", "FAILURE CreateLimitReachedForResource()"},
      {poor, R"({"Protocol": "SyslogTCP", "Destination": "h"})"},
      {rich, R"({"Protocol": "SyslogTLS", "Destination": "h"})"},
      {poor, R"({"RegistryPrefixes": [], "Zoo": 1})", notImplemented + "RegistryPrefixes)"},
      {poor, R"({"RegistryPrefixes": {}, "Foo": 1})",
       "FAILURE PropertyUnknown(Foo) @Foo, PropertyValueTypeError({}, RegistryPrefixes) @RegistryPrefixes"},
      {poor,
       R"({"MessageIds": [null, "any"], "ResourceTypes": [null], "Protocol": "SMTP", "Destination": "mailto:a@b"})"},
      {rich,
       R"({"Protocol": "FTP", "Destination": 5, "SubscriptionType": "Syslog", "a~/b": 1, "SNMP": {"EncryptionKey": 5},
          "HeartbeatIntervalMinutes": {"Password": "x"}, "MetricReportDefinitions": [{"@odata.id": "/x"}, 5]})",
       "FAILURE PropertyValueTypeError({\"Password\":null}, HeartbeatIntervalMinutes) @HeartbeatIntervalMinutes, "
       "PropertyValueFormatError(/x, MetricReportDefinitions/0) @MetricReportDefinitions/0, "
       "PropertyValueTypeError(5, MetricReportDefinitions/1) @MetricReportDefinitions/1, "
       "PropertyValueNotInList(FTP, Protocol) @Protocol, PropertyValueError(SNMP/EncryptionKey) @SNMP/EncryptionKey, "
       "PropertyUnknown(a~/b) @a~0~1b"},
      {rich, R"({"Protocol": "Redfish", "Destination": "https://u:p@ss@h/"})",
       "FAILURE PropertyValueFormatError(...@h/, Destination) @Destination"},
      {rich, R"({"Protocol": "SNMPv3", "Destination": "u:p://s@h"})",
       "FAILURE PropertyValueFormatError(...@h, Destination) @Destination"},
      {rich, R"({"MetricReportDefinitions": [], "SubordinateResources": null, "OriginResources": []})",
       unprocessable + "OriginResources, MetricReportDefinitions)"},
      {rich, R"({"EventFormatType": "MetricReport", "IncludeOriginOfCondition": false})",
       unprocessable + "IncludeOriginOfCondition, EventFormatType)"},
      {rich, R"({"EventFormatType": "Event", "MetricReportDefinitions": []})",
       unprocessable + "MetricReportDefinitions, EventFormatType)"},
      {rich, R"({"MessageIds": [], "RegistryPrefixes": []})", unprocessable + "RegistryPrefixes, MessageIds)"},
      {rich, R"({"Destination": "any", "SubscriptionType": "Syslog"})",
       "EXCEPTION ExtendedError.1.2.DatabaseOperationError()"},
      {rich, R"({"Protocol": "SNMPv3", "SubscriptionType": null})", unprocessable + "SubscriptionType, Protocol)"},
      {rich, R"({"Protocol": "SNMPv1", "SubscriptionType": "SNMPTrap", "SNMP": {"TrapCommunity": ""}})",
       unprocessable + "Protocol, SNMP/TrapCommunity)"},
      {rich, R"({"Protocol": "SNMPv2c", "SubscriptionType": "SNMPTrap"})",
       unprocessable + "Protocol, SNMP/TrapCommunity)"},
      {rich, R"({"Protocol": "SNMPv3", "SubscriptionType": "SNMPTrap"})",
       "FAILURE CreateFailedMissingReqProperties(Destination) @Destination"},
      {stream, R"({"Protocol": "Redfish", "Destination": "any text", "SubscriptionType": "SSE"})"},
      {stream, R"({"Protocol": "Redfish"})"},
      {stream, R"({"Protocol": "SMTP", "Destination": 5})", "FAILURE PropertyValueNotInList(SMTP, Protocol) @Protocol"},
  };
  for (const auto& row : rows) EXPECT_EQ(Check(Json::parse(row.body), row.world), row.outcome) << row.body;
}

TEST(Judgement, APatchChangesWhatItMay) {
  const Json stored =
      Json::parse(R"({"Context": "c", "VerifyCertificate": false, "HttpHeaders": [{"A": "1"}, {"B": "2"}],
      "SyslogFilters": [{"LogFacilities": ["Kern"]}, {"LowestSeverity": "All"}],
      "SNMP": {"AuthenticationProtocol": "HMAC_MD5", "EncryptionKeySet": true}})");
  const std::string noOperation = "OK_RES";
  const struct {
    const char* body;
    std::string outcome;  // an answer that ends the request, or the changes with the messages
    bool everythingCounts = false;
  } rows[] = {
      {R"({"Context": "c", "DeliveryRetryPolicy": null, "SNMP": {"AuthenticationProtocol": "HMAC_MD5"}})", noOperation},
      {R"({"Context": "c", "SNMP": {"AuthenticationProtocol": "HMAC_MD5"}})",
       R"({"Context":"c","SNMP":{"AuthenticationProtocol":"HMAC_MD5"}})", true},
      {R"({"@odata.etag": "x", "Context@Redfish.Copy": 1, "&&Privileges": "x", "SNMP": {}})", noOperation},
      {R"({"Context": null, "SNMP": {"EncryptionKey": null}})", R"({"Context":null,"SNMP":{"EncryptionKey":null}})"},
      {R"({"HttpHeaders": [{}, {}]})", noOperation},
      {R"({"HttpHeaders": [null, {}, {}, {"C": ""}]})", R"({"HttpHeaders":[{"B":"2"},{"C":""}]})"},
      {R"({"SyslogFilters": [{"LogFacilities": ["Kern"]}, {}, {}]})", noOperation},
      {R"({"SyslogFilters": [{}]})", R"({"SyslogFilters":[{"LogFacilities":["Kern"]}]})"},
      {R"({"SyslogFilters": [{"Foo": 1}], "Context": "d"})",
       R"({"Context":"d"} PropertyUnknown(SyslogFilters/0/Foo) @SyslogFilters/0/Foo)"},
      {R"({"Id": "x", "SNMP": {"EncryptionKeySet": true}})",
       "FAILURE PropertyNotWritable(Id) @Id, PropertyNotWritable(SNMP/EncryptionKeySet) @SNMP/EncryptionKeySet"},
      {R"({"Context": "f", "Foo": 1, "VerifyCertificate": 1})",
       "FAILURE PropertyUnknown(Foo) @Foo, PropertyValueTypeError(1, VerifyCertificate) @VerifyCertificate"},
      {R"({"SyslogFilters": [null, {"LogFacilities": [{}]}]})",
       "FAILURE PropertyValueTypeError({}, SyslogFilters/1/LogFacilities/0) @SyslogFilters/1/LogFacilities/0"},
      {R"({"HttpHeaders": [null, {}, "x", {"@odata.id": "/x y"}]})",
       "FAILURE PropertyValueError(HttpHeaders/2) @HttpHeaders/2, PropertyValueError(HttpHeaders/3) @HttpHeaders/3"},
  };
  for (const auto& row : rows) {
    PatchJudgement judgement = JudgePatch(Json::parse(row.body), stored, kEverything, {}, row.everythingCounts);
    Answer answer = judgement.answer.value_or(Answer{{}, judgement.notUpdatable, {}, {}});
    const std::string text = (judgement.answer ? "" : judgement.changes.dump()) + InShort(answer);
    EXPECT_EQ(text, row.outcome) << row.body;
    EXPECT_EQ(answer.body.empty(), row.outcome != noOperation) << row.body;
  }
}

TEST(FilterMask, RemembersSoManyPrefixesOfClients) {
  RegistryPrefixBits bits = {{"Base", 4}};
  Json body;
  for (int i = 0; i < 2000; ++i) body["MessageIds"].push_back("Prefix" + std::to_string(i) + ".1.0.A");
  EXPECT_EQ(FilterMask(body, bits), 0);
  EXPECT_EQ(bits.size(), 1024u);
  body["MessageIds"].push_back("Base.1.12.A");
  EXPECT_EQ(FilterMask(body, bits), 4);
}

TEST(HeaderModule, DecidesOrFailsWithOneLineWithoutValues) {
  const Json body = Json::parse(R"({"Protocol": "Redfish", "Destination": "https://c",
      "HttpHeaders": [{"X-One": "1"}, {"X-Two": "s3cret", "X-Three": "3"}]})");
  const std::string call = "function validateHttpHeaderByPattern(headers) ";
  const std::string each = call + "for _, header in ipairs(headers) do for name, value in pairs(header) do ";
  const std::string endless = "function endless() while true do end end ";
  const std::string refused = "FAILURE PropertyValueFormatError(";
  const std::string raised = "EXCEPTION OperationFailed()The HTTP header validator raised an error.";
  const std::string unloaded = "EXCEPTION OperationFailed()Failed to load the HTTP header validator /";
  const std::pair<std::string, std::string> cases[] = {
      {"local M = {} function M.validateHttpHeaderByPattern(headers) return #headers == 2 and headers[1]['X-One'] == "
       "'1' and headers[2]['X-Two'] == 's3cret' and headers[2]['X-Three'] == '3' end return M",
       ""},
      {ReadFile(PLATFORM_FOLDER "/lua/RequestHttpHeaderValidator.lua"), ""},
      {each + "if value == 's3cret' then return false end end end return true end",
       refused + "X-Two, HttpHeaders/1) @HttpHeaders/1"},
      // Only the combination is refused: the first header stands for it.
      {call + "return #headers == 1 end", refused + "X-One, HttpHeaders/0) @HttpHeaders/0"},
      {call + "error('bad value ' .. headers[2]['X-Two']) end", raised},
      {"module('RequestHttpHeaderValidator', package.seeall) " + call + "return false end",
       refused + "X-One, HttpHeaders/0) @HttpHeaders/0, PropertyValueFormatError(X-Three, HttpHeaders/1)"},
      {"module(..., package.seeall) " + call + "return tostring(headers) == '' end", refused + "X-One, "},
      {"round = (round or 0) + 1 if round == 1 then return require('RequestHttpHeaderValidator') end " + call +
           "return round == 2 end",
       ""},
      {endless + call + "pcall(endless) return true end", raised},
      {endless + call + "repeat coroutine.resume(coroutine.create(endless)) until false end", raised},
      {call + "debug.sethook() jit.on() while true do end end", raised},
      {endless + "pcall(endless) " + call + "return true end", unloaded},
      {call + "return validateHttpHeaderByPattern(headers) and true end", raised},
      {"this is no Lua", unloaded},
      {"return {}", unloaded},
  };
  const SandboxRoot sandbox;
  ServiceSettings settings;
  settings.paths = sandbox.Paths();
  for (const auto& [lua, outcome] : cases) {
    const bool isOld = lua.starts_with("module");  // the bare path counts where the other is missing
    if (isOld) std::filesystem::remove(settings.paths.headerValidatorModule + ".lua");
    WriteFile(settings.paths.headerValidatorModule + (isOld ? "" : ".lua"), lua);
    const LogCapture log;
    std::string text;
    std::string ofPatch;
    // Each thread loads the module for itself.
    std::thread([&] {
      text = InShort(CheckCreation(body, {.settings = settings}).value_or(Answer{}));
      ofPatch = InShort(JudgePatch({{"HttpHeaders", body["HttpHeaders"]}}, {}, settings).answer.value_or(Answer{}));
    }).join();
    EXPECT_EQ(ofPatch, text) << lua;
    for (const Names& messages : {log.Errors(), log.DebugLines()}) {
      for (const std::string& message : messages) text += message;
    }
    EXPECT_EQ(text.substr(0, outcome.size()), outcome) << lua;
    EXPECT_EQ(text.empty(), outcome.empty()) << text;
    EXPECT_EQ(text.find("s3cret"), std::string::npos);
    EXPECT_EQ(log.Errors().size(), text.starts_with("EXCEPTION") ? 2u : 0u) << lua;
  }
}

}  // namespace
}  // namespace event_service
