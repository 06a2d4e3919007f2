/// The road of a request: announcement, record, gates, answer, notification.
#include <stdexcept>

#include "requests/gates.h"
#include "requests/listener.h"
#include "requests/response_writer.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"
#include "tests/support/trip_counter.h"

namespace event_service {
namespace {

using Lines = std::vector<std::string>;

TEST(Announcement, IsSplitAtItsFirstBlank) {
  for (const char* text : {"req", "", " resp", "req ", " "}) EXPECT_FALSE(ParseAnnouncement(text)) << text;
  const std::optional<Announcement> announcement = ParseAnnouncement("req  resp");
  ASSERT_TRUE(announcement);
  EXPECT_EQ(announcement->requestKey, "req");
  EXPECT_EQ(announcement->responseKey, " resp");
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
  Write("resp", Answer{kFailure, {{"Id.1", {"A", ""}, {"A"}}, {"Id.2", {}, {}}, {"", {}, {}}}, "a log line", {}});
  EXPECT_EQ(Dump(), (DatabaseDump{
                        {"resp", "{&&ExtendedInfo=resp/ExtendedInfo, &&ReturnStatus=FAILURE}"},
                        {"resp/ExtendedInfo", "[resp/ExtendedInfo/1, resp/ExtendedInfo/2, resp/ExtendedInfo/3]"},
                        {"resp/ExtendedInfo/1",
                         "{&&MessageArgs=resp/ExtendedInfo/1/MessageArgs, &&MessageId=Id.1, "
                         "&&RelatedProperties=resp/ExtendedInfo/1/RelatedProperties}"},
                        {"resp/ExtendedInfo/1/MessageArgs", "[A, ]"},
                        {"resp/ExtendedInfo/1/RelatedProperties", "[#/A]"},
                        {"resp/ExtendedInfo/2", "{&&MessageId=Id.2}"},
                    }));
}

TEST_F(ResponseTest, EntriesAreCountedOnUntilTheResponseKeyChanges) {
  for (const char* key : {"a", "a", "b", "a"}) Write(key, Refuse(kFailure, "Base.1.12.EmptyJSON"));
  EXPECT_EQ(Dump()["a/ExtendedInfo"], "[a/ExtendedInfo/1, a/ExtendedInfo/2, a/ExtendedInfo/1]");
  EXPECT_EQ(Dump()["b/ExtendedInfo"], "[b/ExtendedInfo/1]");
}

TEST_F(ResponseTest, TheNoOperationResponseHoldsOneErrorObject) {
  Write("resp", NoOperationAnswer());
  EXPECT_EQ(Dump()["resp"], "{&&ResponseData=resp/ResponseData, &&ReturnStatus=OK_RES}");
  const Json expected = Json::parse(R"({"error": {
      "code": "Base.1.12.NoOperation",
      "message": "The request body submitted contain no data to act upon and no changes to the resource took place.",
      "@Message.ExtendedInfo": [{
        "@odata.type": "#Message.v1_1_2.Message",
        "MessageId": "Base.1.12.NoOperation",
        "Message": "The request body submitted contain no data to act upon and no changes to the resource took place.",
        "MessageSeverity": "Warning",
        "Resolution": "Add properties in the JSON object and resubmit the request."}]}})");
  EXPECT_EQ(Json::parse(HashRead(redis(), "resp/ResponseData", "&&RawJSON")), expected);
}

