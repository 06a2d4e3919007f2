#include "foundation/service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <string_view>

namespace event_service {

bool TellServiceManagerReady() {
  constexpr std::string_view kReady = "READY=1";
  const char* socketName = std::getenv("NOTIFY_SOCKET");
  if (socketName == nullptr) return true;
  const std::string_view name = socketName;
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (name.empty() || name.size() >= sizeof address.sun_path) {
    errno = EINVAL;
    return false;
  }
  name.copy(address.sun_path, name.size());
  if (name.front() == '@') address.sun_path[0] = '\0';  // a name outside of the file system
  const int file = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (file < 0) return false;
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  const ssize_t sent =
      sendto(file, kReady.data(), kReady.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address), length);
  const int error = errno;
  close(file);
  errno = error;
  return sent >= 0;
}

}  // namespace event_service
