#include "tests/support/redis_server.h"

#include <stdexcept>

#include "foundation/redis_commands.h"

namespace event_service {

RedisServer::RedisServer(const std::string& socketPath) : socketPath_(socketPath) {
  Start({"redis-server", "--port", "0", "--unixsocket", socketPath, "--save", "", "--loglevel", "warning"},
        "/dev/null");
  const auto answers = [this] {
    return SendCommand(RedisContext(redisConnectUnix(socketPath_.c_str())).get(), "PING") != nullptr;
  };
  if (!Eventually(answers)) throw std::runtime_error("redis-server does not answer at " + socketPath);
}

}  // namespace event_service
