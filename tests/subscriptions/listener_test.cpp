/// Requests on their whole road: announced to the listener's thread, answered, published.
#include <pthread.h>

#include <filesystem>
#include <thread>

#include "service/event_group_id.h"
#include "service/redis_keys.h"
#include "subscriptions/generated_destinations.h"
#include "subscriptions/subscriptions_listener.h"
#include "tests/subscriptions/message_text.h"
#include "tests/subscriptions/subscriptions_fixture.h"
#include "tests/support/trip_counter.h"
#include "tools/front_end/front_end.h"

namespace event_service {
namespace {

class ListenerTest : public SubscriptionsTest {
 protected:
  void SetUp() override {
    SubscriptionsTest::SetUp();
    StartThread();
    Send("HEAD", kCollection);
    SetProcessPaths(Sandbox().Paths());
  }
  void TearDown() override {
    StopListener();
    SubscriptionsTest::TearDown();
  }

  /// The thread's connections go through the counting proxy.
  void StartThread() {
    const std::string folder = Sandbox().Root() + "/proxied";
    WriteFile(folder + "/redis.conf", "unixsocket " + folder + "/redis.sock\n");
    WriteFile(folder + "/redis.port", "0");
    WriteFile(folder + "/redis.requirepass", "");
    WriteFile(folder + "/redis.unixsocket", proxy_.SocketPath());
    FilePaths paths = Sandbox().Paths();
    paths.redisConfiguration = folder + "/redis.conf";
    SetProcessPaths(paths);
    thread_ = std::thread([] { SubscriptionsListenerThread(nullptr); });
  }
  void StopListener() {
    if (!thread_.joinable()) return;
    SendCommand(redis(), "CLIENT KILL TYPE pubsub");
    thread_.join();
  }

