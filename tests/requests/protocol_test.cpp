/// The road of a request: announcement, record, gates, answer, notification.
#include <array>
#include <future>
#include <stdexcept>
#include <thread>

#include "requests/gates.h"
#include "requests/listener.h"
#include "requests/response_writer.h"
#include "service/redis_keys.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"
#include "tests/support/trip_counter.h"

namespace event_service {
namespace {

using Lines = std::vector<std::string>;

TEST(Announcement, IsSplitAtItsFirstBlank) {
  const struct {
    std::string_view text;
    std::string_view request, response;  // empty: malformed
  } cases[] = {
      {"req resp", "req", "resp"},
      {"req resp with blanks", "req", "resp with blanks"},
      {"req  resp", "req", " resp"},
      {"req", "", ""},
      {"", "", ""},
      {" resp", "", ""},
      {"req ", "", ""},
      {" ", "", ""},
  };
  for (const auto& row : cases) {
    const std::optional<Announcement> announcement = ParseAnnouncement(row.text);
    EXPECT_EQ(announcement.has_value(), !row.request.empty()) << row.text;
    if (!announcement) continue;
    EXPECT_EQ(announcement->requestKey, row.request);
    EXPECT_EQ(announcement->responseKey, row.response);
  }
}

class ResponseTest : public RedisTest {
 protected:
  void Write(std::string_view responseKey, const Answer& answer) {
    RedisPipeline pipeline(redis());
    writer_.Append(pipeline, responseKey, answer);
    EXPECT_TRUE(AllIntegers(pipeline.Execute()));
  }
  ResponseWriter writer_;
};

TEST_F(ResponseTest, EveryPartOfAnAnswerHasItsKey) {
  Write("resp", Answer{kFailure,
                       {{"Base.1.12.PropertyUnknown", {"A", ""}, {"A"}}, {"Base.1.12.Success", {}, {}}, {"", {}, {}}},
                       "a log line",
                       {}});
  EXPECT_EQ(Dump(), (DatabaseDump{
                        {"resp", "{&&ExtendedInfo=resp/ExtendedInfo, &&ReturnStatus=FAILURE}"},
                        {"resp/ExtendedInfo", "[resp/ExtendedInfo/1, resp/ExtendedInfo/2, resp/ExtendedInfo/3]"},
                        {"resp/ExtendedInfo/1",
                         "{&&MessageArgs=resp/ExtendedInfo/1/MessageArgs, &&MessageId=Base.1.12.PropertyUnknown, "
                         "&&RelatedProperties=resp/ExtendedInfo/1/RelatedProperties}"},
                        {"resp/ExtendedInfo/1/MessageArgs", "[A, ]"},
                        {"resp/ExtendedInfo/1/RelatedProperties", "[#/A]"},
                        {"resp/ExtendedInfo/2", "{&&MessageId=Base.1.12.Success}"},
                    }));
}

TEST_F(ResponseTest, EntriesAreCountedOnUntilTheResponseKeyChanges) {
  const Answer answer = Refuse(kFailure, "Base.1.12.EmptyJSON");
  for (const char* key : {"a", "a", "b", "a"}) Write(key, answer);
  EXPECT_EQ(Dump()["a/ExtendedInfo"], "[a/ExtendedInfo/1, a/ExtendedInfo/2, a/ExtendedInfo/1]");
  EXPECT_EQ(Dump()["b/ExtendedInfo"], "[b/ExtendedInfo/1]");
}

TEST_F(ResponseTest, TheNoOperationResponseHoldsOneErrorObject) {
  Write("resp", NoOperationAnswer());
  EXPECT_EQ(Dump()["resp"], "{&&ResponseData=resp/ResponseData, &&ReturnStatus=OK_RES}");
  constexpr auto kText =
      "The request body submitted contain no data to act upon and no changes to the resource took place.";
  EXPECT_EQ(Json::parse(HashRead(redis(), "resp/ResponseData", "&&RawJSON")),
            (Json{{"error",
                   {{"code", "Base.1.12.NoOperation"},
                    {"message", kText},
                    {"@Message.ExtendedInfo",
                     {{{"@odata.type", "#Message.v1_1_2.Message"},
                       {"MessageId", "Base.1.12.NoOperation"},
                       {"Message", kText},
                       {"MessageSeverity", "Warning"},
                       {"Resolution", "Add properties in the JSON object and resubmit the request."}}}}}}}));
}

TEST_F(ResponseTest, ARequestThatNobodyWaitsForIsRemoved) {
  const struct {
    std::string requestKey;
    std::vector<std::string> removed, kept;
  } cases[] = {
      {"req*1",
       {"req*1", "req*1/RequestData", "req*1x", "&&req*1/RequestData/A"},
       {"req21", "req1", "&&req*1", "&&req*1x"}},
      {"&&req", {"&&req", "&&req/RequestData"}, {"req", "&&&&req/a"}},
      {"req/", {"req/", "req/a", "&&req/", "&&req/a"}, {"req", "&&req"}},
  };
  for (const auto& row : cases) {
    for (const auto* keys : {&row.removed, &row.kept}) {
      for (const std::string& key : *keys) ASSERT_TRUE(HashWrite(redis(), key, "f", "v"));
    }
    RedisPipeline pipeline(redis());
    EXPECT_FALSE(PublishAnswer(redis(), pipeline, row.requestKey, "resp", "channel without a subscriber"));
    for (const std::string& key : row.removed) EXPECT_FALSE(KeyExists(redis(), key)) << key;
    for (const std::string& key : row.kept) EXPECT_TRUE(KeyExists(redis(), key)) << key;
    SendCommand(redis(), "FLUSHALL");
  }
}

TEST_F(ResponseTest, AFailedReadEndsTheRemovalWithOneLine) {
  const LogCapture log;
  TripCounter proxy(Server().SocketPath());
  const RedisContext cut = proxy.Connect();
  ASSERT_TRUE(HashWrite(redis(), "req", "f", "v"));
  proxy.CutAfter(3);  // the listings pass, the first removal does not
  RedisPipeline pipeline(cut.get());
  EXPECT_FALSE(PublishAnswer(cut.get(), pipeline, "req", "resp", ""));
  EXPECT_EQ(log.Errors(), Lines{"Failed to get reply from database."});
}

// ---- The loop -------------------------------------------------------------------------------------------------------

Answer Echo(Request& request) { return Refuse(kOkRes, "Echo", {request.record.targetUri, request.record.privileges}); }
Answer Throw(Request&) { throw std::runtime_error("thrown"); }
Answer RefuseAll(Request& request) { return Refuse(kNotAllowed, "No", {request.record.method}, "refused"); }

constexpr MethodRoute kTestRoutes[] = {
    {"GET", Publish::kAlways, Echo},
    {"HEAD", Publish::kAlways, Throw},
    {"DELETE", Publish::kUnlessFromEventing, RefuseAll},
    {"PATCH", Publish::kUnlessFromEventing, RefuseAll, true},
};
const ServiceRoutes kTestService = {kTestRoutes, RefuseAll};

/// Runs the loop in a thread; the command connection goes through a counting proxy.
class ServeRequestsTest : public RedisTest {
 protected:
  void SetUp() override {
    RedisTest::SetUp();
    proxy.emplace(Server().SocketPath());
    subscriber_ = Connect();
    answers_ = Connect();
    ASSERT_TRUE(SendArguments(subscriber_.get(), {"SUBSCRIBE", "channel"}));
    ASSERT_TRUE(SendArguments(answers_.get(), {"SUBSCRIBE", "answers"}));
    timeval patience{10, 0};
    redisSetTimeout(answers_.get(), patience);
    thread_ = std::thread(
        [this] { ServeRequests(subscriber_.get(), {.redis = proxy->Connect(), .settings = settings_}, kTestService); });
  }
  void TearDown() override { EndLoop(); }

