/// Requests on their whole road: announced to the listener's thread, answered, published.
#include <pthread.h>

#include <fstream>
#include <thread>

#include "service/event_group_id.h"
#include "service/redis_keys.h"
#include "subscriptions/generated_destinations.h"
#include "subscriptions/subscriptions_listener.h"
#include "subscriptions/syslog_exchange.h"
#include "tests/subscriptions/subscriptions_fixture.h"
#include "tests/support/trip_counter.h"
#include "tools/front_end/front_end.h"

namespace event_service {
namespace {

using Names = std::vector<std::string>;

class ListenerTest : public SubscriptionsTest {
 protected:
  void SetUp() override {
    SubscriptionsTest::SetUp();
    StartListener();
  }
  void TearDown() override {
    StopListener();
    SubscriptionsTest::TearDown();
  }

  /// Starts the thread; its connections go through the counting proxy.
  void StartListener() {
    StartThread();
    const FrontEndRequest head = {.method = "HEAD", .targetUri = kCollection, .body = {}};
    while (!SendRequest(redis(), head)) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    SetProcessPaths(Sandbox().Paths());
  }
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

  FrontEndAnswer Send(const std::string& method, const std::string& uri, std::optional<Json> body = {}) {
    const auto answer = SendRequest(redis(), {.method = method, .targetUri = uri, .body = std::move(body)});
    EXPECT_TRUE(answer) << method << " " << uri;
    return answer.value_or(FrontEndAnswer());
  }
  /// Announces a request of the delivery side and waits until the daemon has deleted it.
  void SendForDelivery(const std::string& method, const std::string& uri, std::optional<Json> body = {}) {
    auto stored = StoreRequest(redis(), {.method = method, .targetUri = uri, .body = std::move(body)});
    ASSERT_TRUE(stored);
    const std::string announcement = stored->requestKey + " FROM_EVENTING";
    SendArguments(redis(), {"PUBLISH", kSubscriptionsChannel, announcement});
    for (int i = 0; i < 400 && !KeyListing(redis(), EscapeGlob(stored->requestKey) + "*").empty(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(KeyListing(redis(), "*" + EscapeGlob(stored->requestKey) + "*"), Names{}) << method << " " << uri;
    EXPECT_FALSE(KeyExists(redis(), "FROM_EVENTING"));
  }

  TripCounter proxy_{Server().SocketPath()};
  std::thread thread_;
};

const std::string kMember = kCollection + "/Member-01";
const Json kBody = {{"Id", "Member-01"}, {"Protocol", "Redfish"}, {"Destination", "https://c"}, {"Context", "c"}};

TEST_F(ListenerTest, EveryMethodHasItsAnswer) {
  const std::string resume = "/Actions/EventDestination.ResumeSubscription";
  const struct {
    const char* method;
    std::string uri;
    std::optional<Json> body;
    const char* status;
    const char* messageId;
    Names args;
  } cases[] = {
      {"POSTCREATE", kCollection, kBody, "OK_RES", "Base.1.12.Created", {}},
      {"GET", kMember, {}, "", "", {}},
      {"HEAD", kMember, {}, "", "", {}},
      {"PATCH", kMember, Json{{"Context", "new"}}, "OK_RES", "Base.1.12.Success", {}},
      {"PATCH", "", Json{{"Context", "new"}}, "EXCEPTION", "Base.1.12.OperationFailed", {}},
      {"POSTACTION", kMember + resume, Json::object(), "OK_RES", "", {}},
      {"POSTACTION",
       kMember + resume + "/x",
       {},
       "NOT_FOUND",
       "Base.1.12.ActionNotSupported",
       {kMember + resume + "/x"}},
      {"POSTACTION", kMember, {}, "NOT_FOUND", "Base.1.12.ActionNotSupported", {kMember}},
      {"POSTACTION", "/x" + resume, {}, "NOT_FOUND", "Base.1.12.ResourceMissingAtURI", {"/x"}},
      {"PUT", kMember, {}, "NOT_ALLOWED", "ExtendedError.1.2.MethodNotAllowed", {kMember, "PUT"}},
      {"", kMember, {}, "NOT_ALLOWED", "ExtendedError.1.2.MethodNotAllowed", {kMember, ""}},
      {"DELETE", kCollection + "/1", {}, "FAILURE", "Base.1.12.ResourceCannotBeDeleted", {}},
      {"DELETE", "", {}, "EXCEPTION", "Base.1.12.OperationFailed", {}},
      {"DELETE", kMember, {}, "OK_EMPTY", "", {}},
      {"DELETE", kMember, {}, "NOT_FOUND", "Base.1.12.ResourceMissingAtURI", {kMember}},
      {"DELETE", "SSE-ALL", {}, "OK_EMPTY", "", {}},
  };
  for (const auto& row : cases) {
    // Not every target says which channel it belongs to.
    std::optional<FrontEndAnswer> answer;
    if (ChannelOf(row.uri) != kSubscriptionsChannel) {
      const auto stored = StoreRequest(redis(), {.method = row.method, .targetUri = row.uri, .body = row.body});
      const RedisContext waiting = Connect();
      SendArguments(waiting.get(), {"SUBSCRIBE", stored->returnChannel});
      ASSERT_TRUE(AnnounceRequest(redis(), kSubscriptionsChannel, *stored));
      ReadReply(waiting.get());
      answer = ReadAnswer(redis(), *stored);
      RemoveRequest(redis(), *stored);
    } else {
      answer = Send(row.method, row.uri, row.body);
    }
    EXPECT_EQ(answer->status, row.status) << row.method << " " << row.uri;
    EXPECT_EQ(answer->messages.empty() ? "" : answer->messages.front().id, row.messageId)
        << row.method << " " << row.uri;
    EXPECT_EQ(answer->messages.empty() ? Names{} : answer->messages.front().args, row.args) << row.method;
    const bool isNoOperation = answer->status == "OK_RES" && answer->messages.empty();
    EXPECT_EQ(isNoOperation, !answer->body.empty()) << row.uri;
  }
}

TEST_F(ListenerTest, GatesStandInTheirOrder) {
  settings_.protocolOnly = true;
  const Json foreign = {{"Id", "Mail-0001"}, {"Protocol", "SMTP"}, {"Destination", "mailto:a@b.c"}};
  HashWrite(redis(), kMember, "Protocol", "\"SMTP\"");
  state_->subscriptionCount = 100;
  EXPECT_EQ(Send("POSTCREATE", kCollection, foreign).status, "IGNORE");
  EXPECT_EQ(Send("POSTCREATE", kCollection, kBody).messages.front().id, "Base.1.12.EventSubscriptionLimitExceeded");
  for (const char* method : {"GET", "PATCH", "DELETE"}) EXPECT_EQ(Send(method, kMember).status, "IGNORE") << method;
  HashWrite(redis(), "/redfish/v1/EventService", "ServiceEnabled", "false");
  for (const char* method : {"POSTCREATE", "PATCH", "DELETE"}) {
    EXPECT_EQ(Send(method, kMember, foreign).messages.front().id, "ExtendedError.1.2.ServiceDisabled") << method;
  }
  EXPECT_EQ(Send("DELETE", "SSE-ALL").status, "OK_EMPTY");
  EXPECT_EQ(Send("DELETE", kCollection + "/1").status, "FAILURE");
}

TEST_F(ListenerTest, TheDeliverySideIsNotAnswered) {
  Send("POSTCREATE", kCollection, kBody);
  SendForDelivery("PATCH", kMember, Json{{"Status", {{"State", "Disabled"}}}});
  EXPECT_EQ(Stored(kMember)["Status"]["State"], "Disabled");
  SendForDelivery("PATCH", "", Json{{"Status", {{"State", "Disabled"}}}});
  SendForDelivery("DELETE", kCollection + "/1");
  SendForDelivery("DELETE", kMember);
  EXPECT_FALSE(KeyExists(redis(), kMember));
  SendForDelivery("DELETE", kMember);
  SendForDelivery("DELETE", "SSE-ALL");
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
  Json typical = {{"Protocol", "Redfish"},
                  {"Destination", "https://c"},
                  {"Context", "c"},
                  {"RegistryPrefixes", {"Base", "ResourceEvent"}},
                  {"OriginResources", Json::array({{{"@odata.id", "/redfish/v1/Systems/1"}}})}};
  MaxEventGroupId(redis());  // start-up has asked for it
  proxy_.Reset();
  Send("POSTCREATE", kCollection, typical);
  EXPECT_LE(proxy_.trips(), 7u);
  typical["HttpHeaders"] = Json::array({{{"X-Token", "secret"}}});
  proxy_.Reset();
  const std::string uri = Send("POSTCREATE", kCollection, typical).location;
  EXPECT_LE(proxy_.trips(), 9u);
  EXPECT_LE(proxy_.commands(), 80u);
  proxy_.Reset();
  EXPECT_EQ(Send("PATCH", uri, Json{{"Context", "new"}}).status, "OK_RES");
  EXPECT_LE(proxy_.trips(), 5u);
  proxy_.Reset();
  EXPECT_EQ(Send("DELETE", uri).status, "OK_EMPTY");
  EXPECT_LE(proxy_.trips(), 7u);
  proxy_.Reset();
  EXPECT_EQ(Send("PUT", uri).status, "NOT_ALLOWED");
  EXPECT_EQ(proxy_.trips(), 2u);
}

class GenerationTest : public ListenerTest {
 protected:
  void Generate(const std::string& file) {
    WriteFile(settings_.paths.generatedDestinations, file);
    CreateGeneratedDestinations(redis(), settings_, {.untilHeard = std::chrono::milliseconds(50)});
  }
};

TEST_F(GenerationTest, AnyNumberOfStartsYieldsOneMemberEach) {
  const std::string bodies = R"([
      {"Id": "Preset-01", "Protocol": "Redfish", "Destination": "https://a"},
      {"Protocol": "Redfish", "Destination": "https://b", "Context": "x"},
      {"Protocol": "Redfish", "Destination": "https://b", "Context": "x"},
      {"Protocol": "Redfish", "Destination": "https://b"},
      5,
      {"Protocol": "Nonsense", "Destination": "https://c"},
      {"Id": {"deep": []}, "Protocol": "Redfish", "Destination": "https://d"}])";
  for (const std::string& file : {bodies, R"({"Members": )" + bodies + "}"}) {
    const LogCapture log;
    Generate(file);
    EXPECT_EQ(state_->subscriptionCount, 3u);
    EXPECT_EQ(log.Errors(), (Names{"Generated event destination 5 is no JSON object.",
                                   "Generated event destination 6 was refused: Base.1.12.PropertyValueNotInList",
                                   "Generated event destination 7 was refused: Base.1.12.PropertyValueTypeError"}));
    EXPECT_EQ(KeyListing(redis(), "*GENERATE*"), Names{});
  }
}

TEST_F(GenerationTest, FilesOfEveryForm) {
  LogCapture log;
  CreateGeneratedDestinations(redis(), settings_);
  EXPECT_EQ(log.Errors(), Names{}) << "a missing file is no error";
  for (const char* file : {"", "{", "5", R"({"Members": 5})", "[1"}) {
    Generate(file);
    EXPECT_EQ(log.Errors().size(), 1u) << file;
    log.Clear();
  }
  Generate("[]");
  EXPECT_EQ(log.Errors(), Names{});
  StopListener();
  Generate(R"([{"Protocol": "Redfish", "Destination": "https://a"}, {}])");
  EXPECT_EQ(log.Errors(), Names{"Nobody takes the generated event destinations from number 1 on."});
  EXPECT_EQ(KeyListing(redis(), "*GENERATE*"), Names{});
}

}  // namespace
}  // namespace event_service
