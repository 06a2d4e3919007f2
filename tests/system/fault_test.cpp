/// What the outside can do to the daemon: a board that lacks something, nonsense, keys of the wrong type, Redis or the
/// daemon gone.
#include <signal.h>

#include <filesystem>

#include "tests/system/daemon_test.h"

namespace event_service {
namespace {

class Faults : public DaemonTest {
 protected:
  void ExpectItServes() {
    EXPECT_EQ(AskShort("GET", kService),
              "NOT_ALLOWED ExtendedError.1.2.MethodNotAllowed(/redfish/v1/EventService, GET)");
    EXPECT_EQ(AskShort("HEAD", kCollection + "/12345678"), "");
  }
};

TEST_F(Faults, AFailedStartExitsWith255AndSaysWhy) {
  const struct {
    std::string missing;
    const char* said;
  } cases[] = {
      {"/usr/local/share", "[Error]: Failed to initialize db file by copying static data file.\n"},
      {"/usr/bin/InitUriAndSubscriptionMap.lua", "[Error]: Failed to load subscription db file.\n"},
      {"/run/redis/redis.unixsocket", "[Error]: Failed to connect to Redis.\n"},
  };
  for (const auto& row : cases) {
    SetUp();
    std::filesystem::remove_all(Sandbox().Root() + row.missing);
    Launch();
    EXPECT_EQ(daemon_.ExitStatus(), 255) << row.missing;
    EXPECT_NE(Log().find(row.said), std::string::npos) << row.missing << "\n" << Log();
  }
  const std::string output = Sandbox().Root() + "/output";
  daemon_.Start({"env", "EVENT_SERVICE_ROOT=/with blank", ProgramPath("EventService")}, output);
  EXPECT_EQ(daemon_.ExitStatus(), 255);
  EXPECT_NE(ReadFile(output).find("EVENT_SERVICE_ROOT is refused"), std::string::npos);
}

TEST_F(Faults, NoPathHoldsUpTheStart) {
  const FilePaths& paths = Sandbox().Paths();
  const std::string database = paths.databaseFile, plain = paths.plainDatabaseFile,
                    properties = paths.persistentProperties;
  const struct {
    std::string path;
    bool serves = true;
  } cases[] = {
      {paths.configuration},
      {paths.redisConfiguration, false},
      {Sandbox().RedisDirectory() + "/redis.port", false},
      {Sandbox().RedisDirectory() + "/redis.unixsocket", false},
      {database, false},
      {database + ".aside"},
      {plain},
      {paths.passwordFile, false},
      {paths.passwordFile + ".new"},
      {paths.defaultDatabaseFile, false},
      {properties},
      {properties + ".new"},
      {paths.generatedDestinations},
      {paths.startUpMapScript, false},
      {paths.resourceLoader, false},
      {Sandbox().Root() + "/var/log/EventService.log"},
  };
  for (const auto& row : cases) {
    Sandbox().Clear();
    SetUp();
    Obstruct(row.path, "fifo", Sandbox().Root() + "/victim");
    EXPECT_EQ(StartDaemon(), row.serves) << row.path << Log();
    daemon_.Kill();
    std::filesystem::remove(row.path);
  }
}

TEST_F(Faults, TheServiceIsReadyWhenBothListenersHearAndAHangUpDoesNotEndIt) {
  const RedisContext monitor = Connect();
  ASSERT_TRUE(SendCommand(monitor.get(), "MONITOR"));
  ASSERT_TRUE(StartDaemon());
  int subscriptions = 0;
  for (std::string command; monitor->err == 0 && command.find("\"SREM\"") == std::string::npos;) {
    command = TextOf(ReadReply(monitor.get()));
    if (command.find("\"SUBSCRIBE\"") != std::string::npos) ++subscriptions;
  }
  EXPECT_EQ(subscriptions, 2);
  kill(daemon_.Pid(), SIGHUP);
  ExpectItServes();
}

TEST_F(Faults, KeysThatHoldGarbageAreAnswered) {
  ASSERT_TRUE(StartDaemon());
  const std::string service = R"({"DeliveryRetryAttempts": 9, "SMTP": {"Port": 26}})";
  const std::string event = R"({"MessageId": "Base.1.12.Success"})";
  const struct {
    std::string key, method, uri, body;
  } cases[] = {
      {kService, "PATCH", kService, service},
      {kService, "POST", kTestEvent, event},
      {"&&" + kService + "/SMTP", "PATCH", kService, service},
      {"redisSHAScripts", "POST", kTestEvent, event},
      {"redisSHAScripts", "PATCH", kService, service},
      {"webDefaultValue", "POST", kTestEvent, event},
      {"Array-Member-Sequence-ID", "POST", kTestEvent, event},
      {kCollection, "PATCH", kCollection, R"({"Context": "x"})"},
  };
  for (const auto& row : cases) {
    SendArguments(redis(), {"RENAME", row.key, "saved"});
    ASSERT_TRUE(IsInteger(SendArguments(redis(), {"SADD", row.key, "a set"})));
    EXPECT_NE(AskShort(row.method, row.uri, row.body), "") << row.key;
    ASSERT_TRUE(KeyDelete(redis(), row.key));
    SendArguments(redis(), {"RENAME", "saved", row.key});
  }
  const RedisContext client = Connect();  // without one, answers are taken back
  ASSERT_TRUE(SendCommand(client.get(), "PSUBSCRIBE *"));
  // The body's own: a chain of arrays that is deeper than any body may be, one that never ends, and no values at all.
  for (int level = 0; level < 5000; ++level) {
    ListAppend(redis(), "chain" + std::to_string(level), "&&Array chain" + std::to_string(level + 1));
  }
  ListAppend(redis(), "circle", "&&Array circle");
  for (const std::string garbage :
       {"", "{", "\"open", "&&Object MessageId", "&&Array MessageId /redfish/v1/EventService", "\xff\xfe",
        "&&Array MessageId chain0", "&&Array MessageId circle"}) {
    const FrontEndRequest request{.method = "POSTACTION", .targetUri = kTestEvent, .body = Json{{"MessageId", "x"}}};
    const std::optional<StoredRequest> stored = StoreRequest(redis(), request);
    ASSERT_TRUE(stored && HashWrite(redis(), stored->requestKey + "/RequestData", "MessageId", garbage));
    ASSERT_TRUE(AnnounceRequest(redis(), ChannelOf(kTestEvent), *stored));
    AskShort("GET", kService);  // answered after it
    const std::string status = ReadAnswer(redis(), *stored).status;
    EXPECT_TRUE(status == "FAILURE" || status == "EXCEPTION") << garbage << ": " << status;
  }
  ExpectItServes();
}

TEST_F(Faults, ACipherToolThatOutlivesItsDaemonIsWaitedFor) {
  const std::string tool = Sandbox().Root() + "/usr/bin/openssl";
  // Slow where it encrypts, and says when it has begun: the database file is a part by then.
  WriteFile(tool,
            "#!/bin/sh\ncase $2 in -d) ;; *) : >\"${0%/*}/begun\"; sleep 1 ;; esac\nexec /usr/bin/openssl \"$@\"\n");
  std::filesystem::permissions(tool, std::filesystem::perms::owner_all);
  ASSERT_TRUE(StartDaemon());
  std::filesystem::remove(Sandbox().Root() + "/usr/bin/begun");
  Announce("POST", kCollection, R"({"Id": "A", "Destination": "https://collector/", "Protocol": "Redfish"})");
  ASSERT_TRUE(Eventually([] { return std::filesystem::exists(Sandbox().Root() + "/usr/bin/begun"); }));
  PowerCycle();
  EXPECT_EQ(Value(kCollection, "/Members/0/@odata.id"), kCollection + "/A") << Log();
  Server().Kill();
  EXPECT_EQ(daemon_.ExitStatus(), 0) << "Redis gone while nothing is asked";
}

}  // namespace
}  // namespace event_service
