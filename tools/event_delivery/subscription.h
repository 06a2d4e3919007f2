/// What delivery needs to know of one subscription, and whether it wants an event. Nothing here talks to Redis.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/event_delivery/event_document.h"
#include "tools/event_delivery/retry_plan.h"

namespace event_service {

struct Subscription {
  enum class Transport { kHttp, kStream, kForeign };  // foreign: SNMP, SMTP, syslog

  std::string uri;
  std::string etag;
  Transport transport = Transport::kForeign;
  std::string destination;    // http or https
  std::string streamChannel;  // of a stream of server-sent events
  std::vector<std::pair<std::string, std::string>> headers;
  bool verifiesCertificate = false;
  bool includesOrigin = false;
  Json context;  // null: none
  RetryPolicy retryPolicy = RetryPolicy::kTerminate;

  // What it wants; empty: everything.
  bool isEnabled = true;
  bool wantsEvents = true;  // not metric reports
  std::vector<std::string> messageIds;
  std::vector<std::string> registryPrefixes;
  std::vector<std::string> resourceTypes;
  std::vector<std::string> eventTypes;
};

/// Takes it out of the stored member. Whatever is missing or of another type counts as left out; a header that would
/// break the request is passed over.
Subscription ParseSubscription(std::string uri, const Json& member);

/// The mask of the origin index judges first: false when it rules a record out whose registry has this bit (0: none is
/// known).
bool MaskAdmits(int64_t mask, int64_t registryBit);

/// The bit of a registry prefix in masks, by its position in the service's list; 0 when it stands not there.
int64_t RegistryBit(const std::vector<std::string>& registryPrefixes, std::string_view prefix);

/// True when no filter of the subscription rules the record out; its origin was judged by the index.
bool Admits(const Subscription& subscription, const RecordFacts& record);

}  // namespace event_service
