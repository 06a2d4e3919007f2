#include "tools/redfish_gateway/event_streams.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstring>

#include "foundation/logging.h"
#include "foundation/random.h"
#include "foundation/redis_pipeline.h"
#include "resource_store/json_text.h"
#include "service/redis_keys.h"
#include "tools/front_end/front_end_link.h"

namespace event_service {
namespace {

using std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr std::string_view kChannelPrefix = "&&Gateway/SSE/";
constexpr size_t kMostWaitingBytes = size_t{2} << 20;  // two of the largest events
constexpr auto kTimeForTheRest = 2s;
constexpr auto kTick = 1000ms;
constexpr steady_clock::duration kInterval = 1s;  // between comparisons while there are streams
constexpr steady_clock::duration kIdleInterval = 10s;
constexpr auto kHeartbeatInterval = 15s;
constexpr auto kRedisPatience = 2000ms;

bool EndsSubscription(const Json& document) {
  const auto events = document.find("Events");
  if (events == document.end() || !events->is_array()) return false;
  return std::ranges::any_of(
      *events, [](const Json& event) { return TextMember(event, "MessageId").ends_with(".SubscriptionTerminated"); });
}

/// One event as the stream's format has it (HTML standard, "Server-sent events").
std::string StreamText(const Json& document) {
  const std::string id(TextMember(document, "Id"));
  const bool fitsInLine = !id.empty() && id.find_first_of("\r\n") == std::string::npos;
  return (fitsInLine ? "id: " + id + "\n" : "") + "data: " + TolerantJsonText(document) + "\n\n";
}

}  // namespace

void EventStream::Attach(int socket, std::function<void()> resume) {
  const std::lock_guard lock(mutex_);
  socket_ = socket;
  resume_ = std::move(resume);
}

void EventStream::Detach() {
  const std::lock_guard lock(mutex_);
  socket_ = -1;
  isSuspended_ = false;
  hasEnded_ = true;
}

ssize_t EventStream::Take(char* room, size_t size, const std::function<void()>& suspend) {
  const std::lock_guard lock(mutex_);
  if (!waiting_.empty()) {
    const size_t count = std::min(size, waiting_.size());
    std::memcpy(room, waiting_.data(), count);
    waiting_.erase(0, count);
    return static_cast<ssize_t>(count);
  }
  if (hasEnded_) return -1;
  isSuspended_ = true;
  suspend();
  return 0;
}

void EventStream::Resume() {
  if (!isSuspended_) return;
  isSuspended_ = false;
  resume_();
}

void EventStream::Push(std::string_view text) {
  const std::lock_guard lock(mutex_);
  if (hasEnded_) return;
  if (waiting_.size() + text.size() > kMostWaitingBytes) {
    LogError("A stream is closed: its client does not read what it gets.");
    EndLocked();
    return;
  }
  waiting_ += text;
  lastPush_ = steady_clock::now();
  Resume();
}

void EventStream::End() {
  const std::lock_guard lock(mutex_);
  EndLocked();
}

void EventStream::EndLocked() {
  if (!hasEnded_) end_ = steady_clock::now();
  hasEnded_ = true;
  Resume();
}

void EventStream::Tick() {
  {
    const std::lock_guard lock(mutex_);
    if (hasEnded_ && socket_ >= 0 && steady_clock::now() - end_ >= kTimeForTheRest) shutdown(socket_, SHUT_RDWR);
    if (steady_clock::now() - lastPush_ < kHeartbeatInterval) return;
  }
  Push(": heartbeat\n\n");
}

bool EventStream::HasEnded() {
  const std::lock_guard lock(mutex_);
  return hasEnded_;
}

int EventStream::Socket() {
  const std::lock_guard lock(mutex_);
  return socket_;
}

EventStreams::EventStreams(Deletion deleteSubscription)
    : deleteSubscription_(std::move(deleteSubscription)), wakeUp_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

EventStreams::~EventStreams() {
  Stop();
  close(wakeUp_);
}

void EventStreams::Start() {
  thread_ = std::thread([this] { Run(); });
}

void EventStreams::Stop() {
  if (!thread_.joinable()) return;
  isStopping_ = true;
  Wake();
  thread_.join();
  for (const auto& stream : Live()) stream->End();
  {
    const std::lock_guard lock(mutex_);
    streams_.clear();
  }
  Compare();
}

std::shared_ptr<EventStream> EventStreams::Create() {
  char channel[64];
  std::snprintf(channel, sizeof channel, "%.*s%016" PRIX64, static_cast<int>(kChannelPrefix.size()),
                kChannelPrefix.data(), KernelNumber());
  auto stream = std::make_shared<EventStream>(channel);
  const std::lock_guard lock(mutex_);
  if (isStopping_) stream->End();
  streams_.push_back(stream);
  return stream;
}

void EventStreams::Wake() {
  isWoken_ = true;
  eventfd_write(wakeUp_, 1);
}

void EventStreams::ForgetDeletion(const std::string& uri) {
  const std::lock_guard lock(mutex_);
  deleting_.erase(uri);
}

EventStreams::Streams EventStreams::Live() {
  const std::lock_guard lock(mutex_);
  Streams live;
  std::erase_if(streams_, [&](const std::weak_ptr<EventStream>& weak) {
    live.push_back(weak.lock());
    if (live.back()) return false;
    live.pop_back();
    return true;
  });
  return live;
}

void EventStreams::Run() {
  auto lastComparison = steady_clock::now();
  while (!isStopping_) {
    ListenToChannels();
    const bool isIdle = Live().empty();
    if (isWoken_.exchange(false) || steady_clock::now() - lastComparison >= (isIdle ? kIdleInterval : kInterval)) {
      Compare();
      lastComparison = steady_clock::now();
    }
    Wait(Live());
    ReadMessages();
  }
}

// Until there is a message, a client has gone, somebody wakes the thread, or a tick has passed.
void EventStreams::Wait(const Streams& streams) {
  std::vector<pollfd> files = {{wakeUp_, POLLIN, 0}, {subscriber_ ? subscriber_->fd : -1, POLLIN, 0}};
  for (const auto& stream : streams) files.push_back({stream->HasEnded() ? -1 : stream->Socket(), POLLRDHUP, 0});
  poll(files.data(), files.size(), static_cast<int>(kTick.count()));
  eventfd_t ignored;
  eventfd_read(wakeUp_, &ignored);
  for (size_t i = 0; i < streams.size(); ++i) {
    if (files[i + 2].revents != 0) streams[i]->End();
    streams[i]->Tick();
  }
}

void EventStreams::ListenToChannels() {
  if (subscriber_ && subscriber_->err == 0) return;
  const bool hadOne = subscriber_ != nullptr;
  subscriber_ = ConnectPatiently(kRedisPatience);
  const std::string pattern = std::string(kChannelPrefix) + "*";
  if (subscriber_ && !IsArray(SendArguments(subscriber_.get(), {"PSUBSCRIBE", pattern}))) subscriber_.reset();
  if (hadOne && !subscriber_)
    LogError("The connection for event streams is lost: no events until Redis answers again.");
}

void EventStreams::ReadMessages() {
  pollfd file{subscriber_ ? subscriber_->fd : -1, POLLIN, 0};
  while (poll(&file, 1, 0) > 0 && redisBufferRead(subscriber_.get()) == REDIS_OK) {
    while (const RedisReply message = BufferedReply(subscriber_.get())) {  // "pmessage", pattern, channel, text
      if (!IsArray(message) || message->elements != 4) continue;
      Deliver(TextOf(message->element[2]), TextOf(message->element[3]));
    }
  }
}

void EventStreams::Deliver(std::string_view channel, std::string_view text) {
  const Json document = ParseOutsideText(text);
  if (!document.is_object()) {
    LogError("A message for an event stream is no JSON object and is dropped.");
    return;
  }
  for (const auto& stream : Live()) {
    if (stream->Channel() != channel) continue;
    stream->Push(StreamText(document));
    if (EndsSubscription(document)) stream->End();
  }
}

void EventStreams::Compare() {
  if (!redis_ || redis_->err != 0) redis_ = ConnectPatiently(kRedisPatience);
  if (!redis_) return;
  const RedisReply members = SendArguments(redis_.get(), {"LRANGE", kSubscriptionsMembersKey, "0", "-1"});
  if (!IsArray(members)) return;
  std::vector<std::string> uris;
  RedisPipeline pipeline(redis_.get());
  for (size_t i = 0; i < members->elements; ++i) {
    const std::string_view entry = TextOf(members->element[i]);
    uris.emplace_back(entry.substr(std::min(entry.find("/redfish/"), entry.size())));
    pipeline.Append({"HGET", uris.back(), "&&SSE-CHANNEL"});
  }
  const std::vector<RedisReply> channels = pipeline.Execute();
  if (redis_->err != 0) return;

  // Looked at after Redis: a channel that stands there and not here belongs to a stream that has ended.
  std::set<std::string, std::less<>> open;
  for (const auto& stream : Live()) open.insert(stream->Channel());
  std::set<std::string> found;
  for (size_t i = 0; i < uris.size(); ++i) {
    const std::string_view channel = TextOf(channels[i]);
    found.emplace(channel);
    if (channel.starts_with(kChannelPrefix) && !open.contains(channel)) Delete(uris[i]);
  }
  EndWithoutSubscription(found);
}

// One that is missed twice: what the client is told at the end may still be on its way.
void EventStreams::EndWithoutSubscription(const std::set<std::string>& channels) {
  std::set<std::string> missing;
  for (const auto& stream : Live()) {
    if (!stream->IsOpen() || channels.contains(stream->Channel())) continue;
    missing.insert(stream->Channel());
    if (missed_.contains(stream->Channel())) stream->End();
  }
  missed_ = std::move(missing);
}

void EventStreams::Delete(const std::string& uri) {
  {
    const std::lock_guard lock(mutex_);
    if (!deleting_.insert(uri).second) return;
  }
  if (!deleteSubscription_(uri, [this, uri] { ForgetDeletion(uri); })) ForgetDeletion(uri);
}

}  // namespace event_service
