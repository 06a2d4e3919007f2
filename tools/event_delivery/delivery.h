/// The delivery of events: takes them from the queue, finds out who wants them, and sees to it that they get them.
///
/// One thread does everything. It has two connections to Redis, one that waits for the queue and one for commands, and
/// makes new ones when they break.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "foundation/redis_commands.h"
#include "tools/event_delivery/outbox.h"
#include "tools/event_delivery/subscription_finder.h"

namespace event_service {

class Delivery {
 public:
  explicit Delivery(HttpSender::Settings settings) : outbox_(std::move(settings)) {}

  /// Delivers until this descriptor can be read; then waits a moment for what is being sent.
  void Run(int stop);

 private:
  using Clock = std::chrono::steady_clock;

  /// One element of the queue: the event, and the keys of the stored object that it was.
  struct Element {
    std::string text;
    Json document;
    std::vector<std::string> keys;
  };

  void KeepConnected();
  bool Recover();
  void Lose();
  bool AwaitElement();
  void TakeElement();
  bool Dispatch(const std::string& text);
  bool Read(Element& element);
  std::optional<std::vector<Receiver>> ReceiversOf(Json& document);
  bool Enter(const Element& element, const std::vector<Receiver>& receivers);
  void SendDue();
  void AskForGivenUp();
  void SendAsks();
  void WriteSettled();
  std::chrono::milliseconds UntilNextDeadline() const;

  RedisContext redis_;  // null: none at present
  RedisContext taker_;  // waits for an element
  Clock::time_point nextConnect_{};
  std::chrono::milliseconds connectPause_{0};  // 0: connected before
  SubscriptionFinder finder_;
  Outbox outbox_;
  uint64_t nextNumber_ = 1;
  std::vector<std::string> settled_;         // fields of the ledger
  std::map<std::string, std::string> asks_;  // what the service is asked to do with a subscription: URI, method
  Clock::time_point nextAsk_{};
};

}  // namespace event_service
