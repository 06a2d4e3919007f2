/// The EventService listener: what it refuses itself, and its thread's start.
#include <unistd.h>

#include "tests/requests/event_service_test.h"

namespace event_service {
namespace {

TEST_F(EventServiceTest, RequestsWithoutAHandlerAreRefused) {
  const Json event = {{"MessageId", "A.1.0.B"}};
  EXPECT_EQ(Summary(Handle("", kEventServiceUri, event)),
            "NOT_ALLOWED ExtendedError.1.2.MethodNotAllowed(/redfish/v1/EventService, )");
  EXPECT_EQ(Summary(Handle("POSTACTION", "/x", event)), "NOT_FOUND Base.1.12.ActionNotSupported(/x)");
  for (const char* enabled : {"false", "null", "\"true\"", ""}) {
    HashWrite(redis(), kEventServiceUri, "ServiceEnabled", enabled);
    EXPECT_EQ(Summary(Handle("POSTACTION", kTestEventUri, event)), "UNAVAILABLE ExtendedError.1.2.ServiceDisabled()");
  }
}

TEST_F(EventServiceTest, WhatPreventsTheThreadsStartIsSaidOnStandardOutput) {
  SetProcessState(&settings_, nullptr);
  const StreamCapture output(STDOUT_FILENO);
  TripCounter proxy(Server().SocketPath());
  SetProcessPaths(Sandbox().PathsThrough(proxy.SocketPath()));
  proxy.FailCommandsWith("SUBSCRIBE");
  EventServiceListenerThread(nullptr);
  SetProcessPaths(Sandbox().Paths());
  Server().Kill();
  EventServiceListenerThread(nullptr);
  EXPECT_EQ(output.Text(), "Failed to subscribe channel.\nFailed to connect to Redis\n");
  EXPECT_EQ(log_.Errors(), Lines());
}

}  // namespace
}  // namespace event_service
