/// Every command of every kind of request, and of a start, fails once in each way. Whatever comes of it, a repetition
/// or a restart finds count, members, keys and file in agreement. The test command takes a sample;
/// EVENT_SERVICE_FAULTS=all takes every command with every fault.
#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "tests/support/log_capture.h"
#include "tests/support/trip_counter.h"
#include "tests/system/daemon_test.h"

namespace event_service {
namespace {

constexpr RedisFault kFaults[] = {RedisFault::kError, RedisFault::kNil, RedisFault::kWrongType, RedisFault::kCut,
                                  RedisFault::kLost};
const std::string kMember = kCollection + "/fault-member";
const std::string kMemberBody = R"({"Id": "fault-member", "Destination": "https://collector/", "Protocol": "Redfish",
    "Context": "before", "HttpHeaders": [{"A": "b"}, {"C": "d"}], "RegistryPrefixes": ["Base"],
    "OriginResources": [{"@odata.id": "/redfish/v1/Systems/1"}]})";
const std::string kSyslogAnswers = "&&/redfish/v1/EventDestination/SYSLOG_CREATEQ/fault-syslog";

using Texts = std::vector<std::string>;
const Texts kCreated = {"OK_RES Created", "FAILURE ResourceAlreadyExists"};
const Texts kPatched = {"OK_RES Success", "OK_RES"};

struct Kind {
  std::string name, method, uri;
  Texts answers;  // without a fault; the others are good for a repetition
  std::string body = "";
};
const Kind kKinds[] = {
    {"CreateMember", "POST", kCollection, kCreated, kMemberBody},
    {"CreateStream", "POST", kCollection, kCreated,
     R"({"Id": "fault-stream", "Destination": "redfish-sse://192.0.2.1:1", "Protocol": "Redfish"})"},
    {"CreateSyslog", "POST", kCollection, kCreated,
     R"({"Id": "fault-syslog", "Destination": "logs.example.com:6514", "Protocol": "SyslogTLS",
         "SyslogFilters": [{"LogFacilities": ["Daemon"], "LowestSeverity": "Warning"}]})"},
    {"PatchMember", "PATCH", kMember, kPatched, R"({"Context": "after", "HttpHeaders": [{"E": "f"}]})"},
    {"PatchService", "PATCH", kService, kPatched, R"({"DeliveryRetryAttempts": 9, "SMTP": {"Port": 26}})"},
    {"Delete", "DELETE", kMember, {"OK_EMPTY", "NOT_FOUND ResourceMissingAtURI"}},
    {"Resume", "POST", kMember + "/Actions/EventDestination.ResumeSubscription", kPatched},
    {"Get", "GET", kMember, {""}},
    {"TestEvent", "POST", kTestEvent, {"OK_RES"}, R"({"MessageId": "Base.1.12.Success"})"},
    {"UnknownMethod", "PUT", kCollection, {"NOT_ALLOWED MethodNotAllowed"}},
};

/// A fault of a kind's first command that begins like this: in every sample.
struct Point {
  std::string kind, command;
  RedisFault fault;
};
const Point kPoints[] = {
    {"PatchMember", "HSET " + kMember + " Context", RedisFault::kCut},
    {"PatchMember", "HSET " + kMember + " HttpHeaders ", RedisFault::kError},
    {"PatchMember", "HGET " + kCollection + " @odata.etag", RedisFault::kError},
    {"PatchService", "HGETALL " + kService, RedisFault::kWrongType},
    {"PatchService", "HSET " + kService + " DeliveryRetryAttempts", RedisFault::kCut},
    {"Delete", "HGETALL " + kMember, RedisFault::kWrongType},
    {"Delete", "HSET &&" + kService + "/Actions/", RedisFault::kError},
    {"Delete", "HDEL &&subs:", RedisFault::kError},
    {"Delete", "LREM ", RedisFault::kLost},
    {"Delete", "UNLINK " + kMember, RedisFault::kCut},
    {"Delete", "HSET " + kCollection + " Members@odata.count", RedisFault::kError},
    {"Get", "HGET " + kMember + " &&SensitiveData", RedisFault::kWrongType},
    {"TestEvent", "HGET redisSHAScripts enqueueEvent", RedisFault::kWrongType},
    {"UnknownMethod", "PUBLISH ", RedisFault::kError},
    {"Start", "RPUSH &&/redfish/v1/EventDestination/GETQ", RedisFault::kError},
};

