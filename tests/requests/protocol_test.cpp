/// The road of a request: announcement, record, handler, answer, notification.
#include <stdexcept>

#include "requests/listener.h"
#include "requests/request_sender.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"
#include "tests/support/trip_counter.h"

namespace event_service {
namespace {

using Lines = std::vector<std::string>;

Answer Echo(Request& request) {
  return {kFailure, {{"Echo", {request.record.targetUri, "", request.record.privileges}, {"A"}}, {"", {}, {}}}, {}, {}};
}
Answer FindManyFaults(Request&) { return {kFailure, std::vector<Message>(70), {}, {}}; }
Answer Throw(Request&) { throw std::runtime_error("thrown"); }
Answer RefuseAll(Request& request) { return Refuse(kNotAllowed, "No", {request.record.method}, "refused"); }

constexpr MethodRoute kTestRoutes[] = {{"GET", Publish::kUnlessFromEventing, Echo},
                                       {"DELETE", Publish::kUnlessFromEventing, Echo, /*deletesBody=*/true},
                                       {"PATCH", Publish::kAlways, FindManyFaults},
                                       {"HEAD", Publish::kAlways, Throw}};

const std::string kEnded = "The Test listener ended: the connection of its channel failed.";

/// The announcements wait in the subscription before the loop starts, and end with it.
class ProtocolTest : public RedisTest {
 protected:
  void SetUp() override {
    RedisTest::SetUp();
    ASSERT_TRUE(SendCommand(subscriber_.get(), "SUBSCRIBE channel"));
    ASSERT_TRUE(SendCommand(answers_.get(), "SUBSCRIBE answers"));
  }
  void Announce(const std::string& text, std::string_view method = "GET", std::string_view answerTo = "answers") {
    SendArguments(redis(), {"HSET", text.substr(0, text.find(' ')), kRequestMethod, method, kTargetUri, "/redfish/v1/X",
                            kPrivileges, "Login", kReturnChannel, answerTo});
    ASSERT_TRUE(SendArguments(redis(), {"PUBLISH", "channel", text}));
  }
  void Serve() {
    ASSERT_TRUE(SendArguments(redis(), {"CLIENT", "KILL", "ID", subscriberId_}));
    ServeRequests(subscriber_.get(), {.redis = proxy_.Connect(), .settings = settings_},
                  {"Test", kTestRoutes, RefuseAll});
  }

