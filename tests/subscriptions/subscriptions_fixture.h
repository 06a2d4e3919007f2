/// A service with everything that handlers of subscriptions need: Redis, settings, a database file, event scripts.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "requests/request.h"
#include "resource_store/store_encoding.h"
#include "service/settings.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"

namespace event_service {

inline const std::string kCollection = "/redfish/v1/EventService/Subscriptions";

/// The bodies of creations, one of each kind that the service knows, with Ids.
struct CreationBody {
  const char* name;
  const char* text;
};
extern const std::vector<CreationBody> kCreationBodies;

class SubscriptionsTest : public RedisTest {
 protected:
  void SetUp() override;
  void TearDown() override { SetProcessState(nullptr, nullptr); }
  /// Redis with an empty collection.
  void FillRedis();

  /// A request as the listener hands it over. The record is stored under "request", the answer goes under "response".
  Request MakeRequest(const std::string& method, const std::string& uri, const Json& body = Json(),
                      redisContext* connection = nullptr);
  Request MakeStreamRequest(const Json& body);
  /// The same for the delivery side.
  Request MakeDeliveryRequest(const std::string& method, const std::string& uri, const Json& body = Json());

  /// Creates a subscription, which must succeed, and gives its URI.
  std::string Create(const Json& body);
  std::string CreateStream(const std::string& id);
  /// Lets the syslog forwarder say `answer` about this Id.
  void AnswerSyslog(const std::string& id, const std::string& answer = "OK");

  /// The stored resource with its control fields; null when there is none.
  Json Stored(const std::string& uri);
  /// The members in the database file, by URI.
  std::map<std::string, Json> InFile();
  std::vector<std::string> Elements(const std::string& list);
  std::string Field(const std::string& key, const std::string& field) { return HashRead(redis(), key, field); }
  /// What life-cycle events said: "add <uri> EventDestination".
  std::vector<std::string> Events();

  /// Redis without what a taken back or refused request may leave: counters, etags.
  DatabaseDump DumpWithoutCounters();

  ServiceSettings settings_;
  std::optional<SubscriptionsState> state_;
};

}  // namespace event_service
