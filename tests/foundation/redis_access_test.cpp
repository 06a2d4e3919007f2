#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "foundation/file_paths.h"
#include "foundation/redis_commands.h"
#include "foundation/redis_connection.h"
#include "foundation/redis_pipeline.h"
#include "tests/support/canned_replies.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_server.h"
#include "tests/support/redis_test.h"
#include "tests/support/trip_counter.h"

namespace event_service {
namespace {

using std::string_literals::operator""s;

class RedisCommandsTest : public RedisTest {};

TEST_F(RedisCommandsTest, RemovalsTakeTheFieldAndEveryElementOfTheValue) {
  EXPECT_TRUE(HashWriteQuoted(redis(), "hash", "quoted", "Event Service") && HashWrite(redis(), "hash", "gone", "x"));
  EXPECT_TRUE(HashFieldDelete(redis(), "hash", "gone"));
  EXPECT_TRUE(ListBatchAppend(redis(), "list", std::vector{"a"s, "b"s, "a"s}) && ListRemove(redis(), "list", "a"));
  EXPECT_EQ(Dump(), (DatabaseDump{{"hash", "{quoted=\"Event Service\"}"}, {"list", "[b]"}}));
}

/// A reply as Redis' own client would show it on one line.
std::string Shown(const redisReply* reply) {
  if (reply == nullptr) return "none";
  if (IsInteger(reply)) return std::to_string(reply->integer);
  if (reply->type == REDIS_REPLY_NIL) return "nil";
  if (!IsArray(reply)) {
    return (reply->str[reply->len] == '\0' ? "" : "unterminated ") + std::string(reply->str, reply->len);
  }
  std::string text = "[";
  for (size_t i = 0; i < reply->elements; ++i) text += (i > 0 ? " " : "") + Shown(reply->element[i]);
  return text + "]";
}

TEST(Replies, AreWhatTheServerSaidWhateverRoomTheyNeed) {
  const std::string large(5000, 'x');
  std::string list = "*2000\r\n";
  std::string shownList = "[0";
  for (int i = 0; i < 2000; ++i) list += ':' + std::to_string(i) + "\r\n";
  for (int i = 1; i < 2000; ++i) shownList += ' ' + std::to_string(i);
  const struct {
    std::string wire, shown;
  } rows[] = {
      {":0\r\n", "0"},
      {":31\r\n", "31"},
      {":32\r\n", "32"},
      {":-1\r\n", "-1"},
      {":9223372036854775807\r\n", "9223372036854775807"},
      {"$-1\r\n", "nil"},
      {"*-1\r\n", "nil"},
      {"*0\r\n", "[]"},
      {"$0\r\n\r\n", ""},
      {"$3\r\na\0b\r\n"s, "a\0b"s},
      {"-ERR no\r\n", "ERR no"},
      {"$5000\r\n" + large + "\r\n", large},
      {"*3\r\n$5000\r\n" + large + "\r\n*2\r\n$1\r\na\r\n*1\r\n:7\r\n$-1\r\n", "[" + large + " [a [7]] nil]"},
      {list, shownList + "]"},
      {"*2\r\n$1\r\na\r\n", "none"},                            // cut off
      {"*2\r\n*2\r\n$5000\r\n" + large + "\r\n?\r\n", "none"},  // no reply at all behind its beginning
  };
  for (const auto& row : rows) {
    CannedConnection server(row.wire);
    EXPECT_EQ(Shown(ReadReply(server.redis()).get()), row.shown) << row.wire.substr(0, 50);
  }
}

TEST_F(RedisCommandsTest, OfALimitedConnectionRepliesDoNotHoldMoreElementsThanTheyMay) {
  const auto list = [this](const char* nested) {
    return SendCommand(
        redis(), "EVAL %s 0",
        ("local t = {" + std::string(nested) + "} for i = 1, 32760 do t[#t + 1] = 'x' end return t").c_str());
  };
  LimitReplies(redis());
  const std::string refusal = "WRONGTYPE";
  EXPECT_EQ(Shown(list("1, 2, 3, 4, 5, 6, 7, 8, 9").get()), refusal);
  {
    const RedisReply held = list("{1, {2}}, 4, 5, 6");
    ASSERT_TRUE(IsArray(held)) << Shown(held.get());
    EXPECT_EQ(Shown(held->element[0]) + Shown(held->element[32763]), "[1 [2]]x");
    EXPECT_EQ(Shown(SendCommand(redis(), "EVAL %s 0", "return {7}").get()), "[7]");
    EXPECT_EQ(Shown(SendCommand(redis(), "EVAL %s 0", "return {{8, {9}, 'x', {}}}").get()), "[" + refusal + "]");
  }
  EXPECT_EQ(Shown(SendCommand(redis(), "EVAL %s 0", "return {{7}, {8, {9}, {}}}").get()), "[[7] [8 [9] []]]");
}

TEST(RedisCommandHelpers, OnlyAnIntegerIsASuccess) {
  for (const std::string reply : {":1\r\n", "+OK\r\n", "-ERR no\r\n", "$-1\r\n", "$1\r\na\r\n", ""}) {
    const bool isInteger = reply == ":1\r\n";
    CannedConnection server(reply + reply + reply + reply + reply + reply + reply);
    EXPECT_EQ(HashWrite(server.redis(), "k", "f", "v"), isInteger) << reply;
    EXPECT_EQ(HashFieldDelete(server.redis(), "k", "f"), isInteger) << reply;
    EXPECT_EQ(ListAppend(server.redis(), "k", "v"), isInteger) << reply;
    EXPECT_EQ(ListLength(server.redis(), "k"), isInteger ? 1 : -1) << reply;
    EXPECT_EQ(ListRemove(server.redis(), "k", "v"), isInteger) << reply;
    EXPECT_EQ(KeyExists(server.redis(), "k"), isInteger) << reply;
    EXPECT_EQ(KeyDelete(server.redis(), "k"), isInteger) << reply;
  }
}

TEST(HashBatch, ReadsEveryReplyWhateverWentWrong) {
  const HashBatch batch = {{"a", {{"1", "v"}}}, {"b", {{"1", "v"}, {"2", "v"}}}};
  const LogCapture log;
  CannedConnection server(":1\r\n-ERR no\r\n:1\r\n+PONG\r\n");
  EXPECT_FALSE(HashBatchWrite(server.redis(), batch));
  EXPECT_EQ(TextOf(SendCommand(server.redis(), "PING")), "PONG") << "the connection is out of step";
  CannedConnection lost(":1\r\n");
  EXPECT_FALSE(HashBatchWrite(lost.redis(), batch));
  EXPECT_EQ(log.Errors(), std::vector<std::string>{"Failed to get reply from database."}) << "of the lost one";
}

TEST_F(RedisCommandsTest, AnEscapedNameMatchesItselfOnly) {
  for (const std::string& name : {"a*"s, "a?"s, "[ab]"s, "a\\b"s, "[^a]"s, "a-b"s, "[a-c]"s, "a\0b"s, ""s}) {
    for (const std::string& key : {name, "a"s, "ab"s, "a\\"s, "b"s}) ASSERT_TRUE(HashWrite(redis(), key, "f", "v"));
    EXPECT_EQ(KeyListing(redis(), EscapeGlob(name)), std::vector<std::string>{name});
    ASSERT_TRUE(KeyDelete(redis(), name));
  }
}

TEST_F(RedisCommandsTest, AStepTakesTheRepliesToItsOwnCommandsOnceAndMaySendOthers) {
  RedisPipeline pipeline(redis());
  std::string taken;
  const auto take = [&taken](Replies replies) {
    for (const RedisReply& reply : replies) taken += TextOf(reply);
    taken += ' ';
  };
  for (const char* text : {"a", "b"}) pipeline.Append({"ECHO", text});
  pipeline.Then(take);
  pipeline.Then(take);  // a step that found nothing to ask
  pipeline.Ask({"ECHO", "c"}, [&](RedisReply& reply) {
    taken += TextOf(reply);
    pipeline.Append({"ECHO", "e"});
    pipeline.Then(take);
    pipeline.Execute();
  });
  pipeline.Append({"ECHO", "d"});  // nobody's
  EXPECT_TRUE(pipeline.Execute().size() == 4 && pipeline.Execute().empty());
  EXPECT_EQ(taken, "ab  ce ");
}

TEST_F(RedisCommandsTest, APipelineTakesOneRoundTripAndALostConnectionGivesNullRepliesFromThereOn) {
  TripCounter proxy(Server().SocketPath());
  const RedisContext redis = proxy.Connect();
  RedisPipeline pipeline(redis.get());
  for (size_t i = 0; i < 300; ++i) EXPECT_EQ(pipeline.Append({"RPUSH", "list", std::to_string(i)}), i);
  const std::vector<RedisReply> replies = pipeline.Execute();
  EXPECT_TRUE(replies.size() == 300 && AllIntegers(replies));
  EXPECT_EQ(proxy.trips(), 1U);
  EXPECT_EQ(ListLength(this->redis(), "list"), 300);

  proxy.Reset({.cutAfter = 1});
  for (const char* value : {"a", "b"}) pipeline.Append({"RPUSH", "other", value});
  const std::vector<RedisReply> cut = pipeline.Execute();
  EXPECT_TRUE(IsInteger(cut[0]) && !cut[1]);
  EXPECT_FALSE(AllIntegers(cut));
}

TEST_F(RedisCommandsTest, NeitherAnErrorNorAThrowingTakerLeavesTheConnectionOutOfStep) {
  RedisPipeline pipeline(redis());
  for (const char* command : {"ECHO", "no-such-command", "ECHO"}) pipeline.Append({command, "text"});
  const std::vector<RedisReply> replies = pipeline.Execute();
  EXPECT_EQ(TextOf(replies[0]), "text");
  EXPECT_EQ(replies[1]->type, REDIS_REPLY_ERROR);
  EXPECT_EQ(TextOf(replies[2]), "text");
  EXPECT_TRUE(pipeline.Execute().empty()) << "nothing is sent twice";

  for (int i = 0; i < 3; ++i) pipeline.Append({"ECHO", "text"});
  EXPECT_THROW(pipeline.Execute([](const RedisReply&) { throw std::runtime_error("thrown"); }), std::runtime_error);
  EXPECT_EQ(TextOf(SendCommand(redis(), "PING")), "PONG");
}

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
