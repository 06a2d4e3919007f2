#include "tests/system/daemon_test.h"

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "resource_store/resource_editor.h"
#include "resource_store/resource_reader.h"

namespace event_service {

const Json kEveryKind = Json::parse(R"([
    {"Id": "redfish-event", "Destination": "https://collector.example.com/e", "Protocol": "Redfish",
     "Context": "awkward \" \\ / ~ \u00e9 %s", "HttpHeaders": [{"X-Token": "header-secret"}, {"X-Other": "b"}],
     "RegistryPrefixes": ["ResourceEvent", "Base", "Base"], "ResourceTypes": ["Chassis"],
     "OriginResources": [{"@odata.id": "/redfish/v1/Chassis/1"}, {"@odata.id": "/redfish/v1/Systems/"}],
     "SubordinateResources": true, "DeliveryRetryPolicy": "SuspendRetries"},
    {"Id": "message-ids", "Destination": "http://[fe80::1]:8080/", "Protocol": "Redfish",
     "MessageIds": ["ResourceEvent.1.2.ResourceChanged"], "IncludeOriginOfCondition": true},
    {"Id": "metric-report", "Destination": "https://collector.example.com/m", "Protocol": "Redfish",
     "MetricReportDefinitions": [{"@odata.id": "/redfish/v1/TelemetryService/MetricReportDefinitions/1"}]},
    {"Id": "snmp-version3", "Destination": "snmp://user@192.0.2.1:162", "Protocol": "SNMPv3",
     "SubscriptionType": "SNMPInform", "SNMP": {"AuthenticationProtocol": "HMAC128_SHA224",
     "AuthenticationKey": "Passphrase:auth-secret", "EncryptionProtocol": "CFB128_AES128",
     "EncryptionKey": "Passphrase:priv-secret"}},
    {"Id": "trap7", "Destination": "snmp://192.0.2.1", "Protocol": "SNMPv2c", "SubscriptionType": "SNMPTrap",
     "SNMP": {"TrapCommunity": "community-secret"}},
    {"Id": "mail-to-ops", "Destination": "mailto:ops@example.com", "Protocol": "SMTP"},
    {"Id": "syslog-tcp-1", "Destination": "logs.example.com", "Protocol": "SyslogTCP"},
    {"Id": "syslog-tls-1", "Destination": "logs.example.com:6514", "Protocol": "SyslogTLS",
     "SyslogFilters": [{"LogFacilities": ["Daemon"], "LowestSeverity": "Warning"}]}])");

std::string InShort(const FrontEndAnswer& answer) {
  std::string text = answer.status;
  for (const FrontEndMessage& message : answer.messages) text += " " + message.id.substr(message.id.rfind('.') + 1);
  return text;
}

void DaemonTest::Run(const std::vector<std::string>& words) {
  ChildProcess program;
  program.Start(words, OutputFile());
  ASSERT_EQ(program.ExitStatus(), 0) << Output();
}

void DaemonTest::SetUp() {
  RedisTest::SetUp();
  std::filesystem::remove(OutputFile());
  Run({EVENT_SERVICE_SOURCE "/scripts/lay-out-sandbox", Sandbox().Root(), ProgramPath("")});
  FillRedis();
}

void DaemonTest::TearDown() {
  daemon_.Kill();
  for (const char* finding : {"Sanitizer", "runtime error:"}) EXPECT_EQ(Output().find(finding), std::string::npos);
  if (!HasFailure()) return;
  const std::string log = Log();
  std::printf("The end of the daemon's log:\n%s\nand its output:\n%s\n",
              log.substr(log.size() - std::min<size_t>(log.size(), 4000)).c_str(), Output().c_str());
}

void DaemonTest::Launch() {
  daemon_.Start({"env", "EVENT_SERVICE_ROOT=" + Sandbox().Root(), ProgramPath("EventService")}, OutputFile());
}

bool DaemonTest::StartDaemon() {
  SendCommand(redis(), "SADD &&AccessBlockList EventService");
  Launch();
  const auto serves = [this] {
    const RedisReply blocked = SendCommand(redis(), "SISMEMBER &&AccessBlockList EventService");
    return IsInteger(blocked) && blocked->integer == 0;
  };
  const auto cannotSaySo = [] { return Log().find("fail to remove it from the block list") != std::string::npos; };
  EXPECT_TRUE(Eventually([&] { return !daemon_.IsRunning() || serves() || cannotSaySo(); })) << "it does not get ready";
  return daemon_.IsRunning();
}

void DaemonTest::FillRedis() {
  ASSERT_TRUE(SendCommand(redis(), "FLUSHALL"));
  Run({"env", "EVENT_SERVICE_ROOT=" + Sandbox().Root(), ProgramPath("load_platform"),
       EVENT_SERVICE_SOURCE "/share/platform"});
}

