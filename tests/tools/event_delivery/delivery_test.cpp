/// The daemon, event-delivery and a listener: what arrives, how often, in which order, and what becomes of destinations
/// that take nothing.
#include <signal.h>  // NOLINT(modernize-deprecated-headers): kill

#include <filesystem>
#include <sstream>

#include "tests/requests/schema_check.h"
#include "tests/system/daemon_test.h"

namespace event_service {
namespace {

constexpr const char* kMakeCertificate =
    "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 "
    "-keyout key.pem -out cert.pem 2>/dev/null";

class EventDelivery : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    folder_ = Sandbox().Root() + "/listener";
    WriteFile(folder_ + "/modes", "{}");
    std::filesystem::remove(folder_ + "/requests");
    std::filesystem::remove(folder_ + "/ports");
    ChildProcess certificate;
    certificate.Start({"sh", "-c", "cd " + folder_ + " && { [ -e cert.pem ] || " + kMakeCertificate + "; }"},
                      Output_());
    ASSERT_EQ(certificate.ExitStatus(), 0);
    listener_.Start({LISTENER, folder_}, Output_());
    const std::string& configuration = Sandbox().Paths().configuration;
    WriteFile(configuration,
              ReadFile(configuration) + "DeliveryTimeoutSeconds=1\nDeliveryCaFile=" + folder_ + "/cert.pem\n");
    ASSERT_TRUE(StartDaemon());
    StartDelivery();
    ASSERT_TRUE(Eventually([this] { return !ReadFile(folder_ + "/ports").empty(); }));
    std::istringstream(ReadFile(folder_ + "/ports")) >> http_ >> https_;
    EXPECT_EQ(AskShort("PATCH", kService, R"({"DeliveryRetryAttempts": 1, "DeliveryRetryIntervalSeconds": 0})"),
              "OK_RES Base.1.12.Success()");
  }
  void TearDown() override {
    delivery_.Kill();
    listener_.Kill();
    DaemonTest::TearDown();
  }

  void StartDelivery() {
    delivery_.Start({"env", "EVENT_SERVICE_ROOT=" + Sandbox().Root(), EVENT_SERVICE_BINARIES "/event-delivery"},
                    Output_());
  }
  static std::string Output_() { return Sandbox().Root() + "/output"; }

  /// Creates a subscription to test events (unless `more` has other filters) that goes to this path of the listener.
  std::string Subscribe(const std::string& path, const Json& more = Json::object(), bool overTls = false) {
    const std::string address = (overTls ? "https://127.0.0.1:" + https_ : "http://127.0.0.1:" + http_) + path;
    Json body = {{"Destination", address}, {"Protocol", "Redfish"}, {"EventTypes", {"Alert"}}};
    if (more.contains("EventTypes")) body.erase("EventTypes");
    for (const auto& [name, value] : more.items()) {
      if (!value.is_null()) body[name] = value;
    }
    const FrontEndAnswer answer = Ask("POST", kCollection, body.dump());
    EXPECT_EQ(InShort(answer), "OK_RES Base.1.12.Created()") << body;
    return answer.location;
  }
  void Raise(const std::string& id, const Json& more = Json::object()) {
    Json body = {{"MessageId", "ResourceEvent.1.2.ResourceChanged"}, {"EventId", id}, {"EventType", "Alert"}};
    body.update(more);
    EXPECT_EQ(AskShort("POST", kTestEvent, body.dump()), "OK_RES");
  }
  void SetModes(const Json& modes) { WriteFile(folder_ + "/modes", modes.dump()); }

  /// What the listener was sent on this path: everything, or only what it took.
  std::vector<Json> Requests(const std::string& path, const std::string& mode = "take") {
    std::vector<Json> requests;
    std::istringstream lines(ReadFile(folder_ + "/requests"));
    for (std::string line; std::getline(lines, line);) {
      const Json request = Json::parse(line, nullptr, false);
      if (!request.is_discarded() && request["path"] == path && request["mode"] == mode) requests.push_back(request);
    }
    return requests;
  }
  /// The message ids, or for test events the EventIds, of what was taken, in order and joined by blanks.
  std::string Taken(const std::string& path) {
    std::string taken;
    for (const Json& request : Requests(path)) {
      for (const Json& record : request["event"]["Events"]) {
        const std::string messageId = record["MessageId"];
        const bool isTest = record["EventType"] == "Alert";
        taken += (taken.empty() ? "" : " ") +
                 (isTest ? record["EventId"].get<std::string>() : messageId.substr(messageId.rfind('.') + 1));
      }
    }
    return taken;
  }
  void ExpectTaken(const std::string& path, const std::string& events) {
    EXPECT_TRUE(Eventually([&] { return Taken(path) == events; })) << path << ": " << Taken(path);
  }
  bool IsQueueEmpty() {
    const RedisReply left =
        SendCommand(redis(),
                    "EXISTS &&/redfish/v1/EventService/EVENTQ &&/redfish/v1/EventService/EVENTQ/TAKEN "
                    "&&/redfish/v1/EventService/EVENTQ/OWED");
    return IsInteger(left) && left->integer == 0;
  }

