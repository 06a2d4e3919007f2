/// Redis or the daemon killed and started again under load, Redis with each of the recoveries that "ListenerRecovery"
/// names. It keeps an append-only file, flushed before every answer: what it has answered outlives it.
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <set>
#include <thread>

#include "tests/support/log_capture.h"
#include "tests/system/daemon_test.h"
#include "tools/front_end/front_end_link.h"

namespace event_service {
namespace {

/// How often they are killed: a few times, or as often as the environment asks for.
int Rounds() {
  const char* text = std::getenv("EVENT_SERVICE_CHAOS");
  return text != nullptr ? std::atoi(text) : 5;
}

/// A property that one client changes and what it may hold, as far as answers tell. Null: the member does not exist.
struct Watched {
  std::string uri, property;
  std::set<Json> possible;
  Json creation = {};  // the body of the member's creation
};

/// A client that creates, changes and deletes, and compares each answer with those it got before.
struct Client {
  std::vector<Watched> all;
  FrontEndLink link;
  int number = 0;

  /// One request. True when it was answered.
  bool Ask(Watched& about) {
    const Json value = ++number;
    const bool creates = about.possible == std::set<Json>{nullptr};
    const bool deletes = !creates && about.uri != kService && number % 3 == 0;
    const Json after = deletes ? Json() : about.uri == kService ? value : Json(value.dump());
    FrontEndRequest request{.method = "PATCH", .targetUri = about.uri, .body = Json{{about.property, after}}};
    if (deletes) request = {.method = "DELETE", .targetUri = about.uri, .body = {}};
    if (creates) {
      request.body->update(about.creation);
      request = {.method = "POSTCREATE", .targetUri = kCollection, .body = request.body};
    }
    const std::optional<FrontEndAnswer> answer = link.Send(request, ChannelOf(request.targetUri));
    const std::string status = answer ? InShort(*answer) : "";
    if (status.empty() || status.starts_with("EXCEPTION")) {
      about.possible.insert(after);
    } else if (status.starts_with("OK_")) {
      EXPECT_TRUE(creates || about.possible != std::set<Json>{nullptr}) << about.uri;
      about.possible = {after};
    } else {
      EXPECT_TRUE(status.starts_with("NOT_FOUND") && about.possible.contains(nullptr)) << about.uri << ": " << status;
      about.possible = {nullptr};
    }
    return !status.empty();
  }
  void Run(const std::atomic<bool>& isOver, std::atomic<int>& answered) {
    for (size_t next = 0; !isOver; ++next) answered += Ask(all[next % all.size()]) ? 1 : 0;
  }
};

/// What becomes of a daemon whose Redis is killed.
struct Recovery {
  std::string setting;
  std::optional<int> exitStatus = {};  // none: it goes on, and is not started anew
  size_t lines = 0;                    // that announce its end
  bool losesData = false;              // Redis comes back as after a start of the board
};

class Chaos : public DaemonTest {
 protected:
  void Begin(const std::string& recovery) {
    std::filesystem::create_directories(folder_);
    RestartServer(folder_);
    FillRedis();
    std::filesystem::remove_all(fresh_);
    std::filesystem::copy(folder_, fresh_, std::filesystem::copy_options::recursive);
    WriteFile(ProcessPaths().configuration,
              ReadFile(ProcessPaths().configuration) + "ListenerRecovery=" + recovery + "\n");
    ASSERT_TRUE(StartDaemon());
  }
  void TearDown() override {
    DaemonTest::TearDown();
    RestartServer();
    for (const std::string& folder : {folder_, fresh_}) std::filesystem::remove_all(folder);
  }

  /// Puts what the board's other services have filled Redis with in the place of what Redis has kept.
  void LoseData() {
    std::filesystem::remove_all(folder_);
    std::filesystem::copy(fresh_, folder_, std::filesystem::copy_options::recursive);
  }

  std::vector<Client> MakeClients(const FrontEndPatience& patience) {
    // Once the file holds the property, a start goes by it; before, a change that was not acknowledged stays until
    // Redis is lost.
    EXPECT_EQ(AskShort("PATCH", kService, R"({"DeliveryRetryAttempts": 1})"), "OK_RES Success");
    std::vector<Watched> service = {{kService, "DeliveryRetryAttempts", {1}}}, members[2];
    for (Json body : kEveryKind) {
      if (body["Protocol"].get<std::string>().starts_with("Syslog")) continue;  // needs a forwarder that answers
      body.erase("Context");
      body["Id"] = "life-of-" + body["Id"].get<std::string>();  // short ones cannot be deleted
      const std::string uri = kCollection + "/" + body["Id"].get<std::string>();
      members[members[0].size() > members[1].size()].push_back({uri, "Context", {nullptr}, body});
    }
    std::vector<Client> clients;
    for (const auto& all : {service, members[0], members[1]}) clients.push_back({all, FrontEndLink(patience)});
    return clients;
  }

