/// Finds the subscriptions that want an event: through the origin index and its masks, then by their own filters.
///
/// What was read of a member is kept for as long as its etag stands, which every change renews.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "foundation/redis_commands.h"
#include "tools/event_delivery/subscription.h"

namespace event_service {

using SubscriptionPtr = std::shared_ptr<const Subscription>;

/// The EventService's own settings.
struct ServiceState {
  bool isReady = false;  // it has restored its subscriptions: one that is missing does not exist
  bool isEnabled = true;
  RetrySettings retry;
};

/// A subscription and the positions of the records that it wants.
struct Receiver {
  SubscriptionPtr subscription;
  std::vector<size_t> records;
};

class SubscriptionFinder {
 public:
  using Clock = std::chrono::steady_clock;

  /// Everyone who wants a record of the document, foreign transports included. Reads the service's settings with it
  /// and, where somebody wants it, puts the resource at a record's origin beside the record. Nothing when Redis fails.
  std::optional<std::vector<Receiver>> Find(redisContext* redis, Json& document);

  /// The subscriptions at these URIs as they are now, and the service's settings; null for one that does not exist.
  /// Nothing when Redis fails.
  std::optional<std::vector<SubscriptionPtr>> Refresh(redisContext* redis, std::span<const std::string> uris);

  /// As they were when something was read last.
  const ServiceState& Service() const { return service_; }

  /// Finds the subscription no more until it has changed or the time has come: its change is under way.
  void PassOver(const Subscription& subscription, Clock::time_point until);
  /// What is remembered of a subscription, changed since or not; null: nothing.
  SubscriptionPtr Known(const std::string& uri) const;
  /// It is gone for good.
  void Forget(const std::string& uri);

 private:
  using Candidates = std::map<std::string, std::vector<size_t>>;  // by URI

  static Candidates ReadIndex(redisContext* redis, std::vector<RecordFacts>& facts, ServiceState& service);
  bool IsPassedOver(const Subscription& subscription) const;

  struct Rest {
    std::string etag;
    Clock::time_point until;
  };
  struct Memory {
    std::string etag;  // as it is stored
    SubscriptionPtr subscription;
  };
  ServiceState service_;
  std::map<std::string, Memory> known_;
  std::map<std::string, Rest> passedOver_;
};

}  // namespace event_service
