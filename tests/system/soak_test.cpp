/// Long random lives of subscriptions against a model of what must be there, and what many changes must not cost. Small
/// in the test command; EVENT_SERVICE_SOAK multiplies the steps (docs/performance.md).
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>

#include "tests/system/daemon_test.h"
#include "tests/system/syslog_server.h"

namespace event_service {
namespace {

int Times(int steps) {
  const char* factor = std::getenv("EVENT_SERVICE_SOAK");
  return steps * (factor != nullptr ? std::atoi(factor) : 1);
}

/// What the model knows of a subscription.
struct Life {
  Json body;  // as it was created, with what was patched since
  std::string state = "Enabled";
  bool isStream = false;
};

class Soak : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    StartDaemon();
  }

  size_t Below(size_t limit) { return std::uniform_int_distribution<size_t>(0, limit - 1)(random_); }

  void Create() {
    static const char* const kBodies[] = {
        R"({"Destination": "https://c.example.com/", "Protocol": "Redfish"})",
        R"({"Destination": "https://c.example.com/", "Protocol": "Redfish", "RegistryPrefixes": ["Base"],
            "OriginResources": [{"@odata.id": "/redfish/v1/Chassis/1"}, {"@odata.id": "/redfish/v1/Systems/"}],
            "SubordinateResources": true, "HttpHeaders": [{"X-A": "1", "X-B": "2"}]})",
        R"({"Destination": "https://c.example.com/", "Protocol": "Redfish",
            "MessageIds": ["ResourceEvent.1.2.ResourceChanged"],
            "OriginResources": [{"@odata.id": "/redfish/v1/Chassis/1"}]})",
        R"({"Destination": "https://c.example.com/", "Protocol": "Redfish",
            "MetricReportDefinitions": [{"@odata.id": "/redfish/v1/TelemetryService/MetricReportDefinitions/1"}]})",
        R"({"Destination": "snmp://192.0.2.1", "Protocol": "SNMPv2c", "SubscriptionType": "SNMPTrap",
            "SNMP": {"TrapCommunity": "public"}})",
        R"({"Destination": "logs.example.com", "Protocol": "SyslogTCP"})",
        R"({"Destination": "redfish-sse://192.0.2.1:4711", "Protocol": "Redfish"})",
    };
    Life life{.body = Json::parse(kBodies[Below(std::size(kBodies))])};
    life.body["Context"] = "life " + std::to_string(++created_);
    life.isStream = life.body["Destination"].get<std::string>().starts_with("redfish-sse");
    FrontEndRequest request{.method = "POSTCREATE", .targetUri = kCollection, .body = life.body};
    if (life.isStream) request.sseChannel = "stream";
    const FrontEndAnswer answer = SendRequest(redis(), request).value_or(FrontEndAnswer{});
    ASSERT_EQ(InShort(answer), "OK_RES Base.1.12.Created()") << life.body;
    lives_[answer.location] = std::move(life);
  }

  void Patch(const std::string& uri, Life& life) {
    Json change = {{"Context", "change " + std::to_string(++created_)}};
    if (life.body.contains("HttpHeaders")) change["HttpHeaders"] = Json::array({{{"X-C", std::to_string(created_)}}});
    ASSERT_EQ(AskShort("PATCH", uri, change.dump()), "OK_RES Base.1.12.Success()");
    life.body.update(change);
  }

  void Suspend(const std::string& uri, Life& life) {
    FrontEndRequest request{
        .method = "PATCH", .targetUri = uri, .body = Json::parse(R"({"Status": {"State": "Disabled"}})")};
    std::optional<StoredRequest> stored = StoreRequest(redis(), request);
    ASSERT_TRUE(stored);
    stored->responseKey = "FROM_EVENTING";
    ASSERT_TRUE(AnnounceRequest(redis(), ChannelOf(uri), *stored));
    AskShort("HEAD", uri);
    life.state = "Disabled";
  }

  void Resume(const std::string& uri, Life& life) {
    const bool suspended = life.state == "Disabled";
    EXPECT_EQ(AskShort("POST", uri + "/Actions/EventDestination.ResumeSubscription", "{}"),
              suspended ? "OK_RES Base.1.12.Success()" : "OK_RES");
    life.state = "Enabled";
  }

  void Step() {
    const size_t action = Below(12);
    if (action < 4 || lives_.empty()) return Create();
    const auto life = std::next(lives_.begin(), static_cast<std::ptrdiff_t>(Below(lives_.size())));
    if (action < 6) return Patch(life->first, life->second);
    if (action == 6 && !life->second.isStream) return Suspend(life->first, life->second);
    if (action == 7 && !life->second.isStream) return Resume(life->first, life->second);
    if (action < 10) {
      EXPECT_EQ(AskShort("DELETE", life->first), "OK_EMPTY");
      lives_.erase(life);
    } else if (action == 10) {
      EXPECT_EQ(AskShort("DELETE", "SSE-ALL"), "OK_EMPTY");
      ForgetStreams();
    } else if (Below(2) == 0) {
      daemon().Kill();
      StartDaemon();
    } else {
      PowerCycle();
      ForgetStreams();
    }
  }

  void ForgetStreams() {
    std::erase_if(lives_, [](const auto& life) { return life.second.isStream; });
  }

  /// The members, the count, the origin index and the counter are those of the model.
  void Check() {
    std::map<std::string, std::map<std::string, std::string>> index;
    long long metricReports = 0;
    for (const auto& [uri, life] : lives_) {
      EXPECT_EQ(Value(uri, "/Context"), life.body["Context"]) << uri;
      if (!life.isStream) {
        EXPECT_EQ(Value(uri, "/Status/State"), life.state) << uri;
      }
      const std::string id = uri.substr(std::string(kCollection).size() + 1);
      if (life.body.contains("MetricReportDefinitions")) {
        ++metricReports;
        continue;
      }
      const std::string mask = MaskOf(life.body);
      for (const std::string& path : PathsOf(life.body)) index["&&subs:" + path][id] = mask;
    }
    EXPECT_EQ(Value(kCollection, "/Members").size(), lives_.size());
    EXPECT_EQ(Value(kCollection, "/Members@odata.count"), lives_.size());
    std::map<std::string, std::map<std::string, std::string>> stored;
    for (const std::string& key : KeyListing(redis(), "&&subs:*")) {
      const RedisReply hash = SendArguments(redis(), {"HGETALL", key});
      for (size_t i = 0; i + 1 < hash->elements; i += 2) {
        stored[key][std::string(TextOf(hash->element[i]))] = TextOf(hash->element[i + 1]);
      }
    }
    const std::string counter = stored["&&subs:MetricReport"]["Total_Num_Subscriber"];
    EXPECT_EQ(counter.empty() ? 0 : std::atoll(counter.c_str()), metricReports);
    stored.erase("&&subs:MetricReport");
    EXPECT_EQ(stored, index);
  }

  static std::vector<std::string> PathsOf(const Json& body) {
    if (!body.contains("OriginResources")) return {"*"};
    if (!body.contains("SubordinateResources")) return {"Chassis/1"};
    return {"Chassis/1", "Chassis/1/*", "Systems/", "Systems/*"};
  }

  /// The place of a prefix in the service's own list tells its bit.
  std::string MaskOf(const Json& body) {
    const char* const prefix = body.contains("RegistryPrefixes") ? "Base"
                               : body.contains("MessageIds")     ? "ResourceEvent"
                                                                 : nullptr;
    if (prefix == nullptr) return "-1";
    const Json prefixes = Value(kService, "/RegistryPrefixes");
    const auto found = std::find(prefixes.begin(), prefixes.end(), prefix);
    return found == prefixes.end() ? "0" : std::to_string(1LL << (found - prefixes.begin()));
  }

  std::mt19937 random_{20260101};  // the same lives in every run
  std::map<std::string, Life> lives_;
  int created_ = 0;
};

