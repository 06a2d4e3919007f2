#include "tools/event_delivery/delivery.h"

#include <algorithm>
#include <utility>

#include "foundation/logging.h"
#include "foundation/redis_pipeline.h"
#include "resource_store/json_text.h"
#include "resource_store/resource_walk.h"
#include "tools/front_end/front_end_link.h"

namespace event_service {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds kRedisPatience{5};
constexpr milliseconds kFirstPause{100};
constexpr milliseconds kLongestPause{10000};
constexpr seconds kLongestWait{60};
constexpr seconds kFarewell{2};        // for what is being sent when the program ends
constexpr seconds kAskAgain{1};        // when nobody took a request
constexpr seconds kTimeForChange{30};  // until a subscription that should have been changed is served again
constexpr size_t kLongestShown = 256;
constexpr size_t kShortestDeletable = 8;  // the service deletes no subscription with a shorter Id

std::map<std::string, std::string> Fields(const RedisReply& reply) {
  std::map<std::string, std::string> fields;
  const std::vector<std::string_view> texts = TextsOf(reply);
  for (size_t i = 0; i + 1 < texts.size(); i += 2) fields.emplace(texts[i], texts[i + 1]);
  return fields;
}

bool IsStream(const Receiver& receiver) { return receiver.subscription->transport == Subscription::Transport::kStream; }
bool IsHttp(const Receiver& receiver) { return receiver.subscription->transport == Subscription::Transport::kHttp; }

std::vector<size_t> AllRecords(const Json& document) {
  std::vector<size_t> records(document["Events"].size());
  for (size_t i = 0; i < records.size(); ++i) records[i] = i;
  return records;
}

/// For the log; a whole document is not repeated there.
std::string ShownKey(const std::string& text) {
  if (!text.starts_with("&&")) return "a document";
  std::string shown = text.substr(0, kLongestShown);
  std::ranges::replace_if(
      shown, [](unsigned char c) { return c < ' ' || c == '\x7f'; }, '?');
  return shown;
}

/// What the service is asked to do with a subscription whose retries have failed.
std::string MethodFor(const Subscription& subscription) {
  const size_t idLength = subscription.uri.size() - std::min(subscription.uri.size(), subscription.uri.rfind('/') + 1);
  return subscription.retryPolicy == RetryPolicy::kTerminate && idLength >= kShortestDeletable ? "DELETE" : "PATCH";
}

}  // namespace

void Delivery::Run(int stop) {
  for (;;) {
    KeepConnected();
    SendDue();
    SendAsks();
    WriteSettled();
    curl_waitfd descriptors[] = {{stop, CURL_WAIT_POLLIN, 0}, {taker_ ? taker_->fd : -1, CURL_WAIT_POLLIN, 0}};
    outbox_.Carry(UntilNextDeadline(), std::span(descriptors, taker_ ? 2 : 1), finder_.Service().retry);
    AskForGivenUp();  // before the next event is looked at, which they are not to get
    if (descriptors[0].revents != 0) break;
    if (taker_ && descriptors[1].revents != 0) TakeElement();
  }
  outbox_.Stop();
  for (const auto end = Clock::now() + kFarewell; outbox_.UnderWay() > 0 && Clock::now() < end;) {
    outbox_.Carry(milliseconds(100), {}, finder_.Service().retry);
  }
  WriteSettled();
}

milliseconds Delivery::UntilNextDeadline() const {
  Clock::time_point next = Clock::now() + kLongestWait;
  if (const auto due = outbox_.NextDue()) next = std::min(next, *due);
  if (!redis_) next = std::min(next, nextConnect_);
  if (redis_ && !asks_.empty()) next = std::min(next, nextAsk_);
  const auto left = std::chrono::ceil<milliseconds>(next - Clock::now());
  return std::max(left, milliseconds(0));
}

// ---- Redis

void Delivery::KeepConnected() {
  if (redis_ || Clock::now() < nextConnect_) return;
  redis_ = ConnectPatiently(kRedisPatience);
  taker_ = ConnectPatiently(kRedisPatience);
  if (redis_ && taker_ && Recover()) {
    LogDebug("Connected to Redis.");
    connectPause_ = {};
    return;
  }
  redis_.reset();
  taker_.reset();
  if (connectPause_ == milliseconds(0)) LogError("Redis cannot be reached; trying until it can.");
  connectPause_ = std::clamp(2 * connectPause_, kFirstPause, kLongestPause);
  nextConnect_ = Clock::now() + connectPause_;
}

void Delivery::Lose() {
  redis_.reset();
  taker_.reset();
  nextConnect_ = Clock::now();
  LogError("The connection to Redis is lost.");
}

