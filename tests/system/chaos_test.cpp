/// Redis or the daemon killed and started again under load, Redis with each of the recoveries that "ListenerRecovery"
/// names. It keeps an append-only file, flushed before every answer: what it has answered outlives it.
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <set>
#include <thread>

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
};

/// A client that creates, changes and deletes, and compares each answer with those it got before.
class Client {
 public:
  Client(std::vector<Watched> watched, const FrontEndPatience& patience)
      : watched_(std::move(watched)), link_(patience) {}

  /// One request. True when it was answered.
  bool Ask(Watched& about) {
    const Json value = ++number_;
    const bool creates = about.possible == std::set<Json>{nullptr};
    const bool deletes = !creates && about.uri != kService && number_ % 7 == 0;
    FrontEndRequest request{.method = creates   ? "POSTCREATE"
                                      : deletes ? "DELETE"
                                                : "PATCH",
                            .targetUri = creates ? kCollection : about.uri,
                            .body = std::nullopt};
    const Json written = about.uri == kService ? value : Json(value.dump());
    if (!deletes) request.body = Json{{about.property, written}};
    if (creates) {
      request.body->update({{"Id", about.uri.substr(kCollection.size() + 1)},
                            {"Protocol", "Redfish"},
                            {"Destination", "https://collector/"}});
    }
    const std::optional<FrontEndAnswer> answer = link_.Send(request, ChannelOf(request.targetUri));
    const std::string status = answer ? InShort(*answer) : "";
    const Json after = deletes ? Json() : written;
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
    for (size_t next = 0; !isOver; ++next) answered += Ask(watched_[next % watched_.size()]) ? 1 : 0;
  }
  std::vector<Watched>& All() { return watched_; }

 private:
  std::vector<Watched> watched_;
  FrontEndLink link_;
  int number_ = 0;
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
    std::vector<Client> clients;
    clients.emplace_back(
        std::vector<Watched>{{kService, "DeliveryRetryAttempts", {Value(kService, "/DeliveryRetryAttempts")}}},
        patience);
    for (const std::string name : {"First", "Second"}) {
      std::vector<Watched> members;
      for (const char* digit : {"1", "2", "3"})
        members.push_back({kCollection + "/" + name + "-0" + digit, "Context", {nullptr}});
      clients.emplace_back(members, patience);
    }
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
      for (Watched& about : client.All()) {
        const Json value = Value(about.uri, "/" + about.property);
        EXPECT_TRUE(about.possible.contains(value)) << about.uri << " holds " << value;
        about.possible = {value};
      }
    }
    EXPECT_EQ(Disagreement(), "");
  }

  /// Kills and restarts Redis under load; `revive` is called while it is gone and when it is back.
  void KillRedisUnderLoad(const std::function<void(bool isBack)>& revive) {
    std::vector<Client> clients = MakeClients({.answer = std::chrono::seconds(2)});
    Load(clients, [&](const std::atomic<int>& answered) {
      for (int round = 0; round < Rounds(); ++round) {
        const int before = answered;
        EXPECT_TRUE(Eventually([&] { return answered > before; })) << "nothing is answered in round " << round;
        Pause(300);
        Server().Kill();
        revive(false);
        Pause(300);
        RestartServer(folder_);
        revive(true);
      }
    });
    for (Client& client : clients) {
      for (Watched& about : client.All()) EXPECT_TRUE(Eventually([&] { return client.Ask(about); })) << about.uri;
    }
    Check(clients);
    PowerCycle();
    Check(clients);
  }
  size_t LinesWith(const std::string& text) {
    const std::string log = Log();
    size_t count = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++count;
    return count;
  }

  /// With a recovery that ends the process, which is started anew.
  void KillRedisAndRestartTheDaemon(const std::string& recovery, int exitStatus, size_t lines) {
    Begin(recovery);
    KillRedisUnderLoad([=, this](bool isBack) {
      if (isBack) return Launch();
      EXPECT_EQ(daemon_.ExitStatus(), exitStatus);
      EXPECT_EQ(LinesWith("has lost Redis: the process ends."), lines);
      Launch();
      EXPECT_EQ(daemon_.ExitStatus(), 255) << "a start without Redis";
    });
  }

  std::mt19937 random_{20260301};
  const std::string folder_ = Sandbox().Root() + "/redis-data";
  const std::string fresh_ = Sandbox().Root() + "/redis-data-fresh";
};

TEST_F(Chaos, AServiceThatReconnectsLosesNothingAndAnswersAgain) {
  Begin("reconnect");
  KillRedisUnderLoad([&](bool isBack) { EXPECT_TRUE(isBack || daemon_.IsRunning()); });
}

TEST_F(Chaos, AServiceThatReconnectsToAnEmptyRedisHasEverythingFromItsFiles) {
  Begin("reconnect");
  KillRedisUnderLoad([&](bool isBack) {
    EXPECT_TRUE(isBack || daemon_.IsRunning());
    if (!isBack) LoseData();
  });
}

TEST_F(Chaos, AServiceThatEndsIsStartedAnewAndLosesNothing) { KillRedisAndRestartTheDaemon("exit", 255, 1); }

TEST_F(Chaos, AServiceWithoutARecoveryEndsWithItsListenersAndLosesNothing) { KillRedisAndRestartTheDaemon("", 0, 0); }

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