  ChildProcess listener_;
  ChildProcess delivery_;
  std::string folder_;
  std::string http_;
  std::string https_;
};

TEST_F(EventDelivery, EachKindOfEventArrivesOnceInOrderWithItsHeaders) {
  const std::string uri = Subscribe(
      "/all", {{"EventTypes", nullptr},
               {"Context", "rack 7"},
               {"HttpHeaders", {{{"X-Token", "header-secret"}}, {{"Content-Type", "application/x"}, {"X-None", ""}}}}});
  const std::string verified = Subscribe("/verified", {{"VerifyCertificate", true}}, true);
  const std::string other = Subscribe("/other", {{"IncludeOriginOfCondition", true}}, true);
  Subscribe("", {{"Destination", "https://localhost:" + https_ + "/unverified"}});
  // Its certificate names another host.
  Subscribe("", {{"Destination", "https://localhost:" + https_ + "/refused"},
                 {"VerifyCertificate", true},
                 {"DeliveryRetryPolicy", "RetryForever"}});
  std::string created;  // a member and, with it, the collection, as often as one of the five was created
  for (int i = 0; i < 5; ++i) created += "ResourceCreated ResourceChanged ";
  std::string tests;
  for (int i = 1; i <= 12; ++i) {
    Raise(std::to_string(i), {{"OriginOfCondition", other}});
    tests += (i == 1 ? "" : " ") + std::to_string(i);
  }
  ExpectTaken("/all", created + tests);
  EXPECT_EQ(AskShort("DELETE", uri), "OK_EMPTY");
  ExpectTaken("/all", created + tests + " SubscriptionTerminated");
  ExpectTaken("/verified", tests);
  ExpectTaken("/other", tests);
  ExpectTaken("/unverified", tests);
  const Json first = Requests("/all").front();
  EXPECT_EQ(first["headers"]["X-Token"], "header-secret");
  EXPECT_EQ(first["headers"]["X-None"], "");
  EXPECT_EQ(first["headers"]["Content-Type"], "application/x");
  EXPECT_EQ(first["event"]["Context"], "rack 7");
  const Json last = Requests("/all").back();
  EXPECT_EQ(last["headers"]["X-Token"], "header-secret") << "of a subscription that is gone";
  EXPECT_EQ(last["event"]["Context"], "rack 7");
  const Json origin = Requests("/other").front()["event"]["Events"][0]["OriginOfCondition"];
  EXPECT_EQ(origin["Protocol"], "Redfish");
  EXPECT_EQ(origin["HttpHeaders"], Json::array());
  EXPECT_EQ(Requests("/verified").front()["event"]["Events"][0]["OriginOfCondition"], Json({{"@odata.id", other}}));
  const std::vector<Json> all = Requests("/all");
  for (const size_t i : {size_t{0}, all.size() - 2, all.size() - 1}) {
    if (!HaveSchemas()) break;
    EXPECT_EQ(SchemaFaults("Event.v1_7_0.json", "Event", all.at(i)["event"]), "");
  }
  EXPECT_EQ(Taken("/refused"), "");
  EXPECT_NE(Output().find("SSL"), std::string::npos);
  EXPECT_EQ(Output().find("header-secret"), std::string::npos);
}

