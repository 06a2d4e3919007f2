#include "tests/support/trip_counter.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <optional>
#include <stdexcept>
#include <utility>

namespace event_service {

struct TripCounter::Connection {
  RedisContext client, server;
  std::string replies;   // not yet handed on
  bool answered = true;  // something was handed on since the trip began

  /// A client that sends a long pipeline in several writes has read none of its replies.
  bool BeginsTrip() const {
    int unread = 0;
    return answered && replies.empty() && ioctl(client->fd, SIOCOUTQ, &unread) == 0 && unread == 0;
  }
};

/// What the server is asked in the place of a command that fails.
static std::vector<std::string_view> InPlaceOf(std::string_view command, RedisFault fault) {
  if (fault == RedisFault::kNil) return {"GET", "injected-fault"};
  if (fault == RedisFault::kError) return {"INJECTED-FAULT"};  // an unknown command
  for (const char* answeredByArray : {"HGETALL ", "HMGET ", "LRANGE ", "KEYS ", "SMEMBERS ", "BLPOP ", "SUBSCRIBE "}) {
    if (command.starts_with(answeredByArray)) return {"EXISTS", "injected-fault"};
  }
  return {"TIME"};  // an array
}

TripCounter::TripCounter(const std::string& serverSocket) : serverSocket_(serverSocket) {
  static std::atomic<int> count = 0;
  socketPath_ = serverSocket + "." + std::to_string(++count);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  socketPath_.copy(address.sun_path, sizeof address.sun_path - 1);
  listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || listen(listener_, 16) != 0) {
    throw std::runtime_error("cannot listen at " + socketPath_);
  }
  thread_ = std::thread(&TripCounter::Run, this);
}

TripCounter::~TripCounter() {
  shutdown(listener_, SHUT_RDWR);  // which ends the thread
  thread_.join();
  close(listener_);
  unlink(socketPath_.c_str());
}

void TripCounter::Reset(RedisFaults faults) {
  const std::lock_guard guard(mutex_);
  faults_ = std::move(faults);
  trips_ = 0;
  commands_.clear();
}

size_t TripCounter::trips() const {
  const std::lock_guard guard(mutex_);
  return trips_;
}

std::vector<std::string> TripCounter::commands() const {
  const std::lock_guard guard(mutex_);
  return commands_;
}

void TripCounter::Run() {
  for (;;) {
    std::vector<pollfd> files = {{listener_, POLLIN, 0}};
    for (const auto& connection : connections_) {
      const int events = connection->replies.empty() ? POLLIN : POLLIN | POLLOUT;
      files.push_back({connection->client->fd, static_cast<short>(events), 0});
      files.push_back({connection->server->fd, POLLIN, 0});
    }
    if (poll(files.data(), files.size(), -1) < 0) continue;
    if ((files[0].revents & POLLHUP) != 0) break;
    auto file = files.begin() + 1;
    std::erase_if(connections_, [&](const auto& connection) {
      const int clientEvents = (file++)->revents;
      return !Serve(*connection, clientEvents, (file++)->revents);
    });
    if (files[0].revents != 0) Accept();
  }
  connections_.clear();
}

void TripCounter::Accept() {
  auto connection = std::make_unique<Connection>();
  connection->client.reset(redisConnectFd(accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)));
  connection->server.reset(redisConnectUnix(serverSocket_.c_str()));
  if (connection->server->err == 0) connections_.push_back(std::move(connection));
}

/// False when the connection is to be closed.
bool TripCounter::Serve(Connection& connection, int clientEvents, int serverEvents) {
  char part[64 * 1024];
  if ((clientEvents & ~POLLOUT) != 0) {
    const ssize_t size = recv(connection.client->fd, part, sizeof part, 0);
    if (size <= 0) return false;
    redisReaderFeed(connection.client->reader, part, static_cast<size_t>(size));
    HandOn(connection);
  }
  bool serverGoesOn = true;
  if (serverEvents != 0) {
    const ssize_t size = recv(connection.server->fd, part, sizeof part, 0);
    serverGoesOn = size > 0;
    if (serverGoesOn) connection.replies.append(part, static_cast<size_t>(size));
  }
  const ssize_t sent =
      send(connection.client->fd, connection.replies.data(), connection.replies.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (sent > 0) {
    connection.replies.erase(0, static_cast<size_t>(sent));
    connection.answered = true;
  }
  return serverGoesOn;
}

void TripCounter::HandOn(Connection& connection) {
  const std::lock_guard guard(mutex_);
  if (connection.BeginsTrip()) {
    ++trips_;
    connection.answered = false;
  }
  std::string out;
  std::optional<RedisFault> end;
  while (const RedisReply command = end ? nullptr : BufferedReply(connection.client.get())) {
    std::vector<std::string_view> words = TextsOf(command);
    std::string text;
    for (const std::string_view word : words) text.append(text.empty() ? "" : " ").append(word);
    if (commands_.size() >= faults_.cutAfter) end = RedisFault::kCut;
    if (end) break;
    commands_.push_back(text);
    const bool fails = commands_.size() == faults_.failedCommand ||
                       (!faults_.failedText.empty() && text.find(faults_.failedText) != std::string::npos);
    if (fails && faults_.fault >= RedisFault::kCut) end = faults_.fault;
    if (end == RedisFault::kCut) break;
    if (fails && !end) words = InPlaceOf(text, faults_.fault);
    const size_t handedOn = out.size();
    out.resize(handedOn + CommandRoom(words));
    out.resize(static_cast<size_t>(PutCommand(&out[handedOn], words) - out.data()));
  }
  SendText(connection.server.get(), out);
  if (end) EndConnections(*end);
}

void TripCounter::EndConnections(RedisFault fault) {
  for (const auto& connection : connections_) {
    // After a cut the server still answers what it got and then closes its ends, which closes ours.
    fault == RedisFault::kCut ? shutdown(connection->server->fd, SHUT_WR) : shutdown(connection->client->fd, SHUT_RDWR);
  }
}

}  // namespace event_service
