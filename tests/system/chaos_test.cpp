/// Redis killed and started again under load, with each of the recoveries that "ListenerRecovery" names. It keeps an
/// append-only file, flushed before every answer: what it has answered outlives it.
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

/// How often Redis is killed: a few times, or as often as the environment asks for.
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
  explicit Client(std::vector<Watched> watched) : watched_(std::move(watched)) {}

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
    while (!isOver) {
      for (Watched& about : watched_) answered += Ask(about) ? 1 : 0;
    }
  }
  std::vector<Watched>& All() { return watched_; }

 private:
  std::vector<Watched> watched_;
  FrontEndLink link_{{.answer = std::chrono::seconds(2)}};
  int number_ = 0;
};

class Chaos : public DaemonTest {
 protected:
  void Begin(const std::string& recovery) {
    std::filesystem::create_directories(folder_);
    RestartServer(folder_);
    FillRedis();
    WriteFile(ProcessPaths().configuration,
              ReadFile(ProcessPaths().configuration) + "ListenerRecovery=" + recovery + "\n");
    ASSERT_TRUE(StartDaemon());
  }
  void TearDown() override {
    DaemonTest::TearDown();
    RestartServer();
    std::filesystem::remove_all(folder_);
  }

  /// Kills and restarts Redis under the load of three clients; `revive` is called while it is gone and when it is back.
  void KillRedisUnderLoad(const std::function<void(bool isBack)>& revive) {
    std::vector<Client> clients;
    clients.emplace_back(
        std::vector<Watched>{{kService, "DeliveryRetryAttempts", {Value(kService, "/DeliveryRetryAttempts")}}});
    for (const std::string name : {"First", "Second"}) {
      std::vector<Watched> members;
      for (const char* digit : {"1", "2", "3"})
        members.push_back({kCollection + "/" + name + "-0" + digit, "Context", {nullptr}});
      clients.emplace_back(members);
    }
    std::atomic<bool> isOver = false;
    std::atomic<int> answered = 0;
    std::vector<std::thread> threads;
    for (Client& client : clients) threads.emplace_back([&] { client.Run(isOver, answered); });
    std::mt19937 random(20260301);
    for (int round = 0; round < Rounds(); ++round) {
      const int before = answered;
      EXPECT_TRUE(Eventually([&] { return answered > before; })) << "nothing is answered in round " << round;
      std::this_thread::sleep_for(std::chrono::milliseconds(random() % 300));
      Server().Kill();
      revive(false);
      std::this_thread::sleep_for(std::chrono::milliseconds(random() % 300));
      RestartServer(folder_);
      revive(true);
    }
    isOver = true;
    for (std::thread& thread : threads) thread.join();
    // Everything is answered again, and what was answered is there, in the file as well.
    for (const bool isFromFile : {false, true}) {
      if (isFromFile) PowerCycle();
      for (Client& client : clients) {
        for (Watched& about : client.All()) {
          EXPECT_TRUE(isFromFile || Eventually([&] { return client.Ask(about); })) << about.uri;
          EXPECT_TRUE(about.possible.contains(Value(about.uri, "/" + about.property)))
              << about.uri << " holds " << Value(about.uri, "/" + about.property);
        }
      }
    }
  }
  size_t LinesWith(const std::string& text) {
    const std::string log = Log();
    size_t count = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++count;
    return count;
  }

  const std::string folder_ = Sandbox().Root() + "/redis-data";
};

TEST_F(Chaos, AServiceThatReconnectsLosesNothingAndAnswersAgain) {
  Begin("reconnect");
  KillRedisUnderLoad([&](bool isBack) { EXPECT_TRUE(isBack || daemon_.IsRunning()); });
}

TEST_F(Chaos, AServiceThatEndsIsStartedAnewAndLosesNothing) {
  Begin("exit");
  KillRedisUnderLoad([this](bool isBack) {
    if (isBack) return Launch();
    EXPECT_EQ(daemon_.ExitStatus(), 255);
    EXPECT_EQ(LinesWith("has lost Redis: the process ends."), 1U);
    Launch();
    EXPECT_EQ(daemon_.ExitStatus(), 255) << "a start without Redis";
  });
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