TEST_F(EventDelivery, TheIndexAndTheFiltersDecideWhoGetsAnEvent) {
  const Json chassis = {{{"@odata.id", "/redfish/v1/Chassis"}}};
  const struct {
    std::string path;
    Json filters;
    std::string taken;  // of the events below
  } rows[] = {
      {"/unfiltered", {}, "below chassis itself none base"},
      {"/exact", {{"OriginResources", chassis}}, "itself"},
      {"/subordinates", {{"OriginResources", chassis}, {"SubordinateResources", true}}, "below chassis itself"},
      {"/prefix", {{"RegistryPrefixes", {"Base"}}}, "base"},
      {"/message", {{"MessageIds", {"ResourceEvent.1.2.ResourceChanged"}}}, "below chassis itself none"},
      {"/type", {{"ResourceTypes", {"Chassis"}}}, "chassis"},
      {"/types", {{"EventTypes", {"Other"}}}, ""},
  };
  ASSERT_TRUE(HashWrite(redis(), "/redfish/v1/Chassis/1", "@odata.type", R"("#Chassis.v1_14_0.Chassis")"));
  ASSERT_TRUE(HashWrite(redis(), "/redfish/v1/Chassis/1/Sensors/2", "@odata.type", R"("#Sensor.v1_0_0.Sensor")"));
  ASSERT_TRUE(HashWrite(redis(), "/redfish/v1/Chassis", "@odata.type", R"("#ChassisCollection.ChassisCollection")"));
  for (const auto& row : rows) Subscribe(row.path, row.filters);
  Raise("below", {{"OriginOfCondition", "/redfish/v1/Chassis/1/Sensors/2"}});
  Raise("chassis", {{"OriginOfCondition", "/redfish/v1/Chassis/1"}});
  Raise("itself", {{"OriginOfCondition", "/redfish/v1/Chassis"}});
  Raise("none");
  Raise("base", {{"MessageId", "Base.1.12.Success"}});
  for (const auto& row : rows) ExpectTaken(row.path, row.taken);
  EXPECT_EQ(AskShort("PATCH", kService, R"({"ServiceEnabled": false})"), "OK_RES Base.1.12.Success()");
  EXPECT_TRUE(Eventually([this] { return IsQueueEmpty(); }));
}

TEST_F(EventDelivery, DestinationsThatFailHangAndComeBackHoldUpNobodyAndMissNothing) {
  SetModes({{"/fails", "fail"}, {"/hangs", "hang"}});
  Subscribe("/fails", {{"DeliveryRetryPolicy", "RetryForever"}});
  Subscribe("/hangs", {{"DeliveryRetryPolicy", "RetryForeverWithBackoff"}});
  Subscribe("/takes");
  for (const char* id : {"1", "2", "3"}) Raise(id);
  ExpectTaken("/takes", "1 2 3");
  EXPECT_TRUE(Eventually([&] { return !Requests("/fails", "fail").empty() && !Requests("/hangs", "hang").empty(); }));
  EXPECT_EQ(Taken("/fails") + Taken("/hangs"), "");

  // What is owed outlives the program, however it ends, connections that break, and a Redis that has forgotten
  // everything.
  delivery_.Kill();
  Raise("4");
  StartDelivery();
  ExpectTaken("/takes", "1 2 3 4");
  PowerCycle();
  EXPECT_TRUE(IsInteger(SendCommand(redis(), "CLIENT KILL TYPE normal SKIPME yes")));
  PowerCycle();
  SetModes(Json::object());
  ExpectTaken("/fails", "1 2 3 4");
  ExpectTaken("/hangs", "1 2 3 4");
  ExpectTaken("/takes", "1 2 3 4");
  EXPECT_TRUE(Eventually([this] { return IsQueueEmpty(); }));
}

TEST_F(EventDelivery, AfterTheLastRetryASubscriptionIsSuspendedOrDeleted) {
  SetModes({{"/suspended", "fail"}, {"/deleted", "fail"}, {"/short", "fail"}});
  const std::string suspended = Subscribe("/suspended", {{"DeliveryRetryPolicy", "SuspendRetries"}});
  const std::string deleted = Subscribe("/deleted", {{"DeliveryRetryPolicy", "TerminateAfterRetries"}});
  const std::string tooShort = Subscribe("/short", {{"DeliveryRetryPolicy", "TerminateAfterRetries"}, {"Id", "short"}});
  for (const char* id : {"1", "2"}) Raise(id);
  EXPECT_TRUE(Eventually([&] {
    return Value(suspended, "/Status/State") == "Disabled" && Value(tooShort, "/Status/State") == "Disabled" &&
           Value(deleted, "/Id").is_null();
  }));
  EXPECT_TRUE(Eventually([this] { return IsQueueEmpty(); }));
  const auto sent = [&](const std::string& path) {
    std::string ids;
    for (const Json& request : Requests(path, "fail")) ids += request["event"]["Events"][0]["EventId"];
    return ids;
  };
  EXPECT_EQ(sent("/suspended"), "11") << "sent again once, then nothing more";
  EXPECT_EQ(sent("/deleted").substr(0, 2), "11");
  EXPECT_EQ(Requests("/deleted", "fail").back()["event"]["Events"][0]["MessageId"], "Base.1.12.SubscriptionTerminated");
  SetModes(Json::object());
  EXPECT_EQ(AskShort("POST", suspended + "/Actions/EventDestination.ResumeSubscription"), "OK_RES Base.1.12.Success()");
  Raise("3");
  ExpectTaken("/suspended", "3");
}

TEST_F(EventDelivery, AStreamGetsItsEventsAndItsEnd) {
  RedisContext stream(redisConnectContext());
  ASSERT_TRUE(LimitWaiting(stream.get(), std::chrono::seconds(10)));
  ASSERT_TRUE(IsArray(SendCommand(stream.get(), "SUBSCRIBE stream")));
  const std::string uri = Subscribe(
      "", {{"Destination", "redfish-sse://127.0.0.1:1"}, {"RegistryPrefixes", {"Base"}}, {"EventTypes", {"Alert"}}});
  const auto next = [&] {
    const RedisReply message = ReadReply(stream.get());
    return message ? Json::parse(TextOf(message->element[2]))["Events"][0] : Json();
  };
  for (int i = 1; i <= 12; ++i) Raise(std::to_string(i), {{"MessageId", "Base.1.12.Success"}});
  for (int i = 1; i <= 12; ++i) EXPECT_EQ(next()["EventId"], std::to_string(i));
  EXPECT_EQ(AskShort("DELETE", uri), "OK_EMPTY");
  EXPECT_EQ(next()["MessageId"], "Base.1.12.SubscriptionTerminated");
}

}  // namespace
}  // namespace event_service
