/// What the outside can do to the daemon: nonsense, nobody listening, keys of the wrong type, Redis or the daemon gone.
#include <chrono>
#include <random>
#include <thread>

#include "tests/system/daemon_test.h"

namespace event_service {
namespace {

constexpr const char* kChannels[] = {"&&/redfish/v1/EventService/CHANNEL",
                                     "&&/redfish/v1/EventService/Subscriptions/CHANNEL"};

class Faults : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    StartDaemon();
  }

  void ExpectItServes() {
    EXPECT_EQ(AskShort("GET", kService),
              "NOT_ALLOWED ExtendedError.1.2.MethodNotAllowed(/redfish/v1/EventService, GET)");
    EXPECT_EQ(AskShort("HEAD", std::string(kCollection) + "/12345678"), "");
  }

  /// Puts `text` into "redisSHAScripts" as the script of this name.
  void ReplaceScript(const char* name, const char* text) {
    const RedisReply digest = SendArguments(redis(), {"SCRIPT", "LOAD", text});
    ASSERT_TRUE(IsString(digest));
    ASSERT_TRUE(HashWrite(redis(), "redisSHAScripts", name, TextOf(digest)));
  }

  std::optional<StoredRequest> Announce(const std::string& method, const std::string& uri, const std::string& body) {
    FrontEndRequest request{.method = RecordMethod(method, uri), .targetUri = uri, .body = Json::parse(body)};
    const std::optional<StoredRequest> stored = StoreRequest(redis(), request);
    EXPECT_TRUE(stored && AnnounceRequest(redis(), ChannelOf(uri), *stored));
    return stored;
  }
};