/// Each command with each fault, in their order from 0 on.
RedisFaults FaultsOf(size_t number) {
  return {.failedCommand = 1 + number / std::size(kFaults), .fault = kFaults[number % std::size(kFaults)]};
}

/// Whether to run a case: in the test command one of so many, which is no multiple of the faults' number.
bool IsInSample(size_t number, size_t many) {
  return std::getenv("EVENT_SERVICE_FAULTS") != nullptr || (number + 1) % many == 0;
}

struct Outcome {
  std::string answer;
  size_t published = 0;
  bool hasEnded = false;  // the daemon
  Texts errors;
  Texts commands;
};

class FaultInjection : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    client_ = Connect();  // without one, answers are taken back
    ASSERT_TRUE(SendCommand(client_.get(), "PSUBSCRIBE *:*/CHANNEL"));
    Restart();
  }

  bool StartWith(const RedisFaults& faults) {
    daemon_.Kill();
    std::filesystem::remove(Sandbox().Root() + "/var/log/EventService.log");
    proxy_.Reset(faults);
    Sandbox().UseRedis(proxy_.SocketPath());
    return StartDaemon();
  }
  void Restart() { ASSERT_TRUE(StartWith({})) << Log(); }

  static Texts Errors(size_t from = 0) { return MessagesIn(Log().substr(from), "[Error]: "); }

  size_t TimesPublished(const StoredRequest& request) const {
    const std::string answer = "PUBLISH " + request.returnChannel + " " + request.responseKey;
    return static_cast<size_t>(std::ranges::count(proxy_.commands(), answer));
  }

  /// Sends a request under these faults, and another one behind it whose answer tells that it has been served.
  Outcome Send(const Kind& kind, const RedisFaults& faults = {}) {
    if (kind.body.find("Syslog") != std::string::npos) ListAppend(redis(), kSyslogAnswers, "OK");
    const size_t logged = Log().size();
    const std::string nextUri = kind.uri.starts_with(kCollection) ? kCollection : kService;
    const StoredRequest request = Store(kind.method, kind.uri, kind.body), next = Store("HEAD", nextUri);
    proxy_.Reset(faults);
    EXPECT_TRUE(AnnounceRequest(redis(), ChannelOf(kind.uri), request));
    AnnounceRequest(redis(), ChannelOf(nextUri), next);
    Outcome outcome;
    const bool isServed = Eventually([&] {
      outcome.hasEnded = !daemon_.IsRunning();
      return outcome.hasEnded || TimesPublished(next) > 0;
    });
    const Texts commands = proxy_.commands();
    EXPECT_TRUE(isServed) << "it hangs after " << commands.at(faults.failedCommand - 1) << " of " << commands.size();
    const auto isNext = [&](const std::string& command) { return command.find(next.requestKey) != std::string::npos; };
    outcome.commands = Texts(commands.begin(), std::ranges::find_if(commands, isNext));
    outcome.answer = InShort(ReadAnswer(redis(), request));
    outcome.published = TimesPublished(request);
    outcome.errors = Errors(logged);
    proxy_.Reset();
    for (const StoredRequest& sent : {request, next}) RemoveRequest(redis(), sent);
    KeyDelete(redis(), kSyslogAnswers);
    return outcome;
  }

  /// Members, keys and file before a request.
  void Prepare(const Kind& kind) {
    if (kind.uri == kService) AskShort("PATCH", kService, R"({"DeliveryRetryAttempts": 3, "SMTP": {"Port": 25}})");
    if (!kind.uri.starts_with(kMember)) return;
    AskShort("POST", kCollection, kMemberBody);  // unless it is there
    if (kind.uri != kMember) {
      StoredRequest suspension = Store("PATCH", kMember, R"({"Status": {"State": "Disabled"}})");
      suspension.responseKey = "FROM_EVENTING";
      AnnounceRequest(redis(), ChannelOf(kMember), suspension);
    }
    AskShort("PATCH", kMember, R"({"Context": "before", "HttpHeaders": [{"A": "b"}, {"C": "d"}]})");
  }

  void RemoveMembers() {
    for (const std::string& uri : ListedUris()) EXPECT_EQ(AskShort("DELETE", uri), "OK_EMPTY");
    EXPECT_EQ(Disagreement(), "");
  }

  /// Answered once or, with a line, not at all; after a lost connection the process ends. One failure has one line, and
  /// a failure without a line has left nothing half done.
  void ExpectClear(const Kind& kind, const Outcome& outcome, const RedisFaults& faults) {
    const auto lines = [&](const char* beginning) {
      return std::ranges::count_if(outcome.errors,
                                   [&](const std::string& line) { return line.starts_with(beginning); });
    };
    const bool isSilent = outcome.errors.empty();
    EXPECT_LE(outcome.published, 1U);
    EXPECT_TRUE(outcome.published == 1 || !isSilent) << "neither an answer nor a line";
    EXPECT_TRUE(!outcome.answer.starts_with("EXCEPTION") || !isSilent) << "no line";
    EXPECT_EQ(outcome.hasEnded, faults.fault >= RedisFault::kCut);
    EXPECT_FALSE(kind.method == "PATCH" && lines("DatabaseOperationError: Failed to update ") > 0 &&
                 lines("Failed to increase") > 0);
    if (outcome.hasEnded) return;
    EXPECT_LE(lines("") - lines("The life cycle event for "), 1);
    EXPECT_TRUE(!outcome.answer.empty() || kind.answers[0].empty() || !isSilent) << "an empty answer";
    // Nil may be an answer.
    EXPECT_EQ(isSilent && faults.fault != RedisFault::kNil ? Disagreement() : "", "");
  }

  /// Whether what has been acknowledged is there.
  bool IsInForce(const Kind& kind) {
    const Json body = kind.body.empty() ? Json() : Json::parse(kind.body);
    if (kind.uri == kCollection && kind.method == "POST") {
      return ListedUris().contains(kCollection + "/" + body["Id"].get<std::string>());
    }
    if (kind.method == "DELETE") return !ListedUris().contains(kMember);
    if (kind.name == "Resume") return Value(kMember, "/Status/State") == "Enabled";
    return kind.method != "PATCH" || std::ranges::all_of(body.items(), [&](const auto& item) {
             return item.value().is_structured() || Value(kind.uri, "/" + item.key()) == item.value();
           });
  }

  void RunOne(const Kind& kind, const RedisFaults& faults) {
    Prepare(kind);
    const Outcome outcome = Send(kind, faults);
    SCOPED_TRACE(outcome.answer + testing::PrintToString(outcome.errors));
    ExpectClear(kind, outcome, faults);
    if (outcome.hasEnded) {
      EXPECT_EQ(daemon_.ExitStatus(), 0);
      Restart();
      EXPECT_EQ(Disagreement(), "");
    }
    const Outcome again = Send(kind);
    EXPECT_EQ(again.published, 1U);
    EXPECT_GT(std::ranges::count(kind.answers, again.answer), 0) << again.answer << " to the repetition";
    if (!Disagreement().empty()) Restart();
    EXPECT_EQ(Disagreement(), "");
    EXPECT_TRUE(IsInForce(kind)) << again.answer << " to the repetition";
    if (kind.uri == kCollection) RemoveMembers();
  }

  TripCounter proxy_{Server().SocketPath()};

 private:
  RedisContext client_;
};

