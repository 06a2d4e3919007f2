/// The queues of the destinations: what each still has to get, sent one after the other and again after a failure.
///
/// Every destination has one attempt under way at most, so its events keep their order, and none waits for another
/// destination. Nothing here talks to Redis: what has been settled, who has been given up and whose pause is over is
/// handed to the caller.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "foundation/redis_pipeline.h"
#include "tools/event_delivery/http_sender.h"
#include "tools/event_delivery/ledger.h"
#include "tools/event_delivery/subscription_finder.h"

namespace event_service {

class Outbox {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Outbox(HttpSender::Settings settings) : sender_(std::move(settings)) {}

  /// Queues an event for the subscription at `uri`, which may be null where it is not known yet: it then comes up in
  /// TakeDue at once. The event of a subscription's end is the last of its queue; what comes for that URI later has a
  /// new one. Beyond 2,048 events or 2 MiB a queue loses its oldest ones, the one being sent excepted.
  void Add(const std::string& uri, SubscriptionPtr subscription, OwedRecords owed);

  /// Carries all attempts on for so long at most; returns early when an attempt ends or a descriptor can be read.
  void Carry(std::chrono::milliseconds longest, std::span<curl_waitfd> descriptors, const RetrySettings& settings);

  /// A destination whose next attempt is due. Its subscription may have changed or gone since the last one, unless it
  /// has ended and nobody can change it any more.
  struct Due {
    uint64_t id;
    std::string uri;
    bool hasEnded;
  };
  std::vector<Due> TakeDue(Clock::time_point now);
  /// When the next one will be.
  std::optional<Clock::time_point> NextDue() const;
  /// Sends the first event of its queue; null: with the subscription as it was.
  void Send(uint64_t id, SubscriptionPtr subscription = nullptr);
  /// Waits on without an attempt.
  void Postpone(uint64_t id, Clock::time_point until);
  /// Gives up what is queued, for a reason that goes into the log.
  void Drop(uint64_t id, const char* reason);

  /// The ledger's fields that are done with since the last call.
  std::vector<std::string> TakeSettled() { return std::exchange(settled_, {}); }
  /// The subscriptions whose last retry has failed since the last call.
  std::vector<SubscriptionPtr> TakeGivenUp() { return std::exchange(givenUp_, {}); }
  /// Appends what is owed as writes of the ledger.
  void AppendLedger(RedisPipeline& pipeline) const;

  /// Begins no further attempts.
  void Stop() { isStopping_ = true; }
  size_t UnderWay() const { return sender_.UnderWay(); }

 private:
  struct Destination {
    std::string uri;
    SubscriptionPtr subscription;
    bool hasEnded = false;
    bool isSending = false;
    bool hasOverflown = false;
    uint32_t failures = 0;  // of the first of its events
    size_t owedSize = 0;
    std::deque<OwedRecords> owed;
  };

  Destination& CurrentAt(const std::string& uri, uint64_t& id);
  void Settle(Destination& destination, size_t position);
  void TrimQueue(Destination& destination);
  void Take(const HttpSender::Outcome& outcome, const RetrySettings& settings);
  void TakeFailure(uint64_t id, Destination& destination, const std::string& error, const RetrySettings& settings);
  void Remove(uint64_t id);

  HttpSender sender_;
  uint64_t lastId_ = 0;
  std::unordered_map<uint64_t, Destination> destinations_;  // those that are owed something
  std::map<std::string, uint64_t> current_;                 // by URI; not those that have ended
  std::multimap<Clock::time_point, uint64_t> pauses_;
  std::vector<std::string> settled_;
  std::vector<SubscriptionPtr> givenUp_;
  bool isStopping_ = false;
};

}  // namespace event_service
