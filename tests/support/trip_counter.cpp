#include "tests/support/trip_counter.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "foundation/text_numbers.h"

namespace event_service {
namespace {

using Clock = std::chrono::steady_clock;

// A client may send a long pipeline in several writes. Its answers are held back until it has been silent this long:
// only then is what it sends next certainly a new round trip. Shorter ones come in one write.
constexpr size_t kLongPipeline = 15 * 1024;
constexpr auto kSilence = std::chrono::milliseconds(100);

constexpr std::string_view kRefusedCommand = "*1\r\n$14\r\nINJECTED-FAULT\r\n";  // the server answers with an error

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) throw std::runtime_error("socket path too long: " + path);
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

/// The number in the line "<mark>123\r\n" at `position`, which moves behind the line; nothing when it is incomplete.
std::optional<size_t> TakeNumber(std::string_view text, char mark, size_t& position) {
  const size_t end = text.find("\r\n", position);
  if (end == std::string_view::npos) return std::nullopt;
  size_t number = 0;
  if (text[position] != mark || ParseInteger(text.substr(position + 1, end - position - 1), number) != std::errc{}) {
    throw std::runtime_error("not in the wire format: " + std::string(text.substr(position, 40)));
  }
  position = end + 2;
  return number;
}

/// The size of the first command, and its words joined by blanks; 0 when it is incomplete.
size_t FirstCommand(std::string_view text, std::string& words) {
  words.clear();
  size_t position = 0;
  const auto count = TakeNumber(text, '*', position);
  if (!count) return 0;
  for (size_t i = 0; i < *count; ++i) {
    const auto size = TakeNumber(text, '$', position);
    if (!size || text.size() < position + *size + 2) return 0;
    words.append(i > 0 ? " " : "").append(text.substr(position, *size));
    position += *size + 2;
  }
  return position;
}

/// Sends all of it; the server always reads.
void SendAll(int socket, std::string_view text) {
  while (!text.empty()) {
    const ssize_t sent = send(socket, text.data(), text.size(), MSG_NOSIGNAL);
    if (sent <= 0) return;
    text.remove_prefix(static_cast<size_t>(sent));
  }
}

/// Appends what can be read; false at the end of the connection.
bool Receive(int socket, std::string& text) {
  char part[64 * 1024];
  const ssize_t size = recv(socket, part, sizeof part, 0);
  if (size <= 0) return false;
  text.append(part, static_cast<size_t>(size));
  return true;
}

}  // namespace

struct TripCounter::Connection {
  int client = -1;
  int server = -1;
  std::string commands;  // from the client; at most the beginning of one is kept
  std::string replies;   // from the server, not yet handed on
  size_t tripSize = 0;   // bytes from the client in this trip
  bool answered = true;
  bool cut = false;          // no further command is taken
  bool serverEnded = false;  // the client gets what is left and is then closed
  Clock::time_point lastCommand;

  ~Connection() {
    close(client);
    if (server >= 0) close(server);
  }
  Clock::duration TimeToWait() const {
    const bool mayGoOn = tripSize >= kLongPipeline || !commands.empty();
    if (!mayGoOn || cut || serverEnded) return {};
    return std::max(Clock::duration{}, lastCommand + kSilence - Clock::now());
  }
  bool HasRepliesToHandOn() const { return !replies.empty() && TimeToWait() == Clock::duration{}; }
};

TripCounter::TripCounter(const std::string& serverSocket) : serverSocket_(serverSocket) {
  static std::atomic<int> count = 0;
  socketPath_ = serverSocket + "." + std::to_string(++count);
  const sockaddr_un address = AddressOf(socketPath_);
  listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || listen(listener_, 16) != 0) {
    throw std::runtime_error("cannot listen at " + socketPath_);
  }
  stopSignal_ = eventfd(0, EFD_CLOEXEC);
  thread_ = std::thread(&TripCounter::Run, this);
}

TripCounter::~TripCounter() {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(stopSignal_, &one, sizeof one);
  thread_.join();
  close(stopSignal_);
  close(listener_);
  unlink(socketPath_.c_str());
}

RedisContext TripCounter::Connect() const {
  RedisContext context(redisConnectUnix(socketPath_.c_str()));
  if (!context || context->err != 0) throw std::runtime_error("cannot connect to " + socketPath_);
  return context;
}

