#include "tests/support/canned_replies.h"

#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace event_service {

CannedConnection::CannedConnection(std::string_view replies, Then then) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) throw std::runtime_error("no socket pair");
  redis_.reset(redisConnectFd(ends[0]));
  otherEnd_ = ends[1];
  if (write(otherEnd_, replies.data(), replies.size()) != static_cast<ssize_t>(replies.size())) {
    throw std::runtime_error("the canned replies do not fit");
  }
  if (then == Then::kEnd) shutdown(otherEnd_, SHUT_WR);
  if (then == Then::kRefuseWrites) shutdown(otherEnd_, SHUT_RDWR);
}

CannedConnection::~CannedConnection() { close(otherEnd_); }

std::string CannedConnection::Received() {
  std::string all;
  char part[4096];
  for (ssize_t size = 0; (size = recv(otherEnd_, part, sizeof part, MSG_DONTWAIT)) > 0;) {
    all.append(part, static_cast<size_t>(size));
  }
  return all;
}

}  // namespace event_service