TEST_F(Soak, RandomLivesLeaveWhatTheModelExpects) {
  const SyslogServer syslog;
  for (int step = 0; step < Times(120) && !HasFatalFailure() && !HasNonfatalFailure(); ++step) {
    Step();
    if (step % 10 == 9) Check();
  }
  PowerCycle();
  ForgetStreams();
  Check();
}

/// A figure of /proc/<pid>/status in kilobytes.
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

TEST_F(Soak, ManyChangesCostNeitherMemoryNorDescriptorsNorKeys) {
  const std::string uri = Ask("POST", kCollection, R"({"Destination": "https://c.example.com/", "Protocol": "Redfish",
      "HttpHeaders": [{"X-A": "0"}]})")
                              .location;
  const auto change = [&](int times) {
    for (int i = 0; i < times; ++i) {
      const Json body = {{"Context", std::to_string(i)}, {"HttpHeaders", Json::array({{{"X-A", std::to_string(i)}}})}};
      ASSERT_EQ(AskShort("PATCH", uri, body.dump()), "OK_RES Base.1.12.Success()");
    }
  };
  change(50);  // what is allocated once has been by then
  const long memory = StatusFigure(daemon().Pid(), "RssAnon");
  const size_t descriptors = OpenDescriptors(daemon().Pid());
  const size_t keys = Dump().size();
  change(Times(100));
  std::printf("RssAnon %ld -> %ld KiB\n", memory, StatusFigure(daemon().Pid(), "RssAnon"));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  EXPECT_LE(StatusFigure(daemon().Pid(), "RssAnon"), memory + 64);
#endif
  EXPECT_EQ(OpenDescriptors(daemon().Pid()), descriptors);
  // The events about the changes are the delivery side's, and lie in its queue.
  EXPECT_EQ(Dump().size(), keys);
}

TEST_F(Soak, RestartsWithAnEmptiedRedisBringBackEqualSets) {
  for (int i = 0; i < 18; ++i) {
    const Json body = {{"Destination", "https://c.example.com/" + std::to_string(i)}, {"Protocol", "Redfish"}};
    lives_[Ask("POST", kCollection, body.dump()).location] = {.body = body};
  }
  std::map<std::string, Json> members;
  for (const auto& [uri, life] : lives_) members[uri] = Value(uri, "");
  for (int restart = 0; restart < Times(3) && !HasFailure(); ++restart) {
    PowerCycle();
    EXPECT_EQ(Value(kCollection, "/Members").size(), members.size());
    for (const auto& [uri, member] : members) EXPECT_EQ(Value(uri, ""), member);
  }
}

}  // namespace
}  // namespace event_service