/// Brings ledger and memory into agreement: what the ledger has beyond our numbers was entered by an earlier run, or
/// without our learning that it was; for the rest memory is right. Then takes what was taken and not entered.
bool Delivery::Recover() {
  RedisPipeline reads(redis_.get());
  reads.Append({"HGETALL", kLedger});
  reads.Append({"LRANGE", kTakenList, "0", "-1"});
  const std::vector<RedisReply> stored = reads.Execute();
  if (redis_->err != 0) return false;
  for (auto& [number, entry] : ParseLedger(Fields(stored[0]))) {
    if (number < nextNumber_) continue;
    nextNumber_ = number + 1;
    for (auto& [uri, records] : entry.receivers) {
      const Json& document = entry.event->document;
      const auto end = document.find(kReceiverMember);
      SubscriptionPtr subscription;
      if (end != document.end()) subscription = std::make_shared<const Subscription>(ParseSubscription(uri, *end));
      outbox_.Add(uri, std::move(subscription), {entry.event, std::move(records)});
    }
  }
  settled_.clear();
  static_cast<void>(outbox_.TakeSettled());
  RedisPipeline writes(redis_.get());
  writes.Append({"MULTI"});
  writes.Append({"DEL", kLedger});
  outbox_.AppendLedger(writes);
  writes.Append({"EXEC"});
  writes.Execute();
  for (const std::string_view text : TextsOf(stored[1])) {
    if (!Dispatch(std::string(text))) return false;
  }
  return redis_->err == 0 && AwaitElement();
}

bool Delivery::AwaitElement() {
  std::string command(256, '\0');
  const std::string_view words[] = {"BLMOVE", kEventQueue, kTakenList, "LEFT", "RIGHT", "0"};
  command.resize(static_cast<size_t>(PutCommand(command.data(), words) - command.data()));
  return SendText(taker_.get(), command);
}

void Delivery::TakeElement() {
  const RedisReply reply = ReadReply(taker_.get());
  if (!reply) {
    Lose();
    return;
  }
  if (!IsString(reply)) {
    LogError("The queue of events cannot be read: %.*s", static_cast<int>(reply->len), reply->str ? reply->str : "");
    Lose();
    nextConnect_ = Clock::now() + kLongestPause;
    return;
  }
  if (!Dispatch(std::string(TextOf(reply))) || !AwaitElement()) Lose();
}

void Delivery::WriteSettled() {
  std::ranges::move(outbox_.TakeSettled(), std::back_inserter(settled_));
  if (settled_.empty() || !redis_) return;
  std::vector<std::string_view> words = {"HDEL", kLedger};
  words.insert(words.end(), settled_.begin(), settled_.end());
  if (SendArguments(redis_.get(), words)) {
    settled_.clear();
  } else {
    Lose();
  }
}

// ---- one event

/// False when Redis has failed; the element is taken once more then.
bool Delivery::Dispatch(const std::string& text) {
  Element element{.text = text, .document = {}, .keys = {}};
  const bool isEvent = Read(element);
  if (redis_->err != 0) return false;
  if (!isEvent) {
    LogError("An element of the queue is no event that can be delivered: %s", ShownKey(text).c_str());
    return IsInteger(SendArguments(redis_.get(), {"LREM", kTakenList, "1", text}));
  }
  const std::optional<std::vector<Receiver>> receivers = ReceiversOf(element.document);
  return receivers && Enter(element, *receivers);
}

/// A text that begins with "&&" is the key of a stored event object, which is ours to delete; any other is the
/// document.
bool Delivery::Read(Element& element) {
  if (element.text.size() > kMostPayload) return false;
  if (!element.text.starts_with("&&")) {
    element.document = ParseOutsideText(element.text);
    return IsEventDocument(element.document);
  }
  ResourceWalk walk(element.text, {.knownKind = ContainerKind::kObject, .withControlFields = true, .ownKeysOnly = true},
                    &element.document);
  while (!walk.Done()) {
    if (!walk.ReadLevel(redis_.get())) return false;
  }
  if (!IsEventDocument(element.document)) return false;
  if (const auto receiver = element.document.find(kReceiverMember); receiver != element.document.end()) {
    *receiver = ParseOutsideText(TextMember(element.document, kReceiverMember));
    if (!receiver->is_object()) element.document.erase(receiver);
  }
  element.keys = walk.Keys();
  return true;
}

/// The event of a subscription's end is for its destination alone, which the service has deleted by now: the script
/// that queued the event has put what we need of it into the event.
std::optional<std::vector<Receiver>> Delivery::ReceiversOf(Json& document) {
  const std::string uri(TextMember(document, kOneReceiverMember));
  if (uri.empty()) return finder_.Find(redis_.get(), document);
  const auto receiver = document.find(kReceiverMember);
  SubscriptionPtr subscription = finder_.Known(uri);
  finder_.Forget(uri);
  if (receiver != document.end()) {
    subscription = std::make_shared<const Subscription>(ParseSubscription(uri, *receiver));
  }
  if (!subscription) {
    LogError("The end of %s cannot be told: its destination is not known any more.", uri.c_str());
    return std::vector<Receiver>{};
  }
  return std::vector<Receiver>{{std::move(subscription), AllRecords(document)}};
}

