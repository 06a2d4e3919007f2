#include "foundation/redis_connection.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <optional>

#include "foundation/file_paths.h"
#include "tests/support/canned_replies.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"

namespace event_service {
namespace {

struct Free {
  void operator()(void* memory) const { std::free(memory); }
};
using CText = std::unique_ptr<char, Free>;
using Info = std::unique_ptr<RedisConnectionInfo, Free>;

void WriteSettings(const SandboxRoot& sandbox, const char* port, const char* socket, const char* password) {
  if (port != nullptr) sandbox.WriteRedisSetting("port", port);
  if (socket != nullptr) sandbox.WriteRedisSetting("unixsocket", socket);
  if (password != nullptr) sandbox.WriteRedisSetting("requirepass", password);
}

TEST(ConnectionLookup, DecidesByPortAndSocket) {
  struct Expected {
    int32_t type;
    int32_t port;
    std::string socketPath;
    std::string password = "";
  };
  const struct {
    const char* port;  // null: no such file
    const char* socket;
    const char* password;
    std::optional<Expected> expected;
  } cases[] = {
      {"0", "/s", "", Expected{1, 0, "/s"}},
      {"6379", "/s", "", Expected{1, 0, "/s"}},
      {"6380", "/s", "", Expected{1, 0, "/s"}},
      {"6379", nullptr, "", Expected{2, 6379, ""}},
      {"6379", "", "", Expected{2, 6379, ""}},
      {"6380", nullptr, "", std::nullopt},
      {"0", nullptr, "", Expected{1, 0, ""}},
      {"\n", "/s", "", Expected{1, 0, "/s"}},
      {nullptr, "/s", "", std::nullopt},
      {" 0", "/s", "", std::nullopt},
      {"-1", "/s", "", std::nullopt},
      {"63x", "/s", "", std::nullopt},
      {"99999999999999999999999", "/s", "", std::nullopt},
      {"0", "/s\n", "", Expected{1, 0, "/s\n"}},
      {"0", "/s", nullptr, Expected{1, 0, "/s"}},
      {"0", "/s", "two words", Expected{1, 0, "/s", "two words"}},
      {"0", "/s", "first\nsecond\n", Expected{1, 0, "/s", "first\n"}},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(testing::Message() << "port " << (row.port ? row.port : "none") << ", socket "
                                    << (row.socket ? row.socket : "none"));
    const SandboxRoot sandbox;
    WriteSettings(sandbox, row.port, row.socket, row.password);
    SetProcessPaths(sandbox.Paths());
    const StreamCapture error(STDERR_FILENO);
    const Info info(getRedisConnectionInfo());
    ASSERT_EQ(info != nullptr, row.expected.has_value());
    if (!info) continue;
    EXPECT_EQ(info->connectionType, row.expected->type);
    EXPECT_EQ(info->port, row.expected->port);
    EXPECT_EQ(info->socketPath, row.expected->socketPath);
    EXPECT_EQ(info->password, row.expected->password);
    EXPECT_EQ(info->host, nullptr);
  }
  SetProcessPaths({});
}

TEST(ConnectionLookup, TakesTheFirstSocketLineOfTheServersConfiguration) {
  const SandboxRoot sandbox;
  SetProcessPaths(sandbox.Paths());
  WriteSettings(sandbox, "0", "/s", nullptr);
  const StreamCapture error(STDERR_FILENO);
  WriteFile(sandbox.Paths().redisConfiguration, "# unixsocket /a/b\nunixsocketperm 700\n");
  EXPECT_EQ(getRedisConnectionInfo(), nullptr) << "without the line the setting files are looked for in /";
  WriteFile(sandbox.Paths().redisConfiguration,
            "# unixsocket /a/b\nunixsocketperm 700\nunixsocket   " + sandbox.RedisSocket() + "  \nunixsocket /a/b\n");
  EXPECT_NE(Info(getRedisConnectionInfo()), nullptr);
  SetProcessPaths({});
}

TEST(RedisConfiguration, IsTheFirstLineAsItStands) {
  const SandboxRoot sandbox;
  const std::string folder = sandbox.RedisDirectory();
  const StreamCapture error(STDERR_FILENO);

  WriteSettings(sandbox, nullptr, nullptr, " a b \nsecond\n");
  EXPECT_STREQ(CText(getRedisConfiguration("requirepass", folder.c_str())).get(), " a b \n");
  sandbox.WriteRedisSetting("long", std::string(5000, 'x'));
  EXPECT_EQ(CText(getRedisConfiguration("long", folder.c_str())).get(), std::string(1023, 'x'));
  sandbox.WriteRedisSetting("empty", "");
  EXPECT_EQ(getRedisConfiguration("empty", folder.c_str()), nullptr);
  EXPECT_EQ(getRedisConfiguration(nullptr, folder.c_str()), nullptr);
  EXPECT_EQ(error.Text(), "");

  EXPECT_EQ(getRedisConfiguration(std::string(1023 - folder.size(), 'k').c_str(), folder.c_str()), nullptr);
  EXPECT_EQ(error.Text(), "fopen: File name too long\n");
  EXPECT_EQ(getRedisConfiguration(std::string(1024 - folder.size(), 'k').c_str(), folder.c_str()), nullptr);
  EXPECT_EQ(error.Text(), "fopen: File name too long\n") << "with 1024 characters it is not even tried";
}

class RedisConnectionTest : public RedisTest {};

TEST_F(RedisConnectionTest, ConnectsToASocketAndLeavesItToNoChild) {
  EXPECT_EQ(TextOf(SendCommand(redis(), "PING")), "PONG");
  EXPECT_EQ(fcntl(redis()->fd, F_GETFD), FD_CLOEXEC);

  RedisConnectionInfo info{};
  EXPECT_EQ(connectToRedis(nullptr, 0), nullptr);
  for (const int32_t type : {0, 1, 3}) {
    info.connectionType = type;
    EXPECT_EQ(connectToRedis(&info, 0), nullptr) << "type " << type << " without a path";
  }
  (Sandbox().RedisSocket() + ".missing").copy(info.socketPath, sizeof info.socketPath - 1);
  info.connectionType = kRedisConnectionUnixSocket;
  EXPECT_EQ(connectToRedis(&info, 0), nullptr);
  EXPECT_EQ(redisDisconnectContext(nullptr), 1);
  EXPECT_EQ(redisDisconnectContext(Connect().release()), 0);
}

TEST(RedisAuthentication, SucceedsOnlyWithTheStatusOk) {
  const struct {
    const char* reply;
    int result;
  } cases[] = {{"+OK\r\n", 0},      {"+OKAY\r\n", 1}, {"+ok\r\n", 1}, {"-WRONGPASS no\r\n", 1},
               {"$2\r\nOK\r\n", 1}, {":0\r\n", 1},    {"$-1\r\n", 1}, {"", 1}};
  for (const auto& row : cases) {
    CannedConnection server(row.reply);
    EXPECT_EQ(redisAuthentication(server.redis(), "two words"), row.result) << row.reply;
    EXPECT_EQ(server.Received(), "*2\r\n$4\r\nAUTH\r\n$9\r\ntwo words\r\n");
    EXPECT_EQ(redisAuthentication(server.redis(), nullptr), 1);
  }
  EXPECT_EQ(redisAuthentication(nullptr, "secret"), 1);
}

TEST(RedisPassword, IsSentWhenTheSettingHoldsOne) {
  const struct {
    const char* password;
    bool connects;
  } cases[] = {{"pass word", true}, {"wrong", false}};
  for (const auto& row : cases) {
    const SandboxRoot sandbox;
    WriteSettings(sandbox, "0", sandbox.RedisSocket().c_str(), row.password);
    const RedisServer server(sandbox.RedisSocket(), {"--requirepass", "pass word"});
    SetProcessPaths(sandbox.Paths());
    const RedisContext redis(redisConnectContext());
    ASSERT_EQ(redis != nullptr, row.connects) << row.password;
    if (redis) {
      EXPECT_EQ(TextOf(SendCommand(redis.get(), "PING")), "PONG");
    }
  }
  SetProcessPaths({});
}

}  // namespace
}  // namespace event_service
