#include "tools/event_delivery/outbox.h"

#include <algorithm>
#include <utility>

#include "foundation/logging.h"

namespace event_service {
namespace {

constexpr size_t kMostOwed = 2048;
constexpr size_t kMostOwedSize = 2 * 1024 * 1024;

}  // namespace

Outbox::Destination& Outbox::CurrentAt(const std::string& uri, uint64_t& id) {
  const auto [current, isNew] = current_.try_emplace(uri, lastId_ + 1);
  if (isNew) ++lastId_;
  id = current->second;
  Destination& destination = destinations_[id];
  destination.uri = uri;
  return destination;
}

void Outbox::Add(const std::string& uri, SubscriptionPtr subscription, OwedRecords owed) {
  uint64_t id = 0;
  Destination& destination = CurrentAt(uri, id);
  ++owed.event->receivers;
  destination.owedSize += owed.event->size;
  const bool isFirst = destination.owed.empty();
  const bool isEnd = owed.event->document.contains(kReceiverMember);
  destination.owed.push_back(std::move(owed));
  if (subscription) destination.subscription = std::move(subscription);
  TrimQueue(destination);
  if (isEnd) {
    destination.hasEnded = true;
    current_.erase(uri);
  }
  if (!isFirst) return;
  if (destination.subscription) {
    Send(id);
  } else {
    Postpone(id, Clock::now());
  }
}

void Outbox::TrimQueue(Destination& destination) {
  while (destination.owed.size() > 1 && (destination.owed.size() > kMostOwed || destination.owedSize > kMostOwedSize)) {
    if (!std::exchange(destination.hasOverflown, true)) {
      LogError("The queue of %s is full: its oldest events are dropped until it is empty.", destination.uri.c_str());
    }
    Settle(destination, 1);  // the first may be under way
  }
}

void Outbox::Settle(Destination& destination, size_t position) {
  OwedEvent& event = *destination.owed[position].event;
  settled_.push_back(ReceiverField(event, destination.uri));
  if (--event.receivers == 0) settled_.push_back(EventField(event));
  destination.owedSize -= event.size;
  destination.owed.erase(destination.owed.begin() + static_cast<ptrdiff_t>(position));
}

void Outbox::Remove(uint64_t id) {
  const auto destination = destinations_.find(id);
  if (destination == destinations_.end()) return;
  while (!destination->second.owed.empty()) Settle(destination->second, 0);
  const auto current = current_.find(destination->second.uri);
  if (current != current_.end() && current->second == id) current_.erase(current);
  destinations_.erase(destination);
}

void Outbox::Drop(uint64_t id, const char* reason) {
  const auto destination = destinations_.find(id);
  if (destination == destinations_.end()) return;
  LogError("%zu events for %s are dropped: %s.", destination->second.owed.size(), destination->second.uri.c_str(),
           reason);
  Remove(id);
}

void Outbox::Send(uint64_t id, SubscriptionPtr subscription) {
  const auto found = destinations_.find(id);
  if (found == destinations_.end() || isStopping_) return;
  Destination& destination = found->second;
  if (subscription) destination.subscription = std::move(subscription);
  if (!destination.subscription || destination.isSending || destination.owed.empty()) return;
  const OwedRecords& first = destination.owed.front();
  destination.isSending = true;
  sender_.Post(id, *destination.subscription,
               PayloadOf(first.event->document, first.records, destination.subscription->context,
                         destination.subscription->includesOrigin));
}

void Outbox::Postpone(uint64_t id, Clock::time_point until) { pauses_.emplace(until, id); }

void Outbox::Carry(std::chrono::milliseconds longest, std::span<curl_waitfd> descriptors,
                   const RetrySettings& settings) {
  for (const HttpSender::Outcome& outcome : sender_.Wait(longest, descriptors)) Take(outcome, settings);
}

void Outbox::Take(const HttpSender::Outcome& outcome, const RetrySettings& settings) {
  const auto found = destinations_.find(outcome.tag);
  if (found == destinations_.end()) return;
  Destination& destination = found->second;
  destination.isSending = false;
  if (!outcome.error.empty()) {
    TakeFailure(outcome.tag, destination, outcome.error, settings);
    return;
  }
  destination.failures = 0;
  Settle(destination, 0);
  if (destination.owed.empty()) {
    Remove(outcome.tag);
  } else {
    Send(outcome.tag);
  }
}

void Outbox::TakeFailure(uint64_t id, Destination& destination, const std::string& error,
                         const RetrySettings& settings) {
  ++destination.failures;
  LogError("The destination of %s has not taken an event: %s.", destination.uri.c_str(), error.c_str());
  // Nobody can end the retries of a subscription that is gone.
  const RetryPolicy policy = destination.hasEnded ? RetryPolicy::kTerminate : destination.subscription->retryPolicy;
  if (const auto pause = PauseAfter(policy, destination.failures, settings)) {
    Postpone(id, Clock::now() + *pause);
    return;
  }
  if (!destination.hasEnded) givenUp_.push_back(destination.subscription);
  Drop(id, "the last retry has failed");
}

std::vector<Outbox::Due> Outbox::TakeDue(Clock::time_point now) {
  std::vector<Due> due;
  while (!pauses_.empty() && pauses_.begin()->first <= now) {
    const uint64_t id = pauses_.begin()->second;
    pauses_.erase(pauses_.begin());
    const auto found = destinations_.find(id);
    if (found != destinations_.end()) due.push_back({id, found->second.uri, found->second.hasEnded});
  }
  return due;
}

std::optional<Outbox::Clock::time_point> Outbox::NextDue() const {
  if (pauses_.empty()) return std::nullopt;
  return pauses_.begin()->first;
}

void Outbox::AppendLedger(RedisPipeline& pipeline) const {
  for (const auto& [id, destination] : destinations_) {
    for (const OwedRecords& owed : destination.owed) {
      const OwedEvent& event = *owed.event;
      pipeline.Append({"HSET", kLedger, EventField(event), TolerantJsonText(event.document),
                       ReceiverField(event, destination.uri), RecordsText(owed.records)});
    }
  }
}

}  // namespace event_service
