#include "foundation/redis_connection.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <sstream>

#include "foundation/file_paths.h"
#include "tests/support/canned_replies.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_server.h"

namespace event_service {
namespace {

/// Writes the settings, without a file where one is null, and makes the folder's paths those of the process.
void Use(const SandboxRoot& folder, const char* port, const char* socket, const char* password) {
  if (port != nullptr) WriteFile(folder.RedisDirectory() + "/redis.port", port);
  if (socket != nullptr) WriteFile(folder.RedisDirectory() + "/redis.unixsocket", socket);
  if (password != nullptr) WriteFile(folder.RedisDirectory() + "/redis.requirepass", password);
  SetProcessPaths(folder.Paths());
}

TEST(ConnectionLookup, DecidesByPortAndSocket) {
  const struct {
    const char* port;
    const char* socket;
    const char* password;
    const char* found;  // type, port, socket path, password; empty: nothing
  } cases[] = {
      {"0", "/s", "", "1 0 /s "},
      {"6380", "/s", "", "1 0 /s "},
      {"6379", nullptr, "", "2 6379  "},
      {"6379", "", "", "2 6379  "},
      {"6380", nullptr, "", ""},
      {"0", nullptr, "", "1 0  "},
      {"\n", "/s", "", "1 0 /s "},
      {nullptr, "/s", "", ""},
      {" 0", "/s", "", ""},
      {"-1", "/s", "", ""},
      {"63x", "/s", "", ""},
      {"99999999999999999999999", "/s", "", ""},
      {"0", "/s", nullptr, "1 0 /s "},
      {"0", "/s", "two words\nsecond\n", "1 0 /s two words\n"},
  };
  for (const auto& row : cases) {
    const SandboxRoot folder;
    Use(folder, row.port, row.socket, row.password);
    const std::string& server = folder.Paths().redisConfiguration;
    WriteFile(server, "# unixsocket /a/b\nunixsocketperm 700\n" + ReadFile(server) + "unixsocket /c/d\n");
    const StreamCapture error(STDERR_FILENO);
    const std::unique_ptr<RedisConnectionInfo, void (*)(void*)> info(getRedisConnectionInfo(), std::free);
    std::ostringstream found;
    if (info) found << info->connectionType << ' ' << info->port << ' ' << info->socketPath << ' ' << info->password;
    EXPECT_EQ(found.str(), row.found) << (row.port ? row.port : "no port") << ", "
                                      << (row.socket ? row.socket : "no socket");
  }
}

TEST(RedisAuthentication, SucceedsOnlyWithTheStatusOk) {
  for (const std::string reply : {"+OK\r\n", "+OKAY\r\n", "-WRONGPASS no\r\n", "$2\r\nOK\r\n", "$-1\r\n", ""}) {
    CannedConnection server(reply);
    EXPECT_EQ(redisAuthentication(server.redis(), "two words"), reply == "+OK\r\n" ? 0 : 1) << reply;
  }
}

TEST(RedisConnection, IsAuthenticatedAndLeftToNoChild) {
  for (const std::string password : {"pass word", "wrong"}) {
    const SandboxRoot folder;
    Use(folder, "0", folder.RedisSocket().c_str(), password.c_str());
    const RedisServer server(folder.RedisSocket());
    const RedisContext configuring(redisConnectUnix(folder.RedisSocket().c_str()));
    SendArguments(configuring.get(), {"CONFIG", "SET", "requirepass", "pass word"});
    const RedisContext redis(redisConnectContext());
    ASSERT_EQ(redis != nullptr, password == "pass word");
    EXPECT_TRUE(!redis || TextOf(SendCommand(redis.get(), "PING")) == "PONG");
    EXPECT_TRUE(!redis || fcntl(redis->fd, F_GETFD) == FD_CLOEXEC);
  }
  RedisConnectionInfo info{};
  for (info.connectionType = 0; info.connectionType < 4; ++info.connectionType) {
    EXPECT_EQ(connectToRedis(&info, 0), nullptr) << "without path or port, type " << info.connectionType;
  }
  EXPECT_EQ(connectToRedis(nullptr, 0), nullptr);
  EXPECT_EQ(redisDisconnectContext(nullptr), 1);
}

}  // namespace
}  // namespace event_service