  std::optional<StoredRequest> Store(const std::string& method, const std::string& uri, const Json& body) {
    FrontEndRequest request{.method = method, .targetUri = uri, .body = {}};
    if (!body.is_null()) request.body = body;
    return StoreRequest(redis(), request);
  }
  /// The answer as "STATUS MessageId(arguments)". Not every target says which channel it belongs to.
  std::string Send(const std::string& method, const std::string& uri, const Json& body = Json()) {
    const auto stored = Store(method, uri, body);
    const RedisContext waiting = Connect();
    SendArguments(waiting.get(), {"SUBSCRIBE", stored->returnChannel});
    while (!AnnounceRequest(redis(), kSubscriptionsChannel, *stored)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    void* published = nullptr;
    EXPECT_EQ(redisGetReply(waiting.get(), &published), REDIS_OK);
    freeReplyObject(published);
    answer_ = ReadAnswer(redis(), *stored);
    RemoveRequest(redis(), *stored);
    std::string text = answer_.status;
    for (const FrontEndMessage& message : answer_.messages) text += ' ' + MessageText({message.id, message.args, {}});
    return text;
  }
  /// Announces a request of the delivery side; another request behind it shows that it is through.
  void SendForDelivery(const std::string& method, const std::string& uri, const Json& body = Json()) {
    auto stored = Store(method, uri, body);
    SendArguments(redis(), {"PUBLISH", kSubscriptionsChannel, stored->requestKey + " FROM_EVENTING"});
    Send("HEAD", kCollection);
    EXPECT_EQ(KeyListing(redis(), "*" + EscapeGlob(stored->requestKey) + "*"), Names{}) << method << " " << uri;
    EXPECT_EQ(KeyListing(redis(), "*FROM_EVENTING*"), Names{});
  }

  TripCounter proxy_{Server().SocketPath()};
  std::thread thread_;
  FrontEndAnswer answer_;  // the last one
};

const std::string kMember = kCollection + "/Member-01";
const Json kBody = {{"Id", "Member-01"}, {"Protocol", "Redfish"}, {"Destination", "https://c"}, {"Context", "c"}};
const Json kChange = {{"Context", "new"}};
const Json kSuspension = {{"Status", {{"State", "Disabled"}}}};

TEST_F(ListenerTest, EveryMethodHasItsAnswer) {
  const std::string resume = kMember + "/Actions/EventDestination.ResumeSubscription";
  const struct {
    const char* method;
    std::string uri;
    std::string answer;
    Json body = {};
  } cases[] = {
      {"POSTCREATE", kCollection, "OK_RES Created()", kBody},
      {"GET", kMember, ""},
      {"HEAD", kMember, ""},
      {"PATCH", kMember, "OK_RES Success()", kChange},
      {"PATCH", "", "EXCEPTION OperationFailed()", kChange},
      {"POSTACTION", resume, "OK_RES", Json::object()},
      {"POSTACTION", resume + "/x", "NOT_FOUND ActionNotSupported(" + resume + "/x)"},
      {"POSTACTION", kMember, "NOT_FOUND ActionNotSupported(" + kMember + ")"},
      {"POSTACTION", "/x/Actions/EventDestination.ResumeSubscription", "NOT_FOUND ResourceMissingAtURI(/x)"},
      {"PUT", kMember, "NOT_ALLOWED ExtendedError.1.2.MethodNotAllowed(" + kMember + ", PUT)"},
      {"", kMember, "NOT_ALLOWED ExtendedError.1.2.MethodNotAllowed(" + kMember + ", )"},
      {"DELETE", kCollection + "/1", "FAILURE ResourceCannotBeDeleted()"},
      {"DELETE", "", "EXCEPTION OperationFailed()"},
      {"DELETE", kMember, "OK_EMPTY"},
      {"DELETE", kMember, "NOT_FOUND ResourceMissingAtURI(" + kMember + ")"},
      {"DELETE", "SSE-ALL", "OK_EMPTY"},
  };
  for (const auto& row : cases) {
    EXPECT_EQ(Send(row.method, row.uri, row.body), row.answer) << row.method << " " << row.uri;
    EXPECT_EQ(answer_.body.empty(), row.answer != "OK_RES") << "the no-operation response";
  }
}

TEST_F(ListenerTest, GatesStandInTheirOrder) {
  settings_.protocolOnly = true;
  const Json foreign = {{"Id", "Mail-0001"}, {"Protocol", "SMTP"}, {"Destination", "mailto:a@b.c"}};
  HashWrite(redis(), kMember, "Protocol", "\"SMTP\"");
  state_->subscriptionCount = 100;
  EXPECT_EQ(Send("POSTCREATE", kCollection, foreign), "IGNORE ()");
  EXPECT_EQ(Send("POSTCREATE", kCollection, kBody), "UNAVAILABLE EventSubscriptionLimitExceeded()");
  for (const char* method : {"GET", "PATCH", "DELETE"}) EXPECT_EQ(Send(method, kMember), "IGNORE ()") << method;
  HashWrite(redis(), "/redfish/v1/EventService", "ServiceEnabled", "false");
  for (const char* method : {"POSTCREATE", "PATCH", "DELETE"}) {
    EXPECT_EQ(Send(method, kMember, foreign), "UNAVAILABLE ExtendedError.1.2.ServiceDisabled()") << method;
  }
  EXPECT_EQ(Send("DELETE", "SSE-ALL"), "OK_EMPTY");
  EXPECT_EQ(Send("DELETE", kCollection + "/1"), "FAILURE ResourceCannotBeDeleted()");
}

TEST_F(ListenerTest, TheDeliverySideIsNotAnswered) {
  Send("POSTCREATE", kCollection, kBody);
  SendForDelivery("PATCH", kMember, kSuspension);
  EXPECT_EQ(Stored(kMember)["Status"]["State"], "Disabled");
  SendForDelivery("PATCH", "", kSuspension);
  for (const std::string& target : {kCollection + "/1", kMember, kMember, std::string("SSE-ALL")}) {
    SendForDelivery("DELETE", target);
  }
  EXPECT_FALSE(KeyExists(redis(), kMember));
}

TEST_F(ListenerTest, ARefusedSubscriptionEndsTheThread) {
  StopListener();
  const LogCapture log;
  proxy_.Reset();
  proxy_.FailCommandsWith("SUBSCRIBE");
  StartThread();
  thread_.join();
  EXPECT_EQ(log.Errors(), Names{"Failed to subscribe channel."});
}

TEST_F(ListenerTest, RoundTripsStayWithinTheirBudgets) {
  const Json typical = {{"Protocol", "Redfish"},
                        {"Destination", "https://c"},
                        {"RegistryPrefixes", {"Base", "ResourceEvent"}},
                        {"OriginResources", Json::array({{{"@odata.id", "/redfish/v1/Systems/1"}}})}};
  Json withHeaders = typical;
  withHeaders["HttpHeaders"] = Json::array({{{"X-Token", "secret"}}});
  Json member = withHeaders;
  member["Id"] = "Member-01";
  Send("POSTCREATE", kCollection, member);
  const struct {
    const char* method;
    std::string uri;
    Json body;
    const char* status;
    size_t trips;
  } cases[] = {
      {"POSTCREATE", kCollection, typical, "OK_RES", 7}, {"POSTCREATE", kCollection, withHeaders, "OK_RES", 9},
      {"PATCH", kMember, kChange, "OK_RES", 5},          {"DELETE", kMember, {}, "OK_EMPTY", 7},
      {"PUT", kCollection, {}, "NOT_ALLOWED", 2},
  };
  MaxEventGroupId(redis());  // start-up has asked for it
  for (const auto& row : cases) {
    proxy_.Reset();
    Send(row.method, row.uri, row.body);
    EXPECT_EQ(answer_.status, row.status) << row.method;
    EXPECT_LE(proxy_.trips(), row.trips) << row.method;
    EXPECT_LE(proxy_.commands(), 80u) << row.method;
  }
}

class GenerationTest : public ListenerTest {
 protected:
  void Generate(const std::string& file) {
    WriteFile(settings_.paths.generatedDestinations, file);
    CreateGeneratedDestinations(redis(), settings_, {.untilHeard = std::chrono::milliseconds(50)});
  }
};

TEST_F(GenerationTest, AnyNumberOfStartsYieldsOneMemberEach) {
  settings_.protocolOnly = true;
  const std::string bodies = R"([
      {"Id": "Preset-01", "Protocol": "Redfish", "Destination": "https://a"},
      {"Protocol": "Redfish", "Destination": "https://b", "Context": "x"},
      {"Protocol": "Redfish", "Destination": "https://b", "Context": "x"},
      {"Protocol": "Redfish", "Destination": "https://b"},
      5,
      {"Protocol": "SMTP", "Destination": "mailto:a@b.c"},
      {"Id": {"deep": []}, "Protocol": "Redfish", "Destination": "https://d"}])";
  for (const std::string& file : {bodies, R"({"Members": )" + bodies + "}"}) {
    const LogCapture log;
    Generate(file);
    EXPECT_EQ(state_->subscriptionCount, 3u);
    for (const std::string& line : log.DebugLines())
      EXPECT_TRUE(!line.starts_with("Subscription ") || line.ends_with("added by start-up.")) << line;
    EXPECT_EQ(log.Errors(), (Names{"Generated event destination 5 is no JSON object.",
                                   "Generated event destination 6 was refused: IGNORE",
                                   "Generated event destination 7 was refused: Base.1.12.PropertyValueTypeError"}));
    EXPECT_EQ(KeyListing(redis(), "*GENERATE*"), Names{});
  }
}

TEST_F(GenerationTest, FilesOfEveryForm) {
  const LogCapture log;
  CreateGeneratedDestinations(redis(), settings_);
  Generate("[]");
  EXPECT_EQ(log.Errors(), Names{}) << "a missing or empty file is no error";
  const std::string& path = settings_.paths.generatedDestinations;
  const std::string deep = R"([{"Context": )" + std::string(100'000, '[') + std::string(100'000, ']') + "}]";
  const Names unreadable = {"The file of generated event destinations " + path + " cannot be read."};
  for (const std::string& file :
       {std::string(), std::string("5"), std::string(R"({"Members": 5})"), std::string("[]\0", 3), deep}) {
    LogCapture oneLine;
    Generate(file);
    EXPECT_EQ(oneLine.Errors(), unreadable) << file.substr(0, 40);
  }
  std::filesystem::remove(path);
  std::filesystem::create_directory(path);
  LogCapture last;
  CreateGeneratedDestinations(redis(), settings_);
  EXPECT_EQ(last.Errors(), unreadable);
  std::filesystem::remove(path);

  StopListener();
  last.Clear();
  Generate(R"([{"Protocol": "Redfish", "Destination": "https://a"}, {}])");
  EXPECT_EQ(last.Errors(), Names{"Nobody takes the generated event destinations from number 1 on."});
  EXPECT_EQ(KeyListing(redis(), "*GENERATE*"), Names{});
}

}  // namespace
}  // namespace event_service
