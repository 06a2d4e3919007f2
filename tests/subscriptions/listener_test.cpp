/// Requests on their whole road: announced to the listener's thread, answered, published.
#include <filesystem>
#include <thread>

#include "requests/listener.h"
#include "service/redis_keys.h"
#include "subscriptions/generated_destinations.h"
#include "subscriptions/subscriptions_listener.h"
#include "tests/subscriptions/subscriptions_fixture.h"
#include "tests/support/trip_counter.h"
#include "tools/front_end/front_end.h"

namespace event_service {
namespace {

class ListenerTest : public SubscriptionsTest {
 protected:
  /// New connections go through the counting proxy: the thread's, and each request's for its answer.
  void SetUp() override {
    SubscriptionsTest::SetUp();
    SetProcessPaths(Sandbox().UseRedis(proxy_.SocketPath()));
    StartThread();
  }
  void TearDown() override {
    StopThread();
    SubscriptionsTest::TearDown();
  }
  /// Paths, settings and state are changed only while no thread lives.
  void StartThread() {
    ExpectListeners();
    thread_ = std::thread([] { SubscriptionsListenerThread(nullptr); });
    EXPECT_TRUE(AwaitListeners(1, std::chrono::seconds(5)));
  }
  void StopThread() {
    if (!thread_.joinable()) return;
    SendCommand(redis(), "CLIENT KILL TYPE pubsub");
    thread_.join();
  }