  void EndLoop() {
    if (!thread_.joinable()) return;
    SendCommand(redis(), "CLIENT KILL TYPE pubsub");
    thread_.join();
  }
  void Announce(const std::string& text) {
    const RedisReply reply = SendArguments(redis(), {"PUBLISH", "channel", text});
    ASSERT_TRUE(IsInteger(reply) && reply->integer == 1);
  }
  void Store(const std::string& key, std::string_view method, std::string_view channel = "answers") {
    HashWrite(redis(), key, kRequestMethod, method);
    HashWrite(redis(), key, kTargetUri, "/redfish/v1/X");
    HashWrite(redis(), key, kPrivileges, "Login");
    HashWrite(redis(), key, kReturnChannel, channel);
  }
  /// The response key of the next notification.
  std::string NextAnswer() {
    void* reply = nullptr;
    if (redisGetReply(answers_.get(), &reply) != REDIS_OK) return "no answer";
    const RedisReply message(static_cast<redisReply*>(reply));
    return std::string(TextOf(message->element[2]));
  }
  /// Every announcement before this has been dealt with when it returns.
  void Settle() {
    Store("settle", "GET");
    Announce("settle settled");
    EXPECT_EQ(NextAnswer(), "settled");
    for (const std::string& key : KeyListing(redis(), "settle*")) KeyDelete(redis(), key);
  }

  std::optional<TripCounter> proxy;
  const LogCapture log_;