  TripCounter proxy_{Server().SocketPath()};
  const LogCapture log_;
  const ServiceSettings settings_{};
  const RedisContext subscriber_ = Connect(), answers_ = Connect();
  const std::string subscriberId_ = std::to_string(SendCommand(subscriber_.get(), "CLIENT ID")->integer);
};

TEST_F(ProtocolTest, ARefusalTakesTwoTripsAndElevenCommands) {
  Announce("req resp", "POST");
  Serve();
  EXPECT_EQ(proxy_.trips(), 2U);
  EXPECT_EQ(proxy_.commands().size(), 11U);
  EXPECT_EQ(Dump()["resp/ExtendedInfo/1/MessageArgs"], "[POST]");
  EXPECT_EQ(log_.Errors(), (Lines{"refused", kEnded}));
}

TEST_F(ProtocolTest, EveryPartOfAnAnswerHasItsKeyAndEntriesAreCountedUntilTheResponseKeyChanges) {
  for (const char* announcement : {"req a", "req a", "req b", "req FROM_EVENTING", "req a"}) Announce(announcement);
  Serve();
  DatabaseDump dump = Dump();
  EXPECT_EQ(dump["a"], "{&&ExtendedInfo=a/ExtendedInfo, &&ReturnStatus=FAILURE}");
  EXPECT_EQ(dump["a/ExtendedInfo"],
            "[a/ExtendedInfo/1, a/ExtendedInfo/2, a/ExtendedInfo/3, a/ExtendedInfo/4, "
            "a/ExtendedInfo/1, a/ExtendedInfo/2]");
  EXPECT_EQ(dump["b/ExtendedInfo/1"],
            "{&&MessageArgs=b/ExtendedInfo/1/MessageArgs, &&MessageId=Echo, "
            "&&RelatedProperties=b/ExtendedInfo/1/RelatedProperties}");
  EXPECT_EQ(dump["b/ExtendedInfo/1/MessageArgs"], "[/redfish/v1/X, , Login]");
  EXPECT_EQ(dump["b/ExtendedInfo/1/RelatedProperties"], "[#/A]");
  EXPECT_FALSE(dump.contains("b/ExtendedInfo/2")) << "a message without an id";
  EXPECT_FALSE(dump.contains("FROM_EVENTING"));
}

TEST_F(ProtocolTest, ARequestOfTheDeliverySideWritesNothingAndIsRemovedWhateverItsTypes) {
  const Lines bodies[] = {{"HSET", "req/RequestData", "Status", "&&Object &&req/RequestData/Status"},
                          {"SET", "req/RequestData", "no body"},
                          {"SADD", "req/RequestData", "no body"},
                          {"RPUSH", "&&other/RequestData", "x"}};
  for (const Lines& body : bodies) {
    SendArguments(redis(), std::vector<std::string_view>(body.begin(), body.end()));
    const std::string key = body[1].substr(0, body[1].find('/'));
    HashWrite(redis(), ChildKey(body[1], "Status"), "State", "\"Disabled\"");
    HashWrite(redis(), ChildKey(body[1], "List/x"), "no marker", "leads here");
    Announce(key + " FROM_EVENTING", "DELETE");
  }
  Serve();
  EXPECT_EQ(Dump(), DatabaseDump());
}

TEST_F(ProtocolTest, ARequestThatNobodyWaitsForIsRemoved) {
  const Lines removed = {"req*1",      "req*1/Data", "req*1x", "&&req*1/Data/A", "&&own",
                         "&&own/Data", "end/",       "end/a",  "&&end/",         "&&end/a"};
  const Lines kept = {"req21", "req1", "&&req*1", "&&req*1x", "own", "&&&&own/a", "end", "&&end"};
  for (const Lines& keys : {removed, kept}) {
    for (const std::string& key : keys) HashWrite(redis(), key, "f", "v");
  }
  for (const char* key : {"req*1", "&&own", "end/"}) Announce(std::string(key) + " resp", "HEAD", "nobody's");
  // No record stands there: only what lies below is the request's.
  for (const char* key : {"bare/a", "&&bare/a", "barely", "//a", "/redfish/v1/X"}) HashWrite(redis(), key, "f", "v");
  SendArguments(redis(), {"SET", "bare", "v"});
  for (const char* text : {"bare resp", "/ resp"}) SendArguments(redis(), {"PUBLISH", "channel", text});
  Serve();
  for (const char* key : {"bare/a", "&&bare/a", "//a"}) EXPECT_FALSE(KeyExists(redis(), key)) << key;
  for (const char* key : {"bare", "barely", "/redfish/v1/X"}) EXPECT_TRUE(KeyExists(redis(), key)) << key;
  for (const std::string& key : removed) EXPECT_FALSE(KeyExists(redis(), key)) << key;
  for (const std::string& key : kept) EXPECT_TRUE(KeyExists(redis(), key)) << key;
  EXPECT_EQ(log_.Errors().at(log_.Errors().size() - 2), "Failed to publish data.");
}

TEST_F(ProtocolTest, AFrontEndStoresAndAnnouncesInOneTripAndTakesAnAnswerOfSixtyFourEntriesAtMost) {
  const RedisContext front = proxy_.Connect();
  const auto store = [&front](const char* method, const Json& body, std::string_view channel) {
    return StoreRequest(front.get(), {.method = method, .targetUri = "/x", .body = body},
                        {.returnChannel = "answers", .announcedOn = channel});
  };
  const auto stored = store("GET", {{"a", 1}}, "channel");
  ASSERT_TRUE(stored && stored->isTaken);
  EXPECT_EQ(proxy_.trips(), 1U);
  const auto other = store("PATCH", {{"a", {Json::object(), Json::object()}}}, "channel");
  EXPECT_EQ(proxy_.trips(), 3U) << "with ids for the elements";
  const auto unheard = store("GET", Json::object(), "nobody's");
  EXPECT_FALSE(unheard->isTaken);
  RemoveRequest(redis(), *unheard);
  Serve();
  proxy_.Reset();
  const FrontEndAnswer answer = TakeAnswer(front.get(), *stored);
  ASSERT_EQ(answer.messages.size(), 2U);
  EXPECT_EQ(answer.messages[0].args, (Lines{"/x", "", "ConfigureManager"}));
  EXPECT_EQ(proxy_.trips(), 2U) << "one for the first message, one for all others";
  EXPECT_TRUE(AwaitAnswer(answers_.get(), *other, std::chrono::seconds(5))) << "the second that comes";
  EXPECT_EQ(TakeAnswer(front.get(), *other).messages.size(), 64U);

  proxy_.Reset({.failedText = "&&TargetURI"});
  EXPECT_FALSE(store("GET", Json::object(), "channel")) << "all of it or nothing";
  for (const std::string& key : KeyListing(redis(), "&&Request:*")) ADD_FAILURE() << key << " is left";
  EXPECT_EQ(Dump()["Array-Member-Sequence-ID"], "2");
}

TEST_F(ProtocolTest, WhatGoesWrongWithOneRequestDoesNotEndTheLoop) {
  for (const char* malformed : {"noblank", "", " resp", "req ", " "}) Announce(malformed);
  Announce("req resp", "HEAD");
  Announce("own  blank");
  Serve();
  Lines lines(5, "Request data format is incorrect.");
  lines.insert(lines.end(), {"OperationFailed: thrown", kEnded});
  EXPECT_EQ(log_.Errors(), lines);
  EXPECT_EQ(HashRead(redis(), "resp", kReturnStatus), "EXCEPTION");
  EXPECT_TRUE(KeyExists(redis(), " blank")) << "only the first blank divides";
}

TEST_F(ProtocolTest, ACommandConnectionThatFailsIsToldOnce) {
  for (const char* announcement : {"req a", "req b"}) Announce(announcement);
  proxy_.Reset({.cutAfter = 0});
  Serve();
  const std::string unanswered = "Failed to publish data.";
  EXPECT_EQ(log_.Errors(),
            (Lines{"refused", unanswered,
                   "The command connection of the Test listener failed: requests are not answered any more.", "refused",
                   unanswered, kEnded}));
}

}  // namespace
}  // namespace event_service
