/// One request: the announcement that names it and the record that the front end left.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/redis_commands.h"
#include "resource_store/json_text.h"
#include "service/settings.h"

namespace event_service {

// The record's fields, as the front end names them.
inline constexpr std::string_view kRequestMethod = "&&RequestMethod";
inline constexpr std::string_view kTargetUri = "&&TargetURI";
inline constexpr std::string_view kPrivileges = "&&Privileges";
inline constexpr std::string_view kRequestData = "&&RequestData";
inline constexpr std::string_view kReturnChannel = "&&ReturnChannel";
inline constexpr std::string_view kIsSse = "&&IsSSE";
inline constexpr std::string_view kSseChannel = "&&SSE-CHANNEL";
// And the one that a creation adds.
inline constexpr std::string_view kLocation = "&&Location";

/// The second word of the announcement of a request that the event-delivery side sends: it expects no answer. It means
/// something for DELETE and PATCH only, but no key of that name is ever written.
inline constexpr std::string_view kFromEventing = "FROM_EVENTING";

struct Announcement {
  std::string requestKey;
  std::string responseKey;  // or kFromEventing
};

/// Splits "<request key> <response key>" at its first blank; nothing when there is none or a key is empty.
std::optional<Announcement> ParseAnnouncement(std::string_view text);

/// What the front end left under the request key, and what most requests need besides, fetched in one round trip.
/// A missing field is empty.
struct RequestRecord {
  std::string method;
  std::string targetUri;
  std::string privileges;
  std::string requestData;  // the key of the stored body; empty: there is none
  std::string returnChannel;
  std::string isSse;
  std::string serviceEnabled;   // field "ServiceEnabled" of the EventService
  std::string lifeCycleDigest;  // of the script that raises life-cycle events
  RedisReply usualBody;         // the hash under "<request key>/RequestData"
};

/// Where front ends keep the body of a request.
std::string BodyKeyOf(std::string_view requestKey);

/// A field that cannot be read is empty, as they all are without a connection. A record that names no body has the one
/// under its usual key, if there is any.
RequestRecord ReadRequestRecord(redisContext* redis, std::string_view requestKey);

/// Properties of the EventService whose last change failed half-way: Redis or the file may lack the value.
using UnsettledProperties = std::set<std::string, std::less<>>;

/// What a handler works with. Connection and references outlive the request.
struct Request {
  redisContext* redis;
  Announcement announcement;
  RequestRecord record;
  const ServiceSettings& settings;
  SubscriptionsState* subscriptions;         // null on the EventService side, which does not own them
  UnsettledProperties* unsettled = nullptr;  // the EventService side's

  /// What a handler has done with: it is released when the answer is on its way, since that takes time.
  std::vector<Json> spent = {};

  /// The body's first level, when it has come with the record: null when the record names another key for it.
  const redisReply* PrefetchedBody() const;

  bool IsFromEventing() const;  // DELETE or PATCH of the delivery side: nothing is answered
  const char* AskedBy() const;  // for the line about a changed subscription
};

}  // namespace event_service