void TripCounter::Reset() {
  const std::lock_guard guard(mutex_);
  script_ = {};
}
size_t TripCounter::trips() const {
  const std::lock_guard guard(mutex_);
  return script_.trips;
}
size_t TripCounter::commands() const {
  const std::lock_guard guard(mutex_);
  return script_.commands.size();
}
std::vector<std::string> TripCounter::CommandTexts() const {
  const std::lock_guard guard(mutex_);
  return script_.commands;
}
void TripCounter::FailCommand(size_t position) {
  const std::lock_guard guard(mutex_);
  script_.failedPosition = position;
}
void TripCounter::FailCommandsWith(std::string text) {
  const std::lock_guard guard(mutex_);
  script_.failedTexts.push_back(std::move(text));
}
void TripCounter::CutAfter(size_t count) {
  const std::lock_guard guard(mutex_);
  script_.cutAfter = count;
}

void TripCounter::Run() {
  for (;;) {
    std::vector<pollfd> files = {{stopSignal_, POLLIN, 0}, {listener_, POLLIN, 0}};
    auto wait = Clock::duration::max();
    for (const auto& connection : connections_) {
      const bool writes = connection->HasRepliesToHandOn();
      if (!connection->replies.empty() && !writes) wait = std::min(wait, connection->TimeToWait());
      files.push_back({connection->client, static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN), 0});
      files.push_back({connection->serverEnded ? -1 : connection->server, POLLIN, 0});
    }
    const int milliseconds = wait == Clock::duration::max()
                                 ? -1
                                 : static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(wait).count());
    if (poll(files.data(), files.size(), milliseconds) < 0) continue;
    if (files[0].revents != 0) break;
    for (size_t i = connections_.size(); i-- > 0;) {
      if (!Serve(*connections_[i], files[2 + 2 * i].revents, files[3 + 2 * i].revents)) {
        connections_.erase(connections_.begin() + static_cast<std::ptrdiff_t>(i));
      }
    }
    if (files[1].revents != 0) Accept();
  }
  connections_.clear();
}

void TripCounter::Accept() {
  auto connection = std::make_unique<Connection>();
  connection->client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  connection->server = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = AddressOf(serverSocket_);
  if (connect(connection->server, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return;
  connections_.push_back(std::move(connection));
}

/// False when the connection is to be closed.
bool TripCounter::Serve(Connection& connection, short clientEvents, short serverEvents) {
  if ((clientEvents & (POLLIN | POLLHUP | POLLERR)) != 0 && !TakeFromClient(connection)) return false;
  if (serverEvents != 0 && !TakeFromServer(connection)) connection.serverEnded = true;
  if (connection.HasRepliesToHandOn()) {
    const ssize_t sent =
        send(connection.client, connection.replies.data(), connection.replies.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent > 0) connection.replies.erase(0, static_cast<size_t>(sent));
    connection.answered = true;
  }
  return !connection.serverEnded || !connection.replies.empty();
}

bool TripCounter::TakeFromServer(Connection& connection) { return Receive(connection.server, connection.replies); }

bool TripCounter::TakeFromClient(Connection& connection) {
  const size_t before = connection.commands.size();
  if (!Receive(connection.client, connection.commands)) return false;
  if (connection.answered) {
    const std::lock_guard guard(mutex_);
    ++script_.trips;
    connection.answered = false;
    connection.tripSize = 0;
  }
  connection.tripSize += connection.commands.size() - before;
  connection.lastCommand = Clock::now();
  HandOn(connection);
  return true;
}

void TripCounter::HandOn(Connection& connection) {
  std::string toServer;
  std::string text;
  size_t done = 0;
  while (done < connection.commands.size() && !connection.cut) {
    const std::string_view rest = std::string_view(connection.commands).substr(done);
    const size_t size = FirstCommand(rest, text);
    if (size == 0) break;
    const std::string judged = Judge(text, rest.substr(0, size));
    connection.cut = judged.empty();
    toServer += judged;
    done += size;
  }
  connection.commands.erase(0, connection.cut ? std::string::npos : done);
  SendAll(connection.server, toServer);
  // The server still answers what it got and then closes its end, which closes ours.
  if (connection.cut) shutdown(connection.server, SHUT_WR);
}

/// What goes to the server in the place of a command; nothing: the connection is cut here.
std::string TripCounter::Judge(const std::string& text, std::string_view command) {
  const std::lock_guard guard(mutex_);
  if (script_.cutAfter && script_.commands.size() >= *script_.cutAfter) return {};
  script_.commands.push_back(text);
  const bool fails =
      script_.failedPosition == script_.commands.size() ||
      std::ranges::any_of(script_.failedTexts, [&](const auto& part) { return text.find(part) != std::string::npos; });
  return std::string(fails ? kRefusedCommand : command);
}

}  // namespace event_service
