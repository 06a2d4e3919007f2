/// Lives of subscriptions: what survives whatever goes down, what nobody may read, and what many changes must not cost.
/// The Soak tests are small in the test command; EVENT_SERVICE_SOAK multiplies their steps (docs/performance.md).
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <thread>

#include "resource_store/resource_reader.h"
#include "tests/system/daemon_test.h"

namespace event_service {
namespace {

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
const Json kStream = {{"Destination", "redfish-sse://192.0.2.1:4711"}, {"Protocol", "Redfish"}};

class Subscriptions : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    ASSERT_TRUE(StartDaemon());
  }

  static std::string UriOf(const std::string& id) { return kCollection + "/" + id; }

  std::string Create(const Json& body) {
    // The syslog forwarder's answer is there before it is asked.
    const std::string answers = "&&/redfish/v1/EventDestination/SYSLOG_CREATEQ/" + body.value("Id", "");
    if (body["Protocol"].get<std::string>().starts_with("Syslog")) ListAppend(redis(), answers, "OK");
    const FrontEndAnswer answer = Ask("POST", kCollection, body.dump());
    EXPECT_EQ(InShort(answer), "OK_RES Base.1.12.Created()") << body;
    EXPECT_TRUE(!body.contains("Id") || answer.location == UriOf(body["Id"])) << answer.location;
    return answer.location;
  }

  /// Collection, members and origin index as they are stored, hidden fields and encrypted credentials included.
  std::map<std::string, Json> Stored() {
    std::map<std::string, Json> stored;
    ReadResource(redis(), kCollection, stored[kCollection], {.withControlFields = true});
    for (const Json& entry : Value(kCollection, "/Members")) {
      const std::string uri = entry["@odata.id"];
      ReadResource(redis(), uri, stored[uri], {.withControlFields = true});
    }
    for (const auto& [key, content] : Dump()) {
      if (key.starts_with("&&subs:") && content != "{Total_Num_Subscriber=0}") stored[key] = content;
    }
    return stored;
  }
};

TEST_F(Subscriptions, SecretsAreNowhereToBeReadAndNoFileIsOpenToOthers) {
  for (const Json& body : kEveryKind) Create(body);
  EXPECT_EQ(AskShort("PATCH", UriOf("snmp-version3"), R"({"SNMP": {"EncryptionKey": "Passphrase:patched-secret"}})"),
            "OK_RES Base.1.12.Success()");
  EXPECT_EQ(AskShort("PATCH", kService, R"({"SMTP": {"Password": "smtp-secret"}})"), "OK_RES Base.1.12.Success()");
  EXPECT_EQ(Value(kService, "/SMTP/Password"), Json());
  for (const char* id : {"redfish-event", "snmp-version3"}) EXPECT_EQ(AskShort("GET", UriOf(id)), "");
  EXPECT_EQ(Value(UriOf("redfish-event"), "/HttpHeaders"), Json::array());
  EXPECT_EQ(Value(UriOf("snmp-version3"), "/SNMP/AuthenticationKey"), Json());
  EXPECT_EQ(Value(UriOf("snmp-version3"), "/SNMP/AuthenticationKeySet"), true);

  // The delivery side reads header values from Redis; everything else is encrypted there.
  for (const auto& [key, content] : Dump()) {
    if (key.find("/HttpHeaders/") != std::string::npos) continue;
    EXPECT_EQ(content.find("-secret"), std::string::npos) << key;
  }
  EXPECT_EQ((Log() + Output()).find("-secret"), std::string::npos);
  namespace fs = std::filesystem;
  for (const auto& file : fs::recursive_directory_iterator(Sandbox().Root() + "/var/nginx")) {
    if (!file.is_regular_file()) continue;
    EXPECT_EQ(file.status().permissions() & (fs::perms::group_all | fs::perms::others_all), fs::perms::none) << file;
    EXPECT_EQ(ReadFile(file.path()).find("-secret"), std::string::npos) << file;
  }
}

class Soak : public Subscriptions {
 protected:
  static int Times(int steps) {
    const char* factor = std::getenv("EVENT_SERVICE_SOAK");
    return steps * (factor != nullptr ? std::atoi(factor) : 1);
  }
};

