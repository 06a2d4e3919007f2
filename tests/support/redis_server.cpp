#include "tests/support/redis_server.h"

#include <stdexcept>

#include "foundation/redis_commands.h"

namespace event_service {

RedisServer::RedisServer(const std::string& socketPath, const std::string& dataFolder) : socketPath_(socketPath) {
  std::vector<std::string> words = {"redis-server", "--port", "0",          "--unixsocket", socketPath,
                                    "--save",       "",       "--loglevel", "warning"};
  if (!dataFolder.empty()) {
    words.insert(words.end(), {"--dir", dataFolder, "--appendonly", "yes", "--appendfsync", "always"});
  }
  Start(words, "/dev/null");
  const auto answers = [this] {
    return TextOf(SendCommand(RedisContext(redisConnectUnix(socketPath_.c_str())).get(), "PING")) == "PONG";
  };
  if (!Eventually(answers)) throw std::runtime_error("redis-server does not answer at " + socketPath);
}

}  // namespace event_service
