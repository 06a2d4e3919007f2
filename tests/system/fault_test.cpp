/// What the outside can do to the daemon: a board that lacks something, something else in its place, the daemon or
/// Redis gone.
#include <filesystem>

#include "tests/system/daemon_test.h"

namespace event_service {
namespace {

using Faults = DaemonTest;

TEST_F(Faults, APathThatIsMissingOrBlockedHoldsUpNoStartAndAFailureIsToldWithStatus255) {
  const std::string root = Sandbox().Root(), redis = Sandbox().RedisDirectory();
  const FilePaths& paths = Sandbox().Paths();
  const std::string anyLine = "[Error]: ";
  const struct {
    std::string path;
    std::string said = "";  // empty: it serves
    std::string instead = "fifo";
  } cases[] = {
      {root + "/usr/local/share", "[Error]: Failed to initialize db file by copying static data file.\n", "nothing"},
      {root + "/usr/bin/InitUriAndSubscriptionMap.lua", "[Error]: Failed to load subscription db file.\n", "nothing"},
      {redis + "/redis.unixsocket", "[Error]: Failed to connect to Redis.\n", "nothing"},
      {paths.configuration},
      {paths.redisConfiguration, anyLine},
      {redis + "/redis.port", anyLine},
      {redis + "/redis.unixsocket", anyLine},
      {paths.defaultDatabaseFile, anyLine},
      {paths.persistentProperties},
      {paths.generatedDestinations},
      {paths.startUpMapScript, anyLine},
      {paths.resourceLoader, anyLine},
      {root + "/var/log/EventService.log"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.path);
    Sandbox().Clear();
    SetUp();
    Obstruct(row.path, row.instead, root + "/victim");
    EXPECT_EQ(StartDaemon(), row.said.empty());
    EXPECT_TRUE(row.said.empty() || daemon_.ExitStatus() == 255);
    EXPECT_NE(Log().find(row.said), std::string::npos) << Log();
    daemon_.Kill();
    std::filesystem::remove(row.path);
  }
  daemon_.Start({"env", "EVENT_SERVICE_ROOT=/with blank", ProgramPath("EventService")}, root + "/output");
  EXPECT_EQ(daemon_.ExitStatus(), 255);
  EXPECT_NE(Output().find("EVENT_SERVICE_ROOT is refused"), std::string::npos);
}

TEST_F(Faults, ACipherToolThatOutlivesItsDaemonIsWaitedFor) {
  const std::string tool = Sandbox().Root() + "/usr/bin/openssl", slow = tool + ".slow", begun = tool + ".begun";
  // Slow where it is told to be, and says when it has begun to encrypt: the database file is a part by then.
  WriteFile(tool,
            "#!/bin/sh\nif [ -e \"$0.slow\" ] && [ \"$2\" != -d ]; then : >\"$0.begun\"; sleep 1; : >\"$0.ended\"; fi\n"
            "exec /usr/bin/openssl \"$@\"\n");
  std::filesystem::permissions(tool, std::filesystem::perms::owner_all);
  ASSERT_TRUE(StartDaemon());
  WriteFile(slow, "");
  AnnounceRequest(redis(), ChannelOf(kCollection), Store("POST", kCollection, kEveryKind[0].dump()));
  ASSERT_TRUE(Eventually([&] { return std::filesystem::exists(begun); }));
  std::filesystem::remove(slow);
  PowerCycle();
  EXPECT_TRUE(std::filesystem::exists(tool + ".ended")) << "it serves before the file is whole";
  EXPECT_EQ(ListedUris().size(), 1U) << Log();
  Server().Kill();
  EXPECT_EQ(daemon_.ExitStatus(), 0) << "Redis gone while nothing is asked";
}

}  // namespace
}  // namespace event_service