class RequestFaultInjection : public FaultInjection, public testing::WithParamInterface<size_t> {};

TEST_P(RequestFaultInjection, IsAnsweredOnceOrNotAndLeavesNothingHalfDone) {
  const Kind& kind = kKinds[GetParam()];
  fileHasEtag_ = kind.name != "CreateStream";
  Texts usual;
  for (int time = 1; time <= 2; ++time) {  // the first one also reads what is read once
    Prepare(kind);
    const Outcome outcome = Send(kind);
    EXPECT_EQ(outcome.answer, kind.answers[0]);
    usual = outcome.commands;
    RemoveMembers();
  }
  Prepare(kind);
  std::vector<Point> points(std::begin(kPoints), std::end(kPoints));
  std::erase_if(points, [&](const Point& point) { return point.kind != kind.name; });
  for (size_t number = 0; number < usual.size() * std::size(kFaults) && !HasFailure(); ++number) {
    const RedisFaults faults = FaultsOf(number);
    const std::string& failed = usual[faults.failedCommand - 1];
    SCOPED_TRACE("case " + std::to_string(number) + ": " + failed);
    const bool isKnown = std::erase_if(points, [&](const Point& point) {
                           return point.fault == faults.fault && failed.starts_with(point.command);
                         }) > 0;
    if (IsInSample(number + 7 * GetParam(), 41) || isKnown) RunOne(kind, faults);
  }
  EXPECT_TRUE(HasFailure() || points.empty()) << "there is no " << points.front().command;
}