  /// Runs the clients while that happens. `answered` counts what they get.
  static void Load(std::vector<Client>& clients, const std::function<void(const std::atomic<int>& answered)>& happens) {
    std::atomic<bool> isOver = false;
    std::atomic<int> answered = 0;
    std::vector<std::thread> threads;
    for (Client& client : clients) threads.emplace_back([&] { client.Run(isOver, answered); });
    happens(answered);
    isOver = true;
    for (std::thread& thread : threads) thread.join();
  }

  void Pause(int most) {
    std::this_thread::sleep_for(std::chrono::milliseconds(static_cast<int>(random_() % static_cast<unsigned>(most))));
  }

  /// What was answered is there, and nothing half.
  void Check(std::vector<Client>& clients) {
    for (Client& client : clients) {
      for (Watched& about : client.all) {
        const Json value = Value(about.uri, "/" + about.property);
        EXPECT_TRUE(about.possible.contains(value)) << about.uri << " holds " << value;
        about.possible = {value};
      }
    }
    EXPECT_EQ(Disagreement(), "");
  }

  /// Kills and restarts Redis under load.
  void KillRedisUnderLoad(const Recovery& recovery) {
    Begin(recovery.setting);
    std::vector<Client> clients = MakeClients({.answer = std::chrono::seconds(2)});
    Load(clients, [&](const std::atomic<int>& answered) {
      for (int round = 0; round < Rounds(); ++round) {
        const int before = answered;
        EXPECT_TRUE(Eventually([&] { return answered > before; })) << "nothing is answered in round " << round;
        Pause(150);
        Server().Kill();
        if (recovery.exitStatus) {
          EXPECT_EQ(daemon_.ExitStatus(), recovery.exitStatus);
          EXPECT_EQ(MessagesIn(Log(), "has lost Redis: the process ends.").size(), recovery.lines);
          Launch();
          EXPECT_EQ(daemon_.ExitStatus(), 255) << "a start without Redis";
        }
        if (recovery.losesData) LoseData();
        Pause(150);
        RestartServer(folder_);
        if (recovery.exitStatus) Launch();
      }
    });
    for (Client& client : clients) {
      for (Watched& about : client.all) EXPECT_TRUE(Eventually([&] { return client.Ask(about); })) << about.uri;
    }
    Check(clients);
    PowerCycle();
    Check(clients);
  }

  std::mt19937 random_{20260301};
  const std::string folder_ = Sandbox().Root() + "/redis-data";
  const std::string fresh_ = Sandbox().Root() + "/redis-data-fresh";
};

TEST_F(Chaos, AServiceThatReconnectsLosesNothingAndAnswersAgain) { KillRedisUnderLoad({"reconnect"}); }

TEST_F(Chaos, AServiceThatReconnectsToAnEmptyRedisHasEverythingFromItsFiles) {
  KillRedisUnderLoad({.setting = "reconnect", .losesData = true});
}

TEST_F(Chaos, AServiceThatEndsIsStartedAnewAndLosesNothing) { KillRedisUnderLoad({"exit", 255, 1}); }

TEST_F(Chaos, AServiceWithoutARecoveryEndsWithItsListenersAndLosesNothing) { KillRedisUnderLoad({"", 0, 0}); }

TEST_F(Chaos, ADaemonThatIsKilledAtAnyMomentLosesNothingAndLeavesNothingHalfDone) {
  ASSERT_TRUE(StartDaemon());
  std::vector<Client> clients =
      MakeClients({.listener = std::chrono::milliseconds(50), .answer = std::chrono::milliseconds(500)});
  for (int round = 0; round < Rounds() && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    Load(clients, [&](const std::atomic<int>&) {
      Pause(100);
      daemon_.Kill();
    });
    const bool losesRedis = random_() % 2 == 0;
    if (losesRedis) FillRedis();
    for (auto starts = random_() % 3; starts > 0; --starts) {
      Launch();
      Pause(60);
      daemon_.Kill();
    }
    ASSERT_TRUE(StartDaemon());
    Check(clients);
  }
}

TEST_F(Chaos, ALostCommandConnectionCountsAsLost) {
  for (const std::string recovery : {"exit", "reconnect"}) {
    Begin(recovery);
    ASSERT_TRUE(SendCommand(redis(), "CLIENT KILL TYPE normal SKIPME yes"));
    if (recovery == "exit") {
      EXPECT_EQ(daemon_.ExitStatus(), 255);
    } else {
      EXPECT_EQ(AskShort("HEAD", kCollection + "/12345678"), "");
    }
    daemon_.Kill();
  }
}

}  // namespace
}  // namespace event_service
