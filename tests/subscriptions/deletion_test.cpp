/// Deletions against a real Redis and a real database file.
#include "subscriptions/deletion.h"

#include <algorithm>

#include "subscriptions/creation.h"
#include "subscriptions/syslog_exchange.h"
#include "tests/subscriptions/subscriptions_fixture.h"
#include "tests/support/trip_counter.h"

namespace event_service {
namespace {

using Names = std::vector<std::string>;

class DeletionTest : public SubscriptionsTest {
 protected:
  Answer Delete(const std::string& uri, redisContext* connection = nullptr) {
    Request request = MakeRequest("DELETE", uri, Json(), connection);
    return DeleteEventDestination(request);
  }
  /// The keys and elements in which the text stands.
  Names TracesOf(const std::string& text) {
    Names traces;
    for (const auto& [key, content] : Dump()) {
      const bool isBookkeeping = key == "events" || key == std::string(kSyslogQueue) || key.starts_with("request") ||
                                 key.starts_with("&&/redfish/v1/EventService/Actions/");
      if (isBookkeeping) continue;
      if (key.find(text) != std::string::npos || content.find(text) != std::string::npos) traces.push_back(key);
    }
    return traces;
  }
};

TEST_F(DeletionTest, NothingOfADestinationIsLeft) {
  Names uris;
  for (const CreationBody& row : kCreationBodies) uris.push_back(Create(Json::parse(row.text)));
  uint32_t count = state_->subscriptionCount;
  for (const std::string& uri : uris) {
    const std::string id = uri.substr(kCollection.size() + 1);
    const Answer answer = Delete(uri);
    EXPECT_TRUE(answer.status.empty()) << uri << answer.status;
    EXPECT_EQ(Field("response", "&&ReturnStatus"), "OK_EMPTY");
    EXPECT_EQ(TracesOf(id), Names{}) << uri;
    EXPECT_FALSE(InFile().contains(uri));
    EXPECT_EQ(state_->subscriptionCount, --count);
    EXPECT_EQ(Field(kCollection, "Members@odata.count"), std::to_string(count));
    const Names events = Events();
    EXPECT_TRUE(events[events.size() - 2].starts_with("remove " + uri + " EventDestination ")) << events.back();
    EXPECT_TRUE(events.back().starts_with("change " + kCollection + " EventDestinationCollection "));
    const bool isSyslog = id.starts_with("Syslog");
    const Names orders = Elements(std::string(kSyslogQueue));
    EXPECT_EQ(!orders.empty() && orders.back() == R"({"Action":"DELETE","Id":")" + id + "\"}", isSyslog) << id;
  }
  EXPECT_EQ(Field("&&subs:MetricReport", "Total_Num_Subscriber"), "0");
  EXPECT_TRUE(state_->syslogTlsDestinationIds.empty());
  EXPECT_EQ(Delete(uris.front()).status, kNotFound);
}

TEST_F(DeletionTest, TheDestinationLearnsOfItsEnd) {
  const std::string uri = Create(Json::parse(kCreationBodies.front().text));
  Delete(uri);
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
  const DatabaseDump before = Dump();
  for (const std::string& uri : {std::string("/redfish/v1/Systems/1"), kCollection, kCollection + "/missing-id",
                                 kCollection + "/a/b", std::string("redisSHAScripts")}) {
    const Answer answer = Delete(uri);
    EXPECT_EQ(answer.status, kNotFound) << uri;
    EXPECT_EQ(answer.messages.front().id, "Base.1.12.ResourceMissingAtURI");
    EXPECT_EQ(answer.messages.front().args, Names{uri});
  }
  DatabaseDump after = Dump();
  after.erase("request");
  EXPECT_EQ(after, before);
}

/// Fails the n-th command of a deletion, for every n: whatever fails, the other steps have run.
TEST_F(DeletionTest, AFailedStepDoesNotStopTheOthers) {
  TripCounter proxy(Server().SocketPath());
  const RedisContext connection = proxy.Connect();
  size_t commands = 1;
  for (size_t n = 1; n <= commands; ++n) {
    FillRedis();
    *state_ = SubscriptionsState();
    const std::string uri = CreateStream("Stream-01");
    const LogCapture log;
    const StreamCapture store(STDERR_FILENO);
    Request request = MakeRequest("DELETE", uri, Json(), connection.get());
    proxy.Reset();
    proxy.FailCommand(n);
    const Answer answer = DeleteEventDestination(request);
    commands = std::max(commands, proxy.commands());
    const int left = (KeyExists(redis(), uri) ? 1 : 0) + (KeyExists(redis(), "&&subs:*") ? 1 : 0) +
                     (Elements("&&" + kCollection + "/Members").empty() ? 0 : 1) + (Elements("queued").empty() ? 1 : 0);
    EXPECT_LE(left, 1) << n;
    EXPECT_EQ(state_->subscriptionCount, Elements("&&" + kCollection + "/Members").size()) << n;
    const bool isDone = answer.status.empty() && Field("response", "&&ReturnStatus") == "OK_EMPTY";
    EXPECT_TRUE(isDone ? left == 0 : answer.status == kException) << n;
    EXPECT_TRUE(isDone || !log.Errors().empty()) << n;
  }
  EXPECT_GT(commands, 20u);
}

TEST_F(DeletionTest, AMemberThatCannotBeReadIsDeletedAllTheSame) {
  const std::string uri = Create(Json::parse(kCreationBodies.front().text));
  HashWrite(redis(), uri, "Broken", "no JSON");
  const LogCapture log;
  const StreamCapture store(STDERR_FILENO);
  EXPECT_EQ(Delete(uri).status, kException);
  EXPECT_EQ(log.Errors(), Names{"DatabaseOperationError: Failed to read the event destination " + uri + "."});
  EXPECT_EQ(TracesOf("Redfish-1"), Names{});
  EXPECT_TRUE(InFile().empty());
  EXPECT_EQ(state_->subscriptionCount, 0u);
}

TEST_F(DeletionTest, EveryFormOfTheMembersEntryGoes) {
  const std::string uri = Create(Json::parse(kCreationBodies.front().text));
  ListAppend(redis(), "&&" + kCollection + "/Members", uri);
  Delete(uri);
  EXPECT_EQ(Elements("&&" + kCollection + "/Members"), Names{});
}

TEST_F(DeletionTest, TheDeliverySideGetsNoStatus) {
  const std::string uri = Create(Json::parse(kCreationBodies.front().text));
  for (const bool isThere : {true, false}) {
    Request request = MakeDeliveryRequest("DELETE", uri);
    EXPECT_EQ(DeleteEventDestination(request).status, isThere ? "" : kNotFound);
    EXPECT_FALSE(KeyExists(redis(), kFromEventing));
  }
}

TEST_F(DeletionTest, AllStreamsEndAndNothingElse) {
  const std::string kept = Create(Json::parse(kCreationBodies.front().text));
  CreateStream("Stream-01");
  CreateStream("Stream-02");
  KeyDelete(redis(), "events");
  HashWrite(redis(), "/redfish/v1/EventService", "ServiceEnabled", "false");
  Request request = MakeRequest("DELETE", "SSE-ALL");
  EXPECT_TRUE(DeleteAllSseSubscriptions(request).status.empty());
  EXPECT_EQ(Field("response", "&&ReturnStatus"), "OK_EMPTY");
  EXPECT_EQ(TracesOf("Stream-"), Names{});
  EXPECT_EQ(Elements("&&" + kCollection + "/Members"), Names{"&&ObjectRef &&" + kept});
  EXPECT_EQ(state_->subscriptionCount, 1u);
  EXPECT_EQ(Field(kCollection, "Members@odata.count"), "1");
  EXPECT_EQ(Events(), (Names{"remove " + kCollection + "/Stream-01 EventDestination 4",
                             "remove " + kCollection + "/Stream-02 EventDestination 4",
                             "change " + kCollection + " EventDestinationCollection 4"}));
  EXPECT_EQ(Elements("queued").size(), 2u);
  Request again = MakeRequest("DELETE", "SSE-ALL");
  EXPECT_TRUE(DeleteAllSseSubscriptions(again).status.empty());
  EXPECT_EQ(Field("/redfish/v1/EventService", "&&EVENT_GROUP_ID_COUNTER"), "4") << "a draw without an event";
}

}  // namespace
}  // namespace event_service