/// Enters the event in the ledger, publishes it to streams, and takes it off the list of elements and out of the store,
/// all at once. False when Redis has failed: then either all of it has been done or nothing.
bool Delivery::Enter(const Element& element, const std::vector<Receiver>& receivers) {
  auto event = std::make_shared<OwedEvent>(OwedEvent{.number = nextNumber_, .document = element.document});
  const std::string text = TolerantJsonText(event->document);
  event->size = text.size();
  RedisPipeline pipeline(redis_.get());
  pipeline.Append({"MULTI"});
  if (std::ranges::any_of(receivers, IsHttp)) pipeline.Append({"HSET", kLedger, EventField(*event), text});
  for (const Receiver& receiver : receivers) {
    const Subscription& subscription = *receiver.subscription;
    if (IsHttp(receiver)) {
      pipeline.Append({"HSET", kLedger, ReceiverField(*event, subscription.uri), RecordsText(receiver.records)});
    } else if (IsStream(receiver)) {
      const std::string payload =
          PayloadOf(event->document, receiver.records, subscription.context, subscription.includesOrigin);
      pipeline.Append({"PUBLISH", subscription.streamChannel, payload});
    }
  }
  pipeline.Append({"LREM", kTakenList, "1", element.text});
  for (const std::string& key : element.keys) pipeline.Append({"UNLINK", key});
  pipeline.Append({"EXEC"});
  const RedisReply done = std::move(pipeline.Execute().back());
  if (!done) return false;
  if (!IsArray(done)) {
    LogError("Redis takes no writes: an event is delivered that a crash would lose.");
    if (!IsInteger(SendArguments(redis_.get(), {"LREM", kTakenList, "1", element.text}))) return false;
  }
  ++nextNumber_;
  for (const Receiver& receiver : receivers) {
    if (IsHttp(receiver)) outbox_.Add(receiver.subscription->uri, receiver.subscription, {event, receiver.records});
  }
  return true;
}

// ---- retries, and their end

/// Before an event is sent again its subscription is looked at: it may have changed, been suspended or deleted.
void Delivery::SendDue() {
  const std::vector<Outbox::Due> due = outbox_.TakeDue(Clock::now());
  for (const Outbox::Due& destination : due) {
    if (destination.hasEnded) {
      outbox_.Send(destination.id);
      continue;
    }
    if (!redis_) {
      outbox_.Postpone(destination.id, Clock::now() + kAskAgain);
      continue;
    }
    const auto subscription = finder_.Refresh(redis_.get(), std::span(&destination.uri, 1));
    if (!subscription) {
      outbox_.Postpone(destination.id, Clock::now());
      Lose();
    } else if (!finder_.Service().isReady) {
      outbox_.Postpone(destination.id, Clock::now() + kAskAgain);
    } else if (!subscription->front()) {
      outbox_.Drop(destination.id, "their subscription is gone");
    } else if (!subscription->front()->isEnabled) {
      outbox_.Drop(destination.id, "their subscription is suspended");
    } else if (!finder_.Service().isEnabled) {
      outbox_.Drop(destination.id, "the service is disabled");
    } else {
      outbox_.Send(destination.id, subscription->front());
    }
  }
}

void Delivery::AskForGivenUp() {
  for (const SubscriptionPtr& subscription : outbox_.TakeGivenUp()) {
    const std::string method = MethodFor(*subscription);
    LogError("%s is %s: its destination takes no events.", subscription->uri.c_str(),
             method == "DELETE" ? "deleted" : "suspended");
    finder_.PassOver(*subscription, Clock::now() + kTimeForChange);
    asks_.insert_or_assign(subscription->uri, method);
  }
}

void Delivery::SendAsks() {
  while (redis_ && !asks_.empty() && Clock::now() >= nextAsk_) {
    const auto& [uri, method] = *asks_.begin();
    FrontEndRequest request{.method = method, .targetUri = uri, .body = {}};
    if (method == "PATCH") request.body = Json{{"Status", {{"State", "Disabled"}}}};
    std::optional<StoredRequest> stored = StoreRequest(redis_.get(), request);
    if (stored) stored->responseKey = "FROM_EVENTING";
    if (stored && AnnounceRequest(redis_.get(), ChannelOf(uri), *stored)) {
      asks_.erase(asks_.begin());
      continue;
    }
    if (redis_->err != 0) {
      Lose();
      return;
    }
    // The service is not there: a start takes up no announcement from before.
    if (stored) RemoveRequest(redis_.get(), *stored);
    nextAsk_ = Clock::now() + kAskAgain;
  }
}

}  // namespace event_service
