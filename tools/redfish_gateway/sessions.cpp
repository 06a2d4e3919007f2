#include "tools/redfish_gateway/sessions.h"

#include <sys/random.h>

#include <algorithm>
#include <cstdint>

namespace event_service {
namespace {

constexpr size_t kMostSessions = 64;
constexpr size_t kTokenBytes = 24;
constexpr size_t kIdBytes = 6;

/// Random hexadecimal digits; empty when the kernel gives none.
std::string RandomText(size_t bytes) {
  std::vector<uint8_t> random(bytes);
  if (getrandom(random.data(), bytes, 0) != static_cast<ssize_t>(bytes)) return {};
  std::string text;
  for (const uint8_t byte : random) {
    for (const int digit : {byte >> 4, byte & 15}) text += "0123456789abcdef"[digit];
  }
  return text;
}

}  // namespace

bool EqualSecrets(std::string_view a, std::string_view b) {
  unsigned difference = a.size() == b.size() ? 0 : 1;
  for (size_t i = 0; i < std::min(a.size(), b.size()); ++i) difference |= static_cast<unsigned>(a[i] ^ b[i]);
  return difference == 0;
}

void Sessions::DropExpired() {
  const auto oldest = now_() - timeout_;
  std::erase_if(sessions_, [&](const Session& session) { return session.lastUse < oldest; });
}

std::optional<Session> Sessions::Create(std::string_view userName, std::string_view clientAddress) {
  const std::lock_guard lock(mutex_);
  DropExpired();
  Session session{RandomText(kIdBytes), RandomText(kTokenBytes), std::string(userName), std::string(clientAddress),
                  now_()};
  if (sessions_.size() >= kMostSessions || session.id.empty() || session.token.empty()) return std::nullopt;
  sessions_.push_back(session);
  return session;
}

bool Sessions::Use(std::string_view token) {
  const std::lock_guard lock(mutex_);
  DropExpired();
  const auto found = std::ranges::find_if(sessions_, [&](const Session& s) { return EqualSecrets(s.token, token); });
  if (found == sessions_.end()) return false;
  found->lastUse = now_();
  return true;
}

std::optional<Session> Sessions::Find(std::string_view id) {
  const std::lock_guard lock(mutex_);
  DropExpired();
  const auto found = std::ranges::find(sessions_, id, &Session::id);
  return found == sessions_.end() ? std::nullopt : std::optional(*found);
}

std::vector<std::string> Sessions::Ids() {
  const std::lock_guard lock(mutex_);
  DropExpired();
  std::vector<std::string> ids;
  for (const Session& session : sessions_) ids.push_back(session.id);
  return ids;
}

bool Sessions::Remove(std::string_view id) {
  const std::lock_guard lock(mutex_);
  return std::erase_if(sessions_, [&](const Session& session) { return session.id == id; }) > 0;
}

int64_t Sessions::Timeout() {
  const std::lock_guard lock(mutex_);
  return timeout_.count();
}

void Sessions::SetTimeout(int64_t seconds) {
  const std::lock_guard lock(mutex_);
  timeout_ = std::chrono::seconds(seconds);
}

}  // namespace event_service