  static FrontEndRequest MakeFrontEndRequest(const std::string& method, const std::string& uri, const Json& body) {
    return {.method = method, .targetUri = uri, .body = body.is_null() ? std::nullopt : std::optional(body)};
  }
  std::string Send(const std::string& method, const std::string& uri, const Json& body = Json()) {
    const std::optional<FrontEndAnswer> got = SendRequest(redis(), MakeFrontEndRequest(method, uri, body));
    if (!got) return "no answer";
    Answer answer{got->status, {}, {}, {}};
    for (const FrontEndMessage& message : got->messages) answer.messages.push_back({message.id, message.args, {}});
    return InShort(answer) + (got->body.empty() ? "" : "no operation");
  }
  /// As the delivery side does.
  void SendFromEventing(const std::string& method, const std::string& uri, const Json& body) {
    const auto stored = StoreRequest(redis(), MakeFrontEndRequest(method, uri, body));
    SendArguments(redis(), {"PUBLISH", kSubscriptionsChannel, stored->requestKey + " FROM_EVENTING"});
    Send("HEAD", kCollection);  // when this is answered, the other is through
    EXPECT_EQ(KeyListing(redis(), "*" + EscapeGlob(stored->requestKey) + "*"), Names{}) << method << " " << uri;
    EXPECT_EQ(KeyListing(redis(), "*FROM_EVENTING*"), Names{});
  }
  TripCounter proxy_{Server().SocketPath()};
  std::thread thread_;
};

const std::string kResume = "/Actions/EventDestination.ResumeSubscription";
const Json kSuspension = {{"Status", {{"State", "Disabled"}}}};
const std::string kMember = kCollection + "/Member-01";
const Json kBody = Json::parse(R"({"Id": "Member-01", "Protocol": "Redfish", "Destination": "https://c",
    "RegistryPrefixes": ["Base", "ResourceEvent"], "OriginResources": [{"@odata.id": "/redfish/v1/Systems/1"}]})");
const Json kChange = {{"Context", "new"}};

TEST_F(ListenerTest, EveryMethodHasItsAnswerAndRefusalsChangeNothing) {
  const std::string gone = kCollection + "/missing-1";
  const struct {
    const char* method;
    std::string uri;
    std::string answer;
    Json body = {};
  } cases[] = {
      {"POSTCREATE", kCollection, "OK_RES Created()", kBody},
      {"GET", kMember, ""},
      {"PATCH", kMember, "OK_RES Success()", kChange},
      {"PATCH", kMember, "EXCEPTION ExtendedError.1.2.DatabaseOperationError()"},
      {"POSTACTION", kMember + kResume, "OK_RESno operation", Json::object()},
      {"POSTACTION", kMember + kResume + "/x", "NOT_FOUND ActionNotSupported(" + kMember + kResume + "/x)"},
      {"POSTACTION", kMember + kResume + kResume, "NOT_FOUND ResourceMissingAtURI(" + kMember + kResume + ")"},
      {"POSTACTION", gone + kResume, "NOT_FOUND ResourceMissingAtURI(" + gone + ")"},
      {"PUT", kMember, "NOT_ALLOWED ExtendedError.1.2.MethodNotAllowed(" + kMember + ", PUT)"},
      {"DELETE", kMember, "OK_EMPTY"},
      {"DELETE", kMember, "NOT_FOUND ResourceMissingAtURI(" + kMember + ")"},
      {"DELETE", "SSE-ALL", "OK_EMPTY"},
  };
  for (const auto& row : cases) {
    const DatabaseDump before = Resources();
    EXPECT_EQ(Send(row.method, row.uri, row.body), row.answer) << row.method << " " << row.uri;
    EXPECT_TRUE(row.answer.starts_with("OK_") || Resources() == before) << row.answer;
  }
  HashWrite(redis(), kCollection + "/a/b/c/d/e", "Id", "\"e\"");
  const DatabaseDump before = Resources();
  for (const char* rest : {"/1", "/1234567", "/a/b", "/a%\xff"}) {
    EXPECT_EQ(Send("DELETE", kCollection + rest), "FAILURE ResourceCannotBeDeleted()") << rest;
  }
  for (const char* rest : {"", "/", "/12345678", "/a b", "/a\nb", "/a/b/c/d/e"}) {
    EXPECT_EQ(Send("DELETE", kCollection + rest), "NOT_FOUND ResourceMissingAtURI(" + kCollection + rest + ")");
  }
  EXPECT_EQ(Resources(), before);
}

TEST_F(ListenerTest, GatesStandInTheirOrder) {
  const auto restart = [this](uint32_t subscriptionCount) {
    StopThread();
    settings_.protocolOnly = true;
    state_->subscriptionCount = subscriptionCount;
    StartThread();
  };
  restart(4294967295u);  // compared as a signed number
  EXPECT_EQ(Send("POSTCREATE", kCollection, kBody), "OK_RES Created()");
  restart(100);
  HashWrite(redis(), kMember, "Protocol", "\"SMTP\"");
  EXPECT_EQ(Send("POSTCREATE", kCollection, kBodies["SMTP"]), "IGNORE ()");
  EXPECT_EQ(Send("POSTCREATE", kCollection, kBody), "UNAVAILABLE EventSubscriptionLimitExceeded()");
  for (const char* method : {"GET", "PATCH", "DELETE"}) EXPECT_EQ(Send(method, kMember), "IGNORE ()") << method;
  EXPECT_EQ(Send("POSTACTION", kMember + kResume), "IGNORE ()");
  HashWrite(redis(), "/redfish/v1/EventService", "ServiceEnabled", "false");
  const std::string disabled = "UNAVAILABLE ExtendedError.1.2.ServiceDisabled()";
  for (const char* method : {"POSTCREATE", "PATCH", "DELETE"}) {
    EXPECT_EQ(Send(method, kMember, kBodies["SMTP"]), disabled) << method;
  }
  EXPECT_EQ(Send("POSTACTION", kMember + kResume), disabled);
  SendFromEventing("PATCH", kMember, kSuspension);
  EXPECT_EQ(Field("&&" + kMember + "/Status", "State"), "\"Enabled\"");
  EXPECT_EQ(Send("DELETE", "SSE-ALL"), "OK_EMPTY");
  EXPECT_EQ(Send("DELETE", kCollection + "/1"), "FAILURE ResourceCannotBeDeleted()");
}

TEST_F(ListenerTest, TheDeliverySideIsNotAnswered) {
  Send("POSTCREATE", kCollection, kBody);
  const std::pair<const char*, std::string> requests[] = {
      {"PATCH", kMember},    {"PATCH", ""},       {"DELETE", ""},     {"DELETE", kCollection + "/1"},
      {"DELETE", "SSE-ALL"}, {"DELETE", kMember}, {"DELETE", kMember}};
  for (const auto& [method, uri] : requests) {
    SendFromEventing(method, uri, *method == 'P' ? kSuspension : Json());
    EXPECT_EQ(Field("&&" + kMember + "/Status", "State"), uri == kMember && *method == 'D' ? "" : "\"Disabled\"");
  }
}

TEST_F(ListenerTest, RoundTripsStayWithinTheirBudgets) {
  const auto expectWithin = [this](size_t trips, const char* method, const std::string& uri, const Json& body) {
    proxy_.Reset();
    EXPECT_TRUE(Send(method, uri, body).starts_with("OK_")) << method;
    EXPECT_LE(proxy_.trips() - 1, trips) << method;  // one is this side's SUBSCRIBE
    EXPECT_LE(proxy_.commands().size() - 1, 80u) << method;
  };
  Json body = kBody;
  body["HttpHeaders"] = Json::array({{{"X-Token", "secret"}}});
  Send("POSTCREATE", kCollection, body);  // which also asks for what startup knows
  body.erase("Id");
  expectWithin(8, "POSTCREATE", kCollection, body);
  body.erase("HttpHeaders");
  expectWithin(6, "POSTCREATE", kCollection, body);
  expectWithin(5, "PATCH", kMember, kChange);
  expectWithin(7, "DELETE", kMember, Json());
}

TEST_F(ListenerTest, GeneratedDestinationsExistOnceAfterAnyNumberOfStarts) {
  const auto generate = [this](const std::string& file) {
    const LogCapture log;
    CreateGeneratedDestinations(redis(), settings_);
    EXPECT_EQ(log.Errors(), Names{}) << "a missing file is no error";
    WriteFile(settings_.paths.generatedDestinations, file);
    CreateGeneratedDestinations(redis(), settings_, {.untilHeard = std::chrono::milliseconds(50)});
    std::filesystem::remove(settings_.paths.generatedDestinations);
    EXPECT_EQ(KeyListing(redis(), "*GENERATE*"), Names{});
    for (const std::string& line : log.DebugLines()) EXPECT_FALSE(line.ends_with("added by client.")) << line;
    return log.Errors();
  };
  const std::string bodies = R"([{"Id": "Preset-01", "Protocol": "Redfish", "Destination": "https://a"},
      {"Protocol": "Redfish", "Destination": "https://b", "Context": "x"},
      {"Protocol": "Redfish", "Destination": "https://b", "Context": "x"},
      {"Id": "", "Protocol": "Redfish", "Destination": "https://b"}, 5,
      {"Protocol": "SNMPv1", "Destination": "c", "SubscriptionType": "SNMPTrap", "SNMP": {"TrapCommunity": "t"}},
      {"Protocol": "SNMPv2c", "Destination": "c", "SubscriptionType": "SNMPTrap", "SNMP": {"TrapCommunity": "t"}},
      {"Id": {"deep": []}, "Protocol": "Redfish", "Destination": "https://d"}])";
  Send("HEAD", kCollection);
  for (const std::string& file : {bodies, R"({"Members": )" + bodies + "}"}) {
    EXPECT_EQ(generate(file), (Names{"Generated event destination 5 is no JSON object.",
                                     "Generated event destination 8 was refused: Base.1.12.PropertyValueTypeError"}));
    EXPECT_EQ(Elements(kMembers).size(), 5u);
  }
  StopThread();
  EXPECT_EQ(generate("[{}, {}]"), Names{"Nobody takes the generated event destinations from number 1 on."});
  const Names unreadable = {"The file of generated event destinations " + settings_.paths.generatedDestinations +
                            " cannot be read."};
  for (const std::string& file : {std::string(), std::string(R"({"Members": 5})"), std::string("[]\0", 3)}) {
    EXPECT_EQ(generate(file), unreadable) << file.substr(0, 40);
  }
}

}  // namespace
}  // namespace event_service
