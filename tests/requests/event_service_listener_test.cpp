/// The EventService listener's thread, with the front end before it.
#include <unistd.h>

#include <thread>

#include "tests/requests/event_service_test.h"
#include "tools/front_end/front_end.h"

namespace event_service {
namespace {

class ListenerTest : public EventServiceTest {
 protected:
  void SetUp() override {
    EventServiceTest::SetUp();
    SetProcessState(&settings_, nullptr);
  }
  void TearDown() override {
    if (!thread_.joinable()) return;
    SendCommand(redis(), "CLIENT KILL TYPE pubsub");
    thread_.join();
  }
  void StartListener() {
    thread_ = std::thread([] { EventServiceListenerThread(nullptr); });
    for (int i = 0; i < 1000 && !IsSubscribed(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_TRUE(IsSubscribed());
  }
  bool IsSubscribed() {
    const RedisReply reply = SendArguments(redis(), {"PUBSUB", "NUMSUB", kEventServiceChannel});
    return IsArray(reply) && reply->element[1]->integer == 1;
  }
  FrontEndAnswer Send(const std::string& method, std::string_view uri, std::optional<Json> body = {}) {
    FrontEndRequest request;
    request.method = method;
    request.targetUri = uri;
    request.body = std::move(body);
    return SendRequest(redis(), request).value_or(FrontEndAnswer{"no answer", {}, {}, {}});
  }

  std::thread thread_;
};

TEST_F(ListenerTest, EachRequestGoesItsWay) {
  RegisterScript("enqueueEvent", "return 1");
  StartListener();
  const Json event = {{"MessageId", "A.1.0.B"}};
  const struct {
    std::string method;
    std::string_view uri;
    bool enabled;
    std::string status, message;
    Lines args;
  } cases[] = {
      {"GET",
       kEventServiceUri,
       true,
       "NOT_ALLOWED",
       "ExtendedError.1.2.MethodNotAllowed",
       {std::string(kEventServiceUri), "GET"}},
      {"POSTCREATE",
       kEventServiceUri,
       true,
       "NOT_ALLOWED",
       "ExtendedError.1.2.MethodNotAllowed",
       {std::string(kEventServiceUri), "POST"}},
      {"",
       kEventServiceUri,
       true,
       "NOT_ALLOWED",
       "ExtendedError.1.2.MethodNotAllowed",
       {std::string(kEventServiceUri), ""}},
      {"POSTACTION",
       "/redfish/v1/EventService/Actions/Other",
       true,
       "NOT_FOUND",
       "Base.1.12.ActionNotSupported",
       {"/redfish/v1/EventService/Actions/Other"}},
      {"POSTACTION", kTestEventUri, false, "UNAVAILABLE", "ExtendedError.1.2.ServiceDisabled", {}},
      {"POSTACTION", kTestEventUri, true, "OK_RES", "", {}},
      {"PATCH", "/redfish/v1/EventService/whatever", false, "OK_RES", "Base.1.12.Success", {}},
  };
  for (const auto& row : cases) {
    HashWrite(redis(), kEventServiceUri, "ServiceEnabled", row.enabled ? "true" : "false");
    const std::optional<Json> body = row.method == "PATCH" ? Json{{"ServiceEnabled", true}} : event;
    const FrontEndAnswer answer = Send(row.method, row.uri, body);
    EXPECT_EQ(answer.status, row.status) << row.method << " " << row.uri;
    EXPECT_EQ(answer.messages.empty() ? "" : answer.messages.front().id, row.message);
    EXPECT_EQ(answer.messages.empty() ? Lines() : answer.messages.front().args, row.args);
  }
}

TEST_F(ListenerTest, ItEndsWithItsSubscription) {
  StartListener();
  ASSERT_TRUE(SendCommand(redis(), "CLIENT KILL TYPE pubsub"));
  thread_.join();
}

TEST_F(ListenerTest, WhatPreventsItsStartIsSaidOnStandardOutput) {
  {
    const StreamCapture output(STDOUT_FILENO);
    TripCounter proxy(Server().SocketPath());
    SetProcessPaths(Sandbox().PathsThrough(proxy.SocketPath()));
    proxy.FailCommandsWith("SUBSCRIBE");
    EventServiceListenerThread(nullptr);
    EXPECT_EQ(output.Text(), "Failed to subscribe channel.\n");
  }
  const StreamCapture output(STDOUT_FILENO);
  SetProcessPaths(Sandbox().Paths());
  Server().Kill();
  EventServiceListenerThread(nullptr);
  EXPECT_EQ(output.Text(), "Failed to connect to Redis\n");
  EXPECT_EQ(log_.Errors(), Lines());
}

}  // namespace
}  // namespace event_service