 private:
  ServiceSettings settings_;
  RedisContext subscriber_, answers_;
  std::thread thread_;
};

TEST_F(ServeRequestsTest, ARefusalTakesTwoTripsAndAtMostSixteenCommands) {
  Store("req", "POST");
  proxy->Reset();
  Announce("req resp");
  EXPECT_EQ(NextAnswer(), "resp");
  EXPECT_EQ(proxy->trips(), 2U);
  EXPECT_LE(proxy->commands(), 16U);
  EXPECT_EQ(Dump()["resp/ExtendedInfo/1/MessageArgs"], "[POST]");
  EXPECT_EQ(log_.Errors(), Lines{"refused"});
}

TEST_F(ServeRequestsTest, MalformedAnnouncementsAreDroppedAndTheNextOneIsServed) {
  for (const std::string& text : {std::string("no-blank"), std::string(1, '\0'), std::string(1 << 20, 'x')})
    Announce(text);
  Settle();
  EXPECT_EQ(log_.Errors(), Lines(3, "Request data format is incorrect."));
}

TEST_F(ServeRequestsTest, AnExceptionOfAHandlerIsAnsweredAndTheLoopGoesOn) {
  Store("req", "HEAD");
  Announce("req resp");
  EXPECT_EQ(NextAnswer(), "resp");
  EXPECT_EQ(HashRead(redis(), "resp", kReturnStatus), "EXCEPTION");
  EXPECT_EQ(log_.Errors(), Lines{"OperationFailed: thrown"});
  Settle();
}

TEST_F(ServeRequestsTest, TheDeliverySideIsNeverAnsweredAndItsKeysAreDeleted) {
  for (const char* method : {"DELETE", "PATCH"}) {
    Store("req", method);
    HashWrite(redis(), "req/RequestData", "Status", "x");
    Announce("req FROM_EVENTING");
    Settle();
    EXPECT_EQ(Dump().contains("req/RequestData"), std::string_view(method) == "DELETE");
    SendCommand(redis(), "DEL req/RequestData");
    EXPECT_EQ(Dump(), DatabaseDump()) << method;
  }
  EXPECT_EQ(log_.Errors(), Lines(2, "refused"));
}

TEST_F(ServeRequestsTest, ForOtherMethodsTheMarkerIsAnOrdinaryResponseKey) {
  Store("req", "GET");
  Announce("req FROM_EVENTING");
  EXPECT_EQ(NextAnswer(), "FROM_EVENTING");
  EXPECT_EQ(HashRead(redis(), "FROM_EVENTING", kReturnStatus), "OK_RES");
}

TEST_F(ServeRequestsTest, ACommandConnectionThatBreaksStaysBroken) {
  Settle();
  ASSERT_TRUE(IsInteger(SendCommand(redis(), "CLIENT KILL TYPE normal SKIPME yes")));
  Store("req", "GET");
  Announce("req resp");
  Announce("req resp");
  EndLoop();
  EXPECT_FALSE(KeyExists(redis(), "resp"));
  EXPECT_EQ(log_.Errors(), (Lines{"refused", "Failed to publish data.", "refused", "Failed to publish data."}));
}

TEST_F(ServeRequestsTest, AnUnpublishedAnswerIsLogged) {
  Store("req", "GET", "nobody listens");
  Announce("req resp");
  Settle();
  EXPECT_EQ(log_.Errors(), Lines{"Failed to publish data."});
  EXPECT_FALSE(Dump().contains("req"));
}

// ---- Gates ----------------------------------------------------------------------------------------------------------

TEST_F(RedisTest, OnlyAnEnabledServiceLetsRequestsThrough) {
  const ServiceSettings settings;
  for (const char* stored : {"true", "false", "null", "\"true\"", "True", ""}) {
    Request request{redis(), {}, {}, settings, nullptr};
    request.record.serviceEnabled = stored;
    const std::optional<Answer> refusal = CheckServiceEnabled(request);
    ASSERT_EQ(refusal.has_value(), std::string_view(stored) != "true") << stored;
    if (!refusal) continue;
    EXPECT_EQ(refusal->status, "UNAVAILABLE");
    EXPECT_EQ(refusal->messages.front().id, "ExtendedError.1.2.ServiceDisabled");
  }
}

TEST_F(RedisTest, TheProtocolFilterIgnoresOthersWhileOnlyRedfishIsServed) {
  const LogCapture log;
  ServiceSettings settings;
  const Request request{redis(), {}, {}, settings, nullptr};
  HashWrite(redis(), "snmp", "Protocol", "\"SNMPv1\"");
  HashWrite(redis(), "redfish", "Protocol", "\"Redfish\"");
  EXPECT_FALSE(CheckRedfishProtocol(request, "snmp")) << "every protocol is served";
  settings.protocolOnly = true;
  EXPECT_FALSE(CheckRedfishProtocol(request, "redfish"));
  EXPECT_EQ(log.DebugLines(), Lines());
  const std::optional<Answer> refusal = CheckRedfishProtocol(request, "snmp");
  ASSERT_TRUE(refusal);
  EXPECT_EQ(refusal->status, "IGNORE");
  EXPECT_EQ(refusal->messages.front().id, "");
  EXPECT_EQ(log.DebugLines(), Lines{"Tarn doesn't need to handle the non Redfish protocol event destination."});
}

}  // namespace
}  // namespace event_service