TEST_F(Soak, RestartsBringBackEveryKindInEveryStoredField) {
  WriteFile(Sandbox().Paths().generatedDestinations, R"({"Members": [
    {"Destination": "https://generated.example.com/1", "Protocol": "Redfish", "Context": "first"},
    {"Destination": "ftp://generated.example.com/2", "Protocol": "Redfish"},
    {"Id": "generated-3", "Destination": "https://generated.example.com/3", "Protocol": "Redfish"}]})");
  for (const Json& body : kEveryKind) Create(body);
  PowerCycle();
  EXPECT_TRUE(Eventually([&] { return !Value(UriOf("generated-3"), "").is_null(); }));
  AskShort("HEAD", kCollection);  // answered after its creation
  const std::map<std::string, Json> before = Stored();
  ASSERT_EQ(before.size(), 1 + kEveryKind.size() + 2 + 6)
      << "and *, two origins with what is below them, metric reports";
  EXPECT_EQ(Value(UriOf("trap7"), "/Status/State"), "Disabled");
  daemon_.Kill();
  ASSERT_TRUE(StartDaemon());
  EXPECT_EQ(Stored(), before) << "after a restart of the daemon alone";
  for (int cycle = 1; cycle <= Times(3) && !HasFailure(); ++cycle) {
    PowerCycle();
    EXPECT_EQ(Stored(), before) << "after power cycle " << cycle;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // a surplus generated one would come now
  EXPECT_EQ(Stored(), before);
}

/// What the model knows of a subscription.
struct Life {
  std::string context;
  Json state;  // null for a stream
  bool isStream, hasHeaders;
};

class RandomSoak : public Soak {
 protected:
  size_t Below(size_t limit) { return std::uniform_int_distribution<size_t>(0, limit - 1)(random_); }

  void CreateOne() {
    const size_t kind = Below(kEveryKind.size() + 1);
    Json body = kind < kEveryKind.size() ? kEveryKind[kind] : kStream;
    if (body["Protocol"] == "SyslogTLS" && ++tlsDrawn_ > 3) body = kEveryKind[0];  // more are refused
    const std::string name = "life-" + std::to_string(1000 + ++changes_);
    body.update({{"Id", name}, {"Context", name}});
    const std::string uri = Create(body);
    lives_[uri] = {name, Value(uri, "/Status/State"), kind == kEveryKind.size(), body.contains("HttpHeaders")};
  }

  void Patch(const std::string& uri, Life& life) {
    life.context = "change " + std::to_string(++changes_);
    Json change = {{"Context", life.context}};
    if (life.hasHeaders) change["HttpHeaders"] = Json::array({{{"X-C", life.context}}});
    EXPECT_EQ(AskShort("PATCH", uri, change.dump()), "OK_RES Base.1.12.Success()");
  }

  void Suspend(const std::string& uri, Life& life) {
    const FrontEndRequest request{
        .method = "PATCH", .targetUri = uri, .body = Json{{"Status", {{"State", "Disabled"}}}}};
    std::optional<StoredRequest> stored = StoreRequest(redis(), request);
    ASSERT_TRUE(stored);
    stored->responseKey = "FROM_EVENTING";
    ASSERT_TRUE(AnnounceRequest(redis(), ChannelOf(uri), *stored));
    AskShort("HEAD", uri);  // answered after it
    life.state = "Disabled";
  }

  void Resume(const std::string& uri, Life& life) {
    EXPECT_EQ(AskShort("POST", uri + "/Actions/EventDestination.ResumeSubscription", "{}"),
              life.state == "Disabled" ? "OK_RES Base.1.12.Success()" : "OK_RES");
    life.state = "Enabled";
  }

  void Step() {
    const size_t action = Below(11);
    if ((action < 4 && lives_.size() < 50) || lives_.empty()) return CreateOne();
    const auto life = std::next(lives_.begin(), static_cast<std::ptrdiff_t>(Below(lives_.size())));
    if (action < 6) return Patch(life->first, life->second);
    if (action == 6 && !life->second.isStream) return Suspend(life->first, life->second);
    if (action == 7 && !life->second.isStream) return Resume(life->first, life->second);
    EXPECT_EQ(AskShort("DELETE", life->first), "OK_EMPTY");
    lives_.erase(life);
  }

  /// The members are those of the model, and a restart builds the same anew, the origin index included.
  void Check() {
    EXPECT_EQ(AskShort("DELETE", "SSE-ALL"), "OK_EMPTY");
    std::erase_if(lives_, [](const auto& life) { return life.second.isStream; });
    EXPECT_EQ(Value(kCollection, "/Members").size(), lives_.size());
    EXPECT_EQ(Value(kCollection, "/Members@odata.count"), lives_.size());
    for (const auto& [uri, life] : lives_) {
      EXPECT_EQ(Value(uri, "/Context"), life.context) << uri;
      EXPECT_EQ(Value(uri, "/Status/State"), life.state) << uri;
    }
    std::map<std::string, Json> before = Stored();
    Create(kStream);  // which a restart forgets, with what it changed
    PowerCycle();
    EXPECT_EQ(Log().find("[Error]"), std::string::npos) << Log();
    std::map<std::string, Json> after = Stored();
    for (auto* stored : {&before, &after}) (*stored)[kCollection].erase("@odata.etag");
    EXPECT_EQ(after, before);
  }

