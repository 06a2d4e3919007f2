/// Deletions against a real Redis and a real database file.
#include "subscriptions/deletion.h"

#include <algorithm>

#include "subscriptions/syslog_exchange.h"
#include "tests/subscriptions/subscriptions_fixture.h"
#include "tests/support/trip_counter.h"

namespace event_service {
namespace {

class DeletionTest : public SubscriptionsTest {
 protected:
  Answer Delete(const std::string& uri) {
    Request request = MakeRequest("DELETE", uri);
    return uri == "SSE-ALL" ? DeleteAllSseSubscriptions(request) : DeleteEventDestination(request);
  }
  /// The keys in which, or in whose content, the text stands; but for the events about it.
  Names TracesOf(const std::string& text) {
    Names traces;
    for (const auto& [key, content] : Resources()) {
      const bool isEvent = key == "events" || key.starts_with("&&/redfish/v1/EventService/Actions/");
      if (!isEvent && (key + content).find(text) != std::string::npos) traces.push_back(key);
    }
    return traces;
  }
};

TEST_F(DeletionTest, NothingOfADestinationIsLeft) {
  for (const auto& [kind, body] : kBodies.items()) Create(body);
  for (const auto& [kind, body] : kBodies.items()) {
    const std::string id = body["Id"];
    const std::string uri = kCollection + "/" + id;
    const uint32_t count = state_->subscriptionCount - 1;
    EXPECT_EQ(InShort(Delete(uri)), "") << kind;
    EXPECT_EQ(Field("response", "&&ReturnStatus"), "OK_EMPTY");
    EXPECT_EQ(TracesOf(id), Names{}) << kind;
    EXPECT_FALSE(kind != "stream" && InFile().contains(uri)) << kind;
    EXPECT_EQ(state_->subscriptionCount, count);
    EXPECT_EQ(Field(kCollection, "Members@odata.count"), std::to_string(count));
    const Names events = Events();
    EXPECT_TRUE(events[events.size() - 2].starts_with("remove " + uri + " EventDestination ")) << events.back();
    EXPECT_TRUE(events.back().starts_with("change " + kCollection + " EventDestinationCollection "));
    const Names orders = Elements(std::string(kSyslogQueue));
    EXPECT_EQ(orders.back() == R"({"Action":"DELETE","Id":")" + id + "\"}", id.starts_with("Syslog")) << id;
  }
  EXPECT_EQ(Field("&&subs:MetricReport", "Total_Num_Subscriber"), "0");
  EXPECT_TRUE(state_->syslogTlsDestinationIds.empty());
}

TEST_F(DeletionTest, TheDestinationLearnsOfItsEnd) {
  const std::string uri = Create(kBodies["Redfish"]);
  ListAppend(redis(), kMembers, uri);  // in the form of another loader
  Delete(uri);
  EXPECT_EQ(Elements(kMembers), Names{});
  const Names queued = Elements("queued");
  ASSERT_EQ(queued.size(), 1u);
  EXPECT_EQ(Field(queued.front(), "&&EventDestination"), uri);
  EXPECT_EQ(Field(queued.front(), "Context"), "\"c\"");
  const Json event = Stored(queued.front())["Events"][0];
  EXPECT_EQ(event["MessageId"], "Base.1.12.SubscriptionTerminated");
  EXPECT_EQ(event["OriginOfCondition"]["@odata.id"], uri);
  EXPECT_EQ(event["EventGroupId"], 2);
  EXPECT_TRUE(Events().back().ends_with(" 2"));
}

TEST_F(DeletionTest, WhatIsNoMemberIsNotFound) {
  HashWrite(redis(), "/redfish/v1/Systems/1", "Id", "\"1\"");
  const DatabaseDump before = Resources();
  for (const std::string& uri : {std::string("/redfish/v1/Systems/1"), kCollection, kCollection + "/missing-id",
                                 kCollection + "/a/b", std::string("redisSHAScripts")}) {
    EXPECT_EQ(InShort(Delete(uri)), "NOT_FOUND ResourceMissingAtURI(" + uri + ")");
  }
  EXPECT_EQ(Resources(), before);
}

/// Fails the n-th command of a deletion, for every n: whatever fails, the other steps have run.
TEST_F(DeletionTest, AFailedStepDoesNotStopTheOthers) {
  TripCounter proxy(Server().SocketPath());
  const RedisContext connection = proxy.Connect();
  size_t commands = 1;
  for (size_t n = 1; n <= commands; ++n) {
    FillRedis();
    *state_ = SubscriptionsState();
    const std::string uri = Create(kBodies["stream"]);
    const LogCapture log;
    const StreamCapture store(STDERR_FILENO);
    Request request = MakeRequest("DELETE", uri, Json(), connection.get());
    proxy.Reset();
    proxy.FailCommand(n);
    const Answer answer = DeleteEventDestination(request);
    commands = std::max(commands, proxy.commands());
    const bool left[] = {KeyExists(redis(), uri), KeyExists(redis(), "&&subs:*"), !Elements(kMembers).empty(),
                         Elements("queued").empty()};
    EXPECT_LE(std::ranges::count(left, true), 1) << n;
    EXPECT_EQ(state_->subscriptionCount, Elements(kMembers).size()) << n;
    const bool isDone = answer.status.empty() && Field("response", "&&ReturnStatus") == "OK_EMPTY";
    EXPECT_TRUE(isDone ? std::ranges::count(left, true) == 0 : answer.status == kException) << n;
    EXPECT_TRUE(isDone || !log.Errors().empty()) << n;
  }
  EXPECT_GT(commands, 20u);
}

TEST_F(DeletionTest, AMemberThatCannotBeReadIsDeletedAllTheSame) {
  const std::string uri = Create(kBodies["Redfish"]);
  HashWrite(redis(), uri, "Broken", "no JSON");
  const LogCapture log;
  const StreamCapture store(STDERR_FILENO);
  EXPECT_EQ(Delete(uri).status, kException);
  EXPECT_EQ(log.Errors(), Names{"DatabaseOperationError: Failed to read the event destination " + uri + "."});
  EXPECT_EQ(TracesOf("Redfish-1"), Names{});
  EXPECT_TRUE(InFile().empty());
  EXPECT_EQ(state_->subscriptionCount, 0u);
}

TEST_F(DeletionTest, AllStreamsEndAndNothingElse) {
  const std::string kept = Create(kBodies["Redfish"]);
  Json stream = kBodies["stream"];
  for (const char* id : {"Stream-01", "Stream-02"}) {
    stream["Id"] = id;
    Create(stream);
  }
  KeyDelete(redis(), "events");
  const Names events = {"remove " + kCollection + "/Stream-01 EventDestination 4",
                        "remove " + kCollection + "/Stream-02 EventDestination 4",
                        "change " + kCollection + " EventDestinationCollection 4"};
  for (int round = 0; round < 2; ++round) {  // the second one finds none
    EXPECT_EQ(InShort(Delete("SSE-ALL")), "");
    EXPECT_EQ(Field("response", "&&ReturnStatus"), "OK_EMPTY");
    EXPECT_EQ(TracesOf("Stream-"), Names{});
    EXPECT_EQ(Elements(kMembers), Names{"&&ObjectRef &&" + kept});
    EXPECT_EQ(state_->subscriptionCount, 1u);
    EXPECT_EQ(Field(kCollection, "Members@odata.count"), "1");
    EXPECT_EQ(Events(), events);
    EXPECT_EQ(Elements("queued").size(), 2u);
    EXPECT_EQ(Field("/redfish/v1/EventService", "&&EVENT_GROUP_ID_COUNTER"), "4") << "a draw without an event";
  }
  Create(stream);
  const LogCapture log;
  Request turnedOff = MakeRequest("DELETE", "SSE-ALL");
  turnedOff.announcement = {std::string(kEndOfStreamsRequests) + "1", std::string(kFromEventing)};
  DeleteAllSseSubscriptions(turnedOff);
  EXPECT_EQ(log.DebugLines(), Names{"Subscription " + kCollection + "/Stream-02 deleted by client."});
}

}  // namespace
}  // namespace event_service