TEST_F(ResponseTest, ARequestThatNobodyWaitsForIsRemoved) {
  const struct {
    std::string requestKey;
    Lines removed, kept;
  } cases[] = {
      {"req*1", {"req*1", "req*1/Data", "req*1x", "&&req*1/Data/A"}, {"req21", "req1", "&&req*1", "&&req*1x"}},
      {"&&req", {"&&req", "&&req/Data"}, {"req", "&&&&req/a"}},
      {"req/", {"req/", "req/a", "&&req/", "&&req/a"}, {"req", "&&req"}},
  };
  for (const auto& row : cases) {
    for (const auto* keys : {&row.removed, &row.kept}) {
      for (const std::string& key : *keys) ASSERT_TRUE(HashWrite(redis(), key, "f", "v"));
    }
    RedisPipeline pipeline(redis());
    EXPECT_FALSE(PublishAnswer(redis(), pipeline, row.requestKey, "resp", "channel without a subscriber"));
    DatabaseDump kept;
    for (const std::string& key : row.kept) kept[key] = "{f=v}";
    EXPECT_EQ(Dump(), kept) << row.requestKey;
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

constexpr MethodRoute kTestRoutes[] = {{"GET", Publish::kUnlessFromEventing, Echo}, {"HEAD", Publish::kAlways, Throw}};
const ServiceRoutes kTestService = {kTestRoutes, RefuseAll};

/// The announcements wait in the subscription before the loop starts, and end with it.
class ServeRequestsTest : public RedisTest {
 protected:
  void SetUp() override {
    RedisTest::SetUp();
    for (const RedisContext* context : {&subscriber_, &answers_}) {
      ASSERT_TRUE(SendArguments(context->get(), {"SUBSCRIBE", context == &answers_ ? "answers" : "channel"}));
    }
  }
  void Announce(const std::string& text, std::string_view method = "GET") {
    const std::string key = text.substr(0, text.find(' '));
    HashWrite(redis(), key, kRequestMethod, method);
    HashWrite(redis(), key, kTargetUri, "/redfish/v1/X");
    HashWrite(redis(), key, kPrivileges, "Login");
    HashWrite(redis(), key, kReturnChannel, "answers");
    const RedisReply reply = SendArguments(redis(), {"PUBLISH", "channel", text});
    ASSERT_TRUE(IsInteger(reply) && reply->integer == 1);
  }
  void Serve() {
    ASSERT_TRUE(SendArguments(redis(), {"CLIENT", "KILL", "ID", subscriberId_}));
    ServeRequests(subscriber_.get(), {.redis = proxy_.Connect(), .settings = settings_}, kTestService);
  }

  TripCounter proxy_{Server().SocketPath()};
  const LogCapture log_;

 private:
  const ServiceSettings settings_;
  const RedisContext subscriber_ = Connect(), answers_ = Connect();
  const std::string subscriberId_ = std::to_string(SendCommand(subscriber_.get(), "CLIENT ID")->integer);
};

TEST_F(ServeRequestsTest, ARefusalTakesTwoTripsAndAtMostSixteenCommands) {
  Announce("req resp", "POST");
  Serve();
  EXPECT_EQ(proxy_.trips(), 2U);
  EXPECT_LE(proxy_.commands(), 16U);
  EXPECT_EQ(Dump()["resp/ExtendedInfo/1/MessageArgs"], "[POST]");
  EXPECT_EQ(log_.Errors(), Lines{"refused"});
}

TEST_F(ServeRequestsTest, WhatGoesWrongWithOneRequestDoesNotEndTheLoop) {
  Announce("noblank");
  Announce("req resp", "HEAD");
  Announce("other FROM_EVENTING");  // an ordinary response key for any method but DELETE and PATCH
  Serve();
  EXPECT_EQ(log_.Errors(), (Lines{"Request data format is incorrect.", "OperationFailed: thrown"}));
  EXPECT_EQ(HashRead(redis(), "resp", kReturnStatus), "EXCEPTION");
  EXPECT_EQ(Dump()["FROM_EVENTING/ExtendedInfo/1/MessageArgs"], "[/redfish/v1/X, Login]");
}

TEST_F(ServeRequestsTest, ACommandConnectionThatBreaksStaysBroken) {
  Announce("req resp");
  Announce("req resp");
  proxy_.CutAfter(0);
  Serve();
  EXPECT_FALSE(KeyExists(redis(), "resp"));
  EXPECT_EQ(log_.Errors(), (Lines{"refused", "Failed to publish data.", "refused", "Failed to publish data."}));
}

TEST_F(RedisTest, TheProtocolFilterIgnoresOthersWhileOnlyRedfishIsServed) {
  const LogCapture log;
  ServiceSettings settings;
  const Request request{redis(), {}, {}, settings, nullptr};
  HashWrite(redis(), "redfish", "Protocol", "\"Redfish\"");
  EXPECT_FALSE(CheckRedfishProtocol(request, "snmp")) << "every protocol is served";
  settings.protocolOnly = true;
  EXPECT_FALSE(CheckRedfishProtocol(request, "redfish"));
  const std::optional<Answer> refusal = CheckRedfishProtocol(request, "snmp");
  ASSERT_TRUE(refusal);
  EXPECT_EQ(refusal->messages.front().id, "");
  EXPECT_EQ(log.DebugLines(), Lines{"Tarn doesn't need to handle the non Redfish protocol event destination."});
}

}  // namespace
}  // namespace event_service
