/// Lives of subscriptions: what survives whatever goes down, what nobody may read, and what many changes must not cost.
/// The Soak tests are small in the test command; EVENT_SERVICE_SOAK multiplies their steps (docs/performance.md).
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/system/daemon_test.h"

namespace event_service {
namespace {

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
    EXPECT_EQ(InShort(answer), "OK_RES Created") << body;
    EXPECT_TRUE(!body.contains("Id") || answer.location == UriOf(body["Id"])) << answer.location;
    return answer.location;
  }
};

TEST_F(Subscriptions, SecretsAreNowhereToBeReadAndNoFileIsOpenToOthers) {
  for (const Json& body : kEveryKind) Create(body);
  EXPECT_EQ(AskShort("PATCH", UriOf("snmp-version3"), R"({"SNMP": {"EncryptionKey": "Passphrase:patched-secret"}})"),
            "OK_RES Success");
  EXPECT_EQ(AskShort("PATCH", kService, R"({"SMTP": {"Password": "smtp-secret"}})"), "OK_RES Success");
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
    {"Id": "generated-2", "Destination": "https://generated.example.com/2", "Protocol": "Redfish"}]})");
  for (const Json& body : kEveryKind) Create(body);
  PowerCycle();
  EXPECT_TRUE(Eventually([&] { return !Value(UriOf("generated-2"), "").is_null(); }));
  EXPECT_EQ(AskShort("PATCH", UriOf("redfish-event"), R"({"Context": "x", "HttpHeaders": [{"X-Other": "c"}]})"),
            "OK_RES Success");
  EXPECT_EQ(ListedUris().size(), kEveryKind.size() + 2);
  EXPECT_EQ(Disagreement(), "");
  const std::string file = DecryptedDatabase(Sandbox().Paths());
  Create({{"Destination", "redfish-sse://192.0.2.1:4711"}, {"Protocol", "Redfish"}});  // nowhere kept
  for (int cycle = 1; cycle <= Times(3) && !HasFailure(); ++cycle) {
    PowerCycle();
    EXPECT_EQ(Disagreement(), "") << "after power cycle " << cycle;
    EXPECT_EQ(DecryptedDatabase(Sandbox().Paths()), file);
    EXPECT_EQ(Log().find("[Error]"), std::string::npos) << Log();
  }
  daemon_.Kill();
  ASSERT_TRUE(StartDaemon());
  EXPECT_EQ(Disagreement(), "") << "after a restart of the daemon alone";
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
      ASSERT_EQ(AskShort("PATCH", uri, body.dump()), "OK_RES Success");
      const Json attempts = {{"DeliveryRetryAttempts", 1 + i % 10}};
      ASSERT_EQ(AskShort("PATCH", kService, attempts.dump()), "OK_RES Success");
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
