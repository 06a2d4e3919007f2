/// Event streams: what event delivery publishes for a stream goes to its client, and a stream and its subscription end
/// together.
///
/// Each stream has a channel of its own, whose name the subscription holds in "&&SSE-CHANNEL". One thread listens on
/// all of them, sends heartbeats, notices clients that have gone, and compares the open streams with the subscriptions
/// that exist: a stream without a subscription is closed, a subscription without a stream is deleted. That comparison
/// needs no message to arrive, so it also holds after a restart of any part.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "foundation/redis_commands.h"

namespace event_service {

/// The text that still has to go to one client. Filled by the streams' thread, emptied by the server's.
class EventStream {
 public:
  explicit EventStream(std::string channel) : channel_(std::move(channel)) {}

  const std::string& Channel() const { return channel_; }

  /// The subscription exists. Until then nobody misses it.
  void MarkOpen() { isOpen_ = true; }
  bool IsOpen() const { return isOpen_; }

  /// The server's side: the client's socket, and how a connection goes on that Take has suspended.
  void Attach(int socket, std::function<void()> resume);
  /// The connection goes now: neither is touched any more.
  void Detach();
  /// Moves text into `room`: its length, 0 after `suspend` has been called because there is none, -1 at the end.
  ssize_t Take(char* room, size_t size, const std::function<void()>& suspend);

  /// A text for the client. One that leaves too much waiting ends the stream.
  void Push(std::string_view text);
  void End();
  bool HasEnded();
  int Socket();
  /// Sends a heartbeat when the stream has been silent for long, and cuts the connection of a client that does not take
  /// what is left at the end.
  void Tick();

 private:
  void EndLocked();
  void Resume();

  const std::string channel_;
  std::atomic<bool> isOpen_ = false;
  std::mutex mutex_;
  std::string waiting_;
  std::chrono::steady_clock::time_point lastPush_ = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point end_;
  std::function<void()> resume_;
  int socket_ = -1;
  bool isSuspended_ = false;
  bool hasEnded_ = false;
};

class EventStreams {
 public:
  /// Takes the order to delete the subscription at a URI and calls `done` when it has been carried out, whatever came
  /// of it: what still exists then is found by the next comparison. False when it cannot take the order now.
  using Deletion = std::function<bool(const std::string& uri, const std::function<void()>& done)>;

  explicit EventStreams(Deletion deleteSubscription);
  ~EventStreams();

  void Start();
  /// Ends every stream and asks for the deletion of their subscriptions.
  void Stop();

  /// A new stream, whose channel is listened on from now on. It lives as long as somebody holds it.
  std::shared_ptr<EventStream> Create();
  /// Something may have ended: streams and subscriptions are compared at once.
  void Wake();

 private:
  using Streams = std::vector<std::shared_ptr<EventStream>>;

  void Run();
  Streams Live();
  void Wait(const Streams& streams);
  void ListenToChannels();
  void ReadMessages();
  void Deliver(std::string_view channel, std::string_view text);
  void Compare();
  void EndWithoutSubscription(const std::set<std::string>& channels);
  void Delete(const std::string& uri);

  void ForgetDeletion(const std::string& uri);

  const Deletion deleteSubscription_;
  std::mutex mutex_;
  std::vector<std::weak_ptr<EventStream>> streams_;
  std::set<std::string> deleting_;  // URIs
  std::atomic<bool> isStopping_ = false;
  std::atomic<bool> isWoken_ = true;
  int wakeUp_ = -1;  // an eventfd
  std::thread thread_;
  // The thread's own.
  RedisContext subscriber_;
  RedisContext redis_;
  std::set<std::string> missed_;  // channels whose subscription was missing at the last comparison
};

}  // namespace event_service