void DaemonTest::PowerCycle() {
  daemon_.Kill();
  FillRedis();
  ASSERT_TRUE(StartDaemon());
}

static FrontEndRequest MakeRequest(const std::string& httpMethod, const std::string& uri, const std::string& body) {
  FrontEndRequest request{.method = RecordMethod(httpMethod, uri), .targetUri = uri, .body = {}};
  if (!body.empty()) request.body = Json::parse(body);
  if (body.find("redfish-sse:") != std::string::npos) request.sseChannel = "stream";
  return request;
}

StoredRequest DaemonTest::Store(const std::string& httpMethod, const std::string& uri, const std::string& body) {
  return StoreRequest(redis(), MakeRequest(httpMethod, uri, body)).value();
}

FrontEndAnswer DaemonTest::Ask(const std::string& httpMethod, const std::string& uri, const std::string& body) {
  const std::optional<FrontEndAnswer> answer = SendRequest(redis(), MakeRequest(httpMethod, uri, body));
  EXPECT_TRUE(answer) << "no answer to " << httpMethod << " " << uri;
  return answer.value_or(FrontEndAnswer{});
}

std::string DaemonTest::AskShort(const std::string& httpMethod, const std::string& uri, const std::string& body) {
  return InShort(Ask(httpMethod, uri, body));
}

Json DaemonTest::Value(const std::string& uri, const std::string& pointer) {
  const std::optional<Json> document = ReadForClient(redis(), uri);
  return document ? document->value(Json::json_pointer(pointer), Json()) : Json();
}

std::set<std::string> DaemonTest::ListedUris() {
  std::set<std::string> uris;
  for (const std::string& entry : Elements(MembersKey(kCollection))) {
    if (!uris.emplace(MemberUriOf(entry)).second) uris.insert("twice");
  }
  return uris;
}

/// A key that belongs to no listed member, and not to the collection itself.
std::string DaemonTest::StrayKey(const std::set<std::string>& uris) {
  for (const std::string& key : KeyListing(redis(), "*" + kCollection + "/*")) {
    const bool isCollections = key.rfind('/') == ("&&" + kCollection).size();
    const auto isOwner = [&](const std::string& uri) { return (key + "/").find(uri + "/") != std::string::npos; };
    if (!isCollections && std::ranges::none_of(uris, isOwner)) return key;
  }
  return {};
}

DatabaseDump DaemonTest::Index() {
  DatabaseDump index;
  for (const std::string& key : KeyListing(redis(), "&&subs:*")) index[key] = ContentOf(key);
  std::erase_if(index, [](const auto& entry) { return entry.second == "{Total_Num_Subscriber=0}"; });
  return index;
}

/// What is different when the origin index is built anew, which repairs it.
Json DaemonTest::IndexDifference() {
  const DatabaseDump before = Index();
  const std::string script = ReadFile(Sandbox().Paths().startUpMapScript);
  EXPECT_EQ(TextOf(SendArguments(redis(), {"EVAL", script, "0"})), "OK");
  return Json::diff(before, Index());
}

/// A line of the persistent properties that the service does not have.
std::string DaemonTest::StrayProperty() {
  std::istringstream lines(ReadFile(Sandbox().Paths().persistentProperties));
  for (std::string line; std::getline(lines, line);) {
    const size_t equals = line.find('=');
    if (Value(kService, "/" + line.substr(0, equals)).dump() != line.substr(equals + 1)) return line;
  }
  return {};
}

std::string DaemonTest::Disagreement() {
  const std::set<std::string> uris = ListedUris();
  if (HashRead(redis(), kCollection, "Members@odata.count") != std::to_string(uris.size())) return "the count";
  const Json file = Json::parse(DecryptedDatabase(Sandbox().Paths()));
  Json kept = Json::object(), stored = Json::object();
  for (const Json& member : file.at("Members")) kept[member.value("@odata.id", "")] = member;
  for (const std::string& uri : uris) {
    if (!ReadResource(redis(), uri, stored[uri], {.withControlFields = true})) return "unreadable: " + uri;
    if (stored[uri].value("SubscriptionType", "") == "SSE") stored.erase(uri);
  }
  if (const Json difference = Json::diff(kept, stored); !difference.empty()) return "the file: " + difference.dump();
  const std::string etag = HashRead(redis(), kCollection, "@odata.etag");
  const bool hasEtag = file.at("@odata.etag").dump() == (etag.empty() ? "\"\"" : etag);
  if (fileHasEtag_ && !hasEtag) return "the file lacks the etag " + etag;
  if (const std::string line = StrayProperty(); !line.empty()) return "in the persistent properties: " + line;
  if (const Json difference = IndexDifference(); !difference.empty()) return "the index: " + difference.dump();
  return StrayKey(uris);
}

}  // namespace event_service
