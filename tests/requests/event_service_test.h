/// What the tests of the EventService's requests share.
#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "requests/event_service/event_service_listener.h"
#include "resource_store/resource_reader.h"
#include "resource_store/resource_writer.h"
#include "service/event_group_id.h"
#include "service/life_cycle_event.h"
#include "service/redis_keys.h"
#include "tests/requests/answer_text.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"
#include "tests/support/trip_counter.h"

namespace event_service {

using Lines = std::vector<std::string>;

inline constexpr std::string_view kTestEventUri = "/redfish/v1/EventService/Actions/EventService.SubmitTestEvent";

/// An EventService as a start leaves it. The handlers work through `proxy_`, the tests around it.
class EventServiceTest : public RedisTest {
 protected:
  void SetUp() override {
    RedisTest::SetUp();
    ForgetLifeCycleSetting();
    ASSERT_TRUE(WriteResource(redis(), kEventServiceUri, Json::parse(R"({
        "ServiceEnabled": true, "DeliveryRetryAttempts": 3, "DeliveryRetryIntervalSeconds": 60, "Id": "EventService",
        "@odata.etag": "\"1\"", "SMTP": {"Port": 25, "ServerAddress": "mail", "Username": null}})")));
    KeyDelete(redis(), "Array-Member-Sequence-ID");
    HashWrite(redis(), kSmtpKey, "&&Password", "null");
    HashWrite(redis(), "webDefaultValue", "MAX_EVENT_GROUP_ID", "65535");
    MaxEventGroupId(redis());
    RegisterScript("resourceChange", "return redis.call('RPUSH', 'raised', table.concat(KEYS, ' '))");
  }

  /// Keeps the request as the front end does, hands it to its handler and removes it.
  Answer Handle(std::string_view method, std::string_view target, const Json& body) {
    EXPECT_TRUE(body.empty() || WriteResource(redis(), "req/RequestData", body));
    SendArguments(redis(), {"HSET", "req", kRequestMethod, method, kTargetUri, target});
    if (isBodyNamed_) HashWrite(redis(), "req", kRequestData, "req/RequestData");
    Request request{proxied_.get(), {"req", responseKey_}, ReadRequestRecord(redis(), "req"), settings_, nullptr,
                    &unsettled_};
    const auto route = std::ranges::find(kEventServiceRoutes.routes, method, &MethodRoute::method);
    const bool isKnown = route != kEventServiceRoutes.routes.end();
    Answer answer = isKnown ? route->handle(request) : kEventServiceRoutes.otherMethod(request);
    for (const std::string& key : KeyListing(redis(), "*req*")) KeyDelete(redis(), key);
    KeyDelete(redis(), "Array-Member-Sequence-ID");
    return answer;
  }
  Answer Patch(const std::string& body) { return Handle("PATCH", kEventServiceUri, Json::parse(body)); }
  /// Submits a good event with the change merged in; null takes a member out.
  Answer Submit(const std::string& change = "{}") {
    Json body = {{"MessageId", "Base.1.12.Success"}};
    body.merge_patch(Json::parse(change));
    return Handle("POSTACTION", kTestEventUri, body);
  }

  std::string Stored(std::string_view field) { return HashRead(redis(), kEventServiceUri, field); }
  std::string StoredSmtp(std::string_view field) { return HashRead(redis(), kSmtpKey, field); }
  /// Every key of the event object that is stored, the object's own first.
  Lines EventKeys() {
    Lines keys = KeyListing(redis(), "&&/redfish/v1/EventService/Actions/*");
    std::ranges::sort(keys, {}, &std::string::size);
    return keys;
  }

  TripCounter proxy_{Server().SocketPath()};
  const RedisContext proxied_ = proxy_.Connect();
  std::string responseKey_ = "resp";
  bool isBodyNamed_ = true;
  ServiceSettings settings_;
  UnsettledProperties unsettled_;
  const std::string& file_ = settings_.paths.persistentProperties;
  LogCapture log_;
};

}  // namespace event_service
