/// A service with everything that handlers of subscriptions need: Redis, settings, a database file, event scripts.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "requests/answer.h"
#include "requests/request.h"
#include "resource_store/store_encoding.h"
#include "service/settings.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"

namespace event_service {

using Names = std::vector<std::string>;

inline const std::string kCollection = "/redfish/v1/EventService/Subscriptions";
inline const std::string kMembers = "&&" + kCollection + "/Members";

/// The bodies of creations by their kind, one of each that the service knows, with Ids.
extern const Json kBodies;

/// "FAILURE PropertyValueTypeError(5, Id) @Id"
std::string InShort(const Answer& answer);

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

  /// Creates a subscription, which must succeed, and gives its URI.
  std::string Create(const Json& body);
  /// Lets the syslog forwarder say `answer` about this Id.
  void AnswerSyslog(const std::string& id, const std::string& answer = "OK");

  /// The stored resource with its control fields.
  Json Stored(const std::string& uri);
  /// The members in the database file, by URI.
  std::map<std::string, Json> InFile();
  std::string Field(const std::string& key, const std::string& field) { return HashRead(redis(), key, field); }
  Names Elements(const std::string& list);
  /// What life-cycle events said: "add <uri> EventDestination <group id>".
  Names Events() { return Elements("events"); }
  /// Redis without requests, the sequence ids that they take and what they say to the syslog forwarder.
  DatabaseDump Resources();

  ServiceSettings settings_;
  std::optional<SubscriptionsState> state_;
};

}  // namespace event_service
