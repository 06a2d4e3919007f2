/// A service with everything that handlers of subscriptions need: Redis, settings, a database file, event scripts.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "requests/request.h"
#include "resource_store/store_encoding.h"
#include "service/settings.h"
#include "tests/requests/answer_text.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"

namespace event_service {

using Names = std::vector<std::string>;

inline const std::string kCollection = "/redfish/v1/EventService/Subscriptions";
inline const std::string kMembers = "&&" + kCollection + "/Members";

/// The bodies of creations by their kind, one of each that the service knows, with Ids.
extern const Json kBodies;

class SubscriptionsTest : public RedisTest {
 protected:
  void SetUp() override;
  void TearDown() override { SetProcessState(nullptr, nullptr); }
  /// Redis with an empty collection.
  void FillRedis();

  /// A request as the listener hands it over; one with a stream's destination opens a stream. The record is stored
  /// under "request", the answer goes under "response".
  Request MakeRequest(const std::string& method, const std::string& uri, const Json& body = Json(),
                      redisContext* connection = nullptr);
  /// Hands it to the method's handler: POSTCREATE, POSTACTION (to resume), PATCH, DELETE, and STATE from delivery.
  Answer Handle(const std::string& method, const std::string& uri, const Json& body = Json(),
                redisContext* connection = nullptr);

  /// Creates a subscription, which must succeed, and gives its URI.
  std::string Create(const Json& body);

  /// What is stored there, with control fields. The test fails when the database file holds something else, unless it
  /// is a stream, which no file knows, or no subscription.
  Json Stored(const std::string& uri);
  /// The database file, with an object of the members by URI.
  Json InFile();
  std::string Field(const std::string& key, const std::string& field) { return HashRead(redis(), key, field); }
  /// The members are so many, and every place that counts them says so.
  void ExpectCount(size_t count);
  /// The last two life-cycle events, in one group, say this about the member and that the collection changed.
  void ExpectEvents(const std::string& change, const std::string& uri);
  /// Redis without requests, the counters and sequence ids that they take and what they say to the syslog forwarder.
  DatabaseDump Resources();

  ServiceSettings settings_;
  std::optional<SubscriptionsState> state_;
};

}  // namespace event_service
