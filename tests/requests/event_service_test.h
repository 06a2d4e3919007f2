/// What the tests of the EventService's requests share.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "requests/event_service_listener.h"
#include "resource_store/resource_reader.h"
#include "resource_store/resource_writer.h"
#include "service/event_group_id.h"
#include "service/life_cycle_event.h"
#include "service/redis_keys.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"
#include "tests/support/trip_counter.h"

namespace event_service {

using Lines = std::vector<std::string>;

inline constexpr std::string_view kTestEventUri = "/redfish/v1/EventService/Actions/EventService.SubmitTestEvent";

/// Status, then each message with its arguments: "FAILURE Base.1.12.PropertyUnknown(A)".
inline std::string Summary(const Answer& answer) {
  std::string summary(answer.status);
  for (const Message& message : answer.messages) {
    summary += " " + message.id + "(";
    for (const std::string& argument : message.args) summary += (summary.ends_with('(') ? "" : ", ") + argument;
    summary += ")";
  }
  return summary;
}

class EventServiceTest : public RedisTest {
 protected:
  void SetUp() override {
    RedisTest::SetUp();
    ForgetLifeCycleSetting();
    settings_ = ServiceSettings();
    HashWrite(redis(), kEventServiceUri, "ServiceEnabled", "true");
    HashWrite(redis(), "webDefaultValue", "MAX_EVENT_GROUP_ID", "65535");
    MaxEventGroupId(redis());  // start-up asks for it
  }

  /// Registers a script of one statement.
  void RegisterScript(std::string_view name, std::string_view text) {
    const RedisReply digest = SendArguments(redis(), {"SCRIPT", "LOAD", text});
    ASSERT_TRUE(HashWrite(redis(), kScriptDigests, name, TextOf(digest)));
  }

  /// Keeps the request as the front end does and hands it to its handler.
  Answer Handle(std::string_view method, std::string_view target, const Json& body,
                redisContext* connection = nullptr) {
    for (const std::string& key : KeyListing(redis(), "*req/*")) KeyDelete(redis(), key);
    EXPECT_TRUE(body.empty() || WriteResource(redis(), "req/RequestData", body));
    HashWrite(redis(), "req", kRequestMethod, method);
    HashWrite(redis(), "req", kTargetUri, target);
    HashWrite(redis(), "req", kRequestData, "req/RequestData");
    return HandleStored(connection == nullptr ? redis() : connection);
  }
  Answer HandleStored(redisContext* connection) {
    Request request{connection, {"req", "resp"}, ReadRequestRecord(redis(), "req"), settings_, nullptr};
    for (const MethodRoute& route : kEventServiceRoutes.routes) {
      if (route.method == request.record.method) return route.handle(request);
    }
    return kEventServiceRoutes.otherMethod(request);
  }

  ServiceSettings settings_;
  LogCapture log_;
};

}  // namespace event_service
