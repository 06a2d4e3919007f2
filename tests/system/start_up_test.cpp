#include <algorithm>
#include <filesystem>

#include "tests/system/daemon_test.h"

namespace event_service {
namespace {

class StartUp : public DaemonTest {
 protected:
  /// Starts the daemon and gives the exit status of a start that must fail.
  std::optional<int> FailedStart() {
    daemon().Start(Sandbox().Root(), Sandbox().Root() + "/var/log/EventService.output");
    return daemon().WaitForExit();
  }
};

TEST_F(StartUp, ASecondStartLogsNoErrorAndOffersWhatWasDiscovered) {
  StartDaemon();  // the first finds no key file and says so
  PowerCycle();
  EXPECT_NE(Log().find("[Debug]: Event Service log is starting ...\n"), std::string::npos);
  EXPECT_EQ(Log().find("[Error]"), std::string::npos) << Log();
  EXPECT_EQ(Value(kCollection, "/Members"), Json::array());
  const Json types = Value(kService, "/ResourceTypes");
  EXPECT_NE(std::ranges::find(types, "EventDestination"), types.end());
  EXPECT_EQ(std::ranges::find(types, "odata-v4"), types.end());
}

TEST_F(StartUp, AFailedStartExitsWith255AndSaysWhy) {
  const struct {
    const char* what;
    void (*spoil)(const std::string& root);
    const char* logged;
  } cases[] = {
      {"no default data", [](const std::string& root) { std::filesystem::remove_all(root + "/usr/local/share"); },
       "[Error]: Failed to initialize db file by copying static data file.\n"},
      {"no Redis", [](const std::string&) { Server().Kill(); }, "[Error]: Failed to connect to Redis.\n"},
      {"no start-up map script",
       [](const std::string& root) { std::filesystem::remove(root + "/usr/bin/InitUriAndSubscriptionMap.lua"); },
       "[Error]: Failed to load subscription db file.\n"},
  };
  for (const auto& row : cases) {
    SetUp();
    row.spoil(Sandbox().Root());
    EXPECT_EQ(FailedStart(), 255) << row.what;
    EXPECT_NE(Log().find(row.logged), std::string::npos) << row.what << "\n" << Log();
  }
}

TEST_F(StartUp, ARedisThatGoesAwayUnderTheLoaderCostsNoSubscription) {
  StartDaemon();
  AskShort("POST", kCollection, R"({"Id": "A", "Destination": "https://collector/", "Protocol": "Redfish"})");
  daemon().Kill();
  const std::string loader = Sandbox().Paths().resourceLoader;
  std::filesystem::rename(loader, loader + ".real");
  WriteFile(loader, "#!/bin/sh\nkill -9 " + std::to_string(Server().Pid()) + "\nexit 1\n");
  std::filesystem::permissions(loader, std::filesystem::perms::owner_all);
  EXPECT_EQ(FailedStart(), 255);
  std::filesystem::rename(loader + ".real", loader);
  RestartServer();
  LoadPlatform();
  StartDaemon();
  EXPECT_EQ(Value(kCollection, "/Members/0/@odata.id"), std::string(kCollection) + "/A") << Log();
}

TEST(Program, RefusesARootThatAShellWouldHaveToQuote) {
  const SandboxRoot folder;
  Daemon daemon;
  daemon.Start(folder.Root() + "/with blank", folder.Root() + "/output");
  const std::optional<int> status = daemon.WaitForExit();
  ASSERT_TRUE(status);
  EXPECT_NE(*status, 0);
  EXPECT_NE(ReadFile(folder.Root() + "/output").find("EVENT_SERVICE_ROOT"), std::string::npos);
}

}  // namespace
}  // namespace event_service