INSTANTIATE_TEST_SUITE_P(Each, RequestFaultInjection, testing::Range(size_t{0}, std::size(kKinds)),
                         [](const auto& parameter) { return kKinds[parameter.param].name; });

TEST_F(FaultInjection, AStartWithAnyFaultServesOrSaysWhyAndLeavesNothingHalfDone) {
  const std::string body = R"({"Id": "fault-member", "Destination": "https://collector/", "Protocol": "Redfish"})";
  EXPECT_EQ(AskShort("POST", kCollection, body), kCreated[0]);
  const auto startAnew = [this](const RedisFaults& faults) {
    daemon_.Kill();
    Sandbox().UseRedis(Server().SocketPath());
    FillRedis();
    return StartWith(faults);
  };
  EXPECT_TRUE(startAnew({}));
  const DatabaseDump usual = Dump();
  const Texts usualCommands = proxy_.commands();
  bool isHit = true;
  for (size_t number = 0; isHit && !HasFailure(); ++number) {
    const RedisFaults faults = FaultsOf(number);
    const bool isKnown = std::ranges::any_of(kPoints, [&](const Point& point) {
      return point.kind == "Start" && point.fault == faults.fault && faults.failedCommand <= usualCommands.size() &&
             usualCommands[faults.failedCommand - 1].starts_with(point.command);
    });
    // A loader that is cut off is tried again after a second.
    if (!IsInSample(number, 83) && !isKnown) continue;
    const bool serves = startAnew(faults);
    const Texts commands = proxy_.commands();
    isHit = commands.size() >= faults.failedCommand;
    const std::string failed = isHit ? commands[faults.failedCommand - 1] : "";
    SCOPED_TRACE("case " + std::to_string(number) + ": " + failed + testing::PrintToString(Errors()));
    if (!serves) {
      const int status = daemon_.ExitStatus();
      EXPECT_TRUE(status == 255 || (status == 0 && faults.fault >= RedisFault::kCut)) << status;
      EXPECT_FALSE(Errors().empty());
      Restart();
    }
    // Nil may be an answer. A registry that cannot be read adds nothing, and what these commands are answered is not
    // looked at.
    const bool isUnseen = failed.starts_with("EVAL ") || failed.starts_with("RPUSH &&" + kService + "/R") ||
                          failed.starts_with("HGET /redfish/v1/schemas/registries/");
    const bool isSilent = serves && Errors().empty() && faults.fault != RedisFault::kNil;
    EXPECT_EQ(isSilent && !isUnseen ? Json::diff(usual, Dump()) : Json::array(), Json::array());
    if (isUnseen) Restart();
    EXPECT_EQ(ListedUris(), std::set<std::string>{kMember});
    EXPECT_EQ(Disagreement(), "");
  }
}

TEST_F(FaultInjection, TheServiceIsReadyWhenBothListenersHearAndAHangUpDoesNotEndIt) {
  const Texts commands = proxy_.commands();
  const auto ready = std::ranges::find(commands, "SREM &&AccessBlockList EventService");
  const auto subscribes = [](const std::string& command) { return command.starts_with("SUBSCRIBE "); };
  EXPECT_NE(ready, commands.end());
  EXPECT_EQ(std::count_if(commands.begin(), ready, subscribes), 2);
  kill(daemon_.Pid(), SIGHUP);
  EXPECT_EQ(AskShort("GET", kService), "NOT_ALLOWED MethodNotAllowed");
  EXPECT_EQ(AskShort("HEAD", kCollection + "/12345678"), "");
}

}  // namespace
}  // namespace event_service