size_t Count(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

TEST_F(Faults, AnnouncementsOfAnyBytesAndLengthsDoNoHarm) {
  std::mt19937 random(20240229);
  const size_t lengths[] = {0, 1, 2, 64, 1000, 1 << 20, 8 << 20};
  size_t withoutBlank = 0;
  for (const char* channel : kChannels) {
    for (const size_t length : lengths) {
      for (const bool withBlank : {false, true}) {
        std::string noise(length, '\0');
        for (char& byte : noise) byte = static_cast<char>(random());
        for (char& byte : noise) {
          if (byte == ' ') byte = '\t';
        }
        if (withBlank) noise.insert(noise.size() / 2, 1, ' ');
        withoutBlank += !withBlank;
        ASSERT_TRUE(IsInteger(SendArguments(redis(), {"PUBLISH", channel, noise})));
      }
    }
    for (const char* text : {" ", "a ", " a", "%s%n %s", "&&/redfish/v1/EventService &&/redfish/v1/EventService"}) {
      ASSERT_TRUE(IsInteger(SendArguments(redis(), {"PUBLISH", channel, text})));
    }
  }
  ExpectItServes();
  EXPECT_GE(Count(Log(), "[Error]: Request data format is incorrect.\n"), withoutBlank);
}

TEST_F(Faults, StoredGarbageInABodyIsAnswered) {
  // A chain of arrays that is deeper than any body may be.
  for (int level = 0; level < 5000; ++level) {
    ListAppend(redis(), "chain" + std::to_string(level), "&&Array chain" + std::to_string(level + 1));
  }
  ListAppend(redis(), "circle", "&&Array circle");
  for (const char* garbage : {"", "{", "\"open", "&&Object MessageId", "&&Array MessageId /redfish/v1/EventService",
                              "&&Array MessageId &&Array-Member-Sequence-ID", "\xff\xfe", "&&Array MessageId chain0",
                              "&&Array MessageId circle"}) {
    FrontEndRequest request{.method = "POSTACTION", .targetUri = kTestEvent, .body = Json{{"MessageId", "x"}}};
    const std::optional<StoredRequest> stored = StoreRequest(redis(), request);
    ASSERT_TRUE(stored);
    ASSERT_TRUE(HashWrite(redis(), stored->requestKey + "/RequestData", "MessageId", garbage));
    const RedisContext listener = Connect();
    ASSERT_TRUE(SendArguments(listener.get(), {"SUBSCRIBE", stored->returnChannel}));
    ASSERT_TRUE(AnnounceRequest(redis(), ChannelOf(kTestEvent), *stored));
    void* reply = nullptr;
    ASSERT_EQ(redisGetReply(listener.get(), &reply), REDIS_OK);
    freeReplyObject(reply);
    const std::string answer = InShort(ReadAnswer(redis(), *stored));
    EXPECT_TRUE(answer.starts_with("FAILURE ") || answer.starts_with("EXCEPTION ")) << garbage << ": " << answer;
    RemoveRequest(redis(), *stored);
  }
  ExpectItServes();
}

TEST_F(Faults, KeysOfTheWrongTypeAreAnswered) {
  const struct {
    const char* key;
    const char* method;
    const char* uri;
    const char* body;
  } cases[] = {
      {"/redfish/v1/EventService", "PATCH", kService, R"({"DeliveryRetryAttempts": 9})"},
      {"/redfish/v1/EventService", "POST", kTestEvent, R"({"MessageId": "Base.1.12.Success"})"},
      {"&&/redfish/v1/EventService/SMTP", "PATCH", kService, R"({"SMTP": {"Port": 26}})"},
      {"redisSHAScripts", "POST", kTestEvent, R"({"MessageId": "Base.1.12.Success"})"},
      {"redisSHAScripts", "PATCH", kService, R"({"DeliveryRetryAttempts": 10})"},
      {"webDefaultValue", "POST", kTestEvent, R"({"MessageId": "Base.1.12.Success"})"},
      {"Array-Member-Sequence-ID", "POST", kTestEvent, R"({"MessageId": "Base.1.12.Success"})"},
      {"/redfish/v1/EventService/Subscriptions", "PATCH", kCollection, R"({"Context": "x"})"},
  };
  for (const auto& row : cases) {
    const std::string saved = std::string(row.key) + ".saved";
    SendArguments(redis(), {"RENAME", row.key, saved});
    ASSERT_TRUE(IsInteger(SendArguments(redis(), {"SADD", row.key, "a set"})));
    EXPECT_FALSE(AskShort(row.method, row.uri, row.body).empty()) << row.key;
    ASSERT_TRUE(KeyDelete(redis(), row.key));
    SendArguments(redis(), {"RENAME", saved, row.key});
  }
  ExpectItServes();
}

TEST_F(Faults, RedisGoneWhileIdleEndsTheProcessWithZero) {
  Server().Kill();
  EXPECT_EQ(daemon().WaitForExit(), 0);
}

TEST_F(Faults, RedisGoneDuringARequestEndsTheProcessWithZero) {
  // The script keeps Redis, and with it the daemon's request, for longer than the test lives.
  ReplaceScript("enqueueEvent", "redis.call('SET', 'entered', '1') while true do end");
  const RedisContext announcer = Connect();
  ASSERT_TRUE(Announce("POST", kTestEvent, R"({"MessageId": "Base.1.12.Success"})"));
  // Redis answers nothing more once the script runs; a command that gets no answer in time says so.
  ASSERT_TRUE(LimitWaiting(announcer.get(), std::chrono::milliseconds(200)));
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (SendCommand(announcer.get(), "PING") && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  Server().Kill();
  EXPECT_EQ(daemon().WaitForExit(), 0);
  EXPECT_EQ(Count(Log(), "[Error]: EVALSHA command failed\n"), 1U) << Log();
}

TEST_F(Faults, RedisGoneBetweenManyRequestsEndsTheProcessWithZero) {
  for (int i = 0; i < 200; ++i) {
    ASSERT_TRUE(Announce("PATCH", kService, R"({"DeliveryRetryAttempts": )" + std::to_string(i) + "}"));
  }
  Server().Kill();
  EXPECT_EQ(daemon().WaitForExit(), 0);
}

TEST_F(Faults, AKilledDaemonComesBackWithWhatWasAcknowledged) {
  for (int round = 1; round <= 3; ++round) {
    ASSERT_EQ(AskShort("PATCH", kService, R"({"DeliveryRetryAttempts": )" + std::to_string(round) + "}"),
              "OK_RES Base.1.12.Success()");
    Announce("PATCH", kService, R"({"DeliveryRetryIntervalSeconds": 5})");
    PowerCycle();
    EXPECT_EQ(Value(kService, "/DeliveryRetryAttempts"), round);
  }
}

}  // namespace
}  // namespace event_service