  std::mt19937 random_{20260101};  // the same lives in every run
  std::map<std::string, Life> lives_;
  int changes_ = 0;
  int tlsDrawn_ = 0;
};

TEST_F(RandomSoak, LivesLeaveWhatTheModelExpectsAndARestartBuilds) {
  for (int step = 1; step <= Times(120) && !HasFailure(); ++step) {
    Step();
    if (step % 20 == 0) Check();
  }
}

long StatusFigure(pid_t pid, const std::string& name) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with(name + ":")) return std::atol(line.c_str() + name.size() + 1);
  }
  return -1;
}

size_t OpenDescriptors(pid_t pid) {
  const std::filesystem::directory_iterator folder("/proc/" + std::to_string(pid) + "/fd");
  return static_cast<size_t>(std::distance(begin(folder), end(folder)));
}

// What is measured is the daemon that ships, run by the machine itself: EVENT_SERVICE_PROGRAMS names where it is.
bool HasBudget() { return std::getenv("EVENT_SERVICE_PROGRAMS") != nullptr; }

TEST_F(Soak, TheIdleDaemonKeepsWithinItsBudget) {
  for (int i = 0; i < 20; ++i) Create({{"Destination", "https://c.example.com"}, {"Protocol", "Redfish"}});
  daemon_.Kill();
  FillRedis();
  for (int i = 0; i < 3000; ++i) {
    const std::string key = "/redfish/v1/schemas/registries/Many.1.0.0.json/Messages/Message" + std::to_string(i);
    ASSERT_TRUE(HashWrite(redis(), key, "Severity", "\"OK\""));
  }
  ASSERT_TRUE(StartDaemon());
  AskShort("HEAD", kCollection);
  const struct {
    const char* figure;
    long most;  // KiB
  } budget[] = {{"VmRSS", 5376}, {"RssAnon", 1280}, {"VmSize", 10240}};
  for (const auto& row : budget) {
    const long figure = StatusFigure(daemon_.Pid(), row.figure);
    std::printf("%s %ld KiB, at most %ld\n", row.figure, figure, row.most);
    EXPECT_TRUE(!HasBudget() || figure <= row.most) << row.figure;
  }
}

TEST_F(Soak, ManyRequestsCostNeitherMemoryNorDescriptorsNorKeys) {
  const std::string uri = Create(kEveryKind[0]);
  const auto ask = [&](int cycles) {
    for (int i = 0; i < cycles; ++i) {
      const Json body = {{"Context", std::to_string(i)}, {"HttpHeaders", Json::array({{{"X-A", std::to_string(i)}}})}};
      ASSERT_EQ(AskShort("PATCH", uri, body.dump()), "OK_RES Base.1.12.Success()");
      const Json attempts = {{"DeliveryRetryAttempts", 1 + i % 10}};
      ASSERT_EQ(AskShort("PATCH", kService, attempts.dump()), "OK_RES Base.1.12.Success()");
      ASSERT_EQ(AskShort("GET", uri), "");
      ASSERT_NE(AskShort("POST", kCollection, R"({"Protocol": "Carrier pigeon"})").substr(0, 2), "OK");
      ASSERT_EQ(AskShort("DELETE", Create(kEveryKind[1])), "OK_EMPTY");
    }
  };
  // The events about the changes, queued or stored, are the delivery side's.
  const auto countKeys = [&] {
    return std::ranges::count_if(
        Dump(), [](const auto& entry) { return entry.first.find("/EventService/Actions/") == std::string::npos; });
  };
  ask(10);  // what is allocated once has been by then
  const long memory = StatusFigure(daemon_.Pid(), "RssAnon");
  const size_t descriptors = OpenDescriptors(daemon_.Pid());
  const auto keys = countKeys();
  ask(Times(20));
  std::printf("RssAnon %ld -> %ld KiB\n", memory, StatusFigure(daemon_.Pid(), "RssAnon"));
#ifndef IS_SANITIZED  // by any compiler: then freed memory is kept
  EXPECT_LE(StatusFigure(daemon_.Pid(), "RssAnon"), memory + 64);
#endif
  EXPECT_EQ(OpenDescriptors(daemon_.Pid()), descriptors);
  EXPECT_EQ(countKeys(), keys);
}

}  // namespace
}  // namespace event_service
