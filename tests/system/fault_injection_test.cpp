/// Every command of every kind of request, and of a start, fails once in each way. Whatever comes of it, a repetition
/// or a restart finds count, members, keys and file in agreement. The test command takes a sample;
/// EVENT_SERVICE_FAULTS=all takes every command with every fault.
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <set>

#include "resource_store/resource_editor.h"
#include "resource_store/resource_reader.h"
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
  std::string method, uri, body;
  Texts answers;  // without a fault; the others are good for a repetition
};
const Kind kKinds[] = {
    {"POST", kCollection, kMemberBody, kCreated},
    {"POST", kCollection,
     R"({"Id": "fault-stream", "Destination": "redfish-sse://192.0.2.1:1", "Protocol": "Redfish"})", kCreated},
    {"POST", kCollection, R"({"Id": "fault-syslog", "Destination": "logs.example.com:6514", "Protocol": "SyslogTLS",
         "SyslogFilters": [{"LogFacilities": ["Daemon"], "LowestSeverity": "Warning"}]})",
     kCreated},
    {"PATCH", kMember, R"({"Context": "after", "HttpHeaders": [{"E": "f"}]})", kPatched},
    {"PATCH", kService, R"({"DeliveryRetryAttempts": 9, "SMTP": {"Port": 26}})", kPatched},
    {"DELETE", kMember, "", {"OK_EMPTY", "NOT_FOUND ResourceMissingAtURI"}},
    {"GET", kMember, "", {""}},
    {"POST", kTestEvent, R"({"MessageId": "Base.1.12.Success"})", {"OK_RES"}},
    {"PUT", kCollection, "", {"NOT_ALLOWED MethodNotAllowed"}},
};

/// The status and the names of the messages.
std::string NamesIn(const FrontEndAnswer& answer) {
  std::string text = answer.status;
  for (const FrontEndMessage& message : answer.messages) text += " " + message.id.substr(message.id.rfind('.') + 1);
  return text;
}

struct Outcome {
  std::string answer;
  size_t published = 0;
  bool hasEnded = false;  // the daemon
  std::string errors;
  size_t commands = 0;
};

class FaultInjection : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    client_ = Connect();  // without one, answers are taken back
    ASSERT_TRUE(SendCommand(client_.get(), "PSUBSCRIBE *:*/CHANNEL"));
    Restart();
  }

  /// Whether to run the next case: in the test command one of so many, which is no multiple of the faults' number.
  bool IsInSample(size_t many) { return std::getenv("EVENT_SERVICE_FAULTS") != nullptr || ++cases_ % many == 0; }

  bool StartWith(const RedisFaults& faults) {
    daemon_.Kill();
    std::filesystem::remove(Sandbox().Root() + "/var/log/EventService.log");
    SendCommand(redis(), "SADD &&AccessBlockList EventService");
    proxy_.Reset(faults);
    Sandbox().UseRedis(proxy_.SocketPath());
    return StartDaemon();
  }
  void Restart() { ASSERT_TRUE(StartWith({})) << Log(); }

  static std::string Errors(size_t from = 0) {
    std::string errors;
    for (const std::string& line : MessagesIn(Log().substr(from), "[Error]: ")) errors += line + '\n';
    return errors;
  }

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
    outcome.commands = static_cast<size_t>(std::ranges::find_if(commands, isNext) - commands.begin());
    outcome.answer = NamesIn(ReadAnswer(redis(), request));
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
    if (kind.uri == kMember && !KeyExists(redis(), kMember)) {
      EXPECT_EQ(NamesIn(Ask("POST", kCollection, kMemberBody)), kCreated[0]);
    } else if (kind.uri == kMember) {
      AskShort("PATCH", kMember, R"({"Context": "before", "HttpHeaders": [{"A": "b"}, {"C": "d"}]})");
    }
  }

  static Json MembersInFile() {
    Json members = Json::object();
    const Json file = Json::parse(DecryptedDatabase(Sandbox().Paths()));
    for (const Json& member : file.at("Members")) members[member.value("@odata.id", "")] = member;
    return members;
  }

  /// The URIs that the collection's list names; "twice" when one stands there twice.
  std::set<std::string> ListedUris() {
    std::set<std::string> uris;
    const RedisReply entries = SendArguments(redis(), {"LRANGE", MembersKey(kCollection), "0", "-1"});
    for (const std::string_view entry : TextsOf(entries)) {
      if (!uris.emplace(MemberUriOf(entry)).second) uris.insert("twice");
    }
    return uris;
  }

  /// A key that belongs to no listed member.
  std::string StrayKey(const std::set<std::string>& uris) {
    for (const std::string& key : KeyListing(redis(), "*" + kCollection + "/*")) {
      const std::string_view rest = std::string_view(key).substr(key.find(kCollection) + kCollection.size() + 1);
      const std::string_view id = rest.substr(0, rest.find('/'));
      const bool isOfMember = key.starts_with(kCollection) || id.size() < rest.size();
      if (isOfMember && !uris.contains(kCollection + "/" + std::string(id))) return key;
    }
    for (const std::string& key : KeyListing(redis(), "&&subs:*")) {
      const RedisReply fields = SendArguments(redis(), {"HKEYS", key});
      for (const std::string_view field : TextsOf(fields)) {
        if (field.starts_with(kCollection) && !uris.contains(std::string(field))) return key;
      }
    }
    return {};
  }

  /// What does not agree among list, count, keys and file; empty when all does.
  std::string Disagreement() {
    const std::set<std::string> uris = ListedUris();
    if (HashRead(redis(), kCollection, "Members@odata.count") != std::to_string(uris.size())) return "the count";
    Json file = MembersInFile();
    for (const std::string& uri : uris) {
      Json stored;
      if (!ReadResource(redis(), uri, stored, {.withControlFields = true})) return "unreadable: " + uri;
      if (stored["SubscriptionType"] == "SSE") continue;
      if (const Json difference = Json::diff(stored, file[uri]); !difference.empty()) return uri + difference.dump();
      file.erase(uri);
    }
    return file.empty() ? StrayKey(uris) : "in the file alone: " + file.dump();
  }

  void RemoveMembers() {
    for (const std::string& uri : ListedUris()) EXPECT_EQ(AskShort("DELETE", uri), "OK_EMPTY");
    EXPECT_EQ(Disagreement(), "");
  }

  /// Answered once or, with a line, not at all; after a lost connection the process ends.
  void ExpectClear(const Outcome& outcome, RedisFault fault) {
    EXPECT_LE(outcome.published, 1U);
    EXPECT_TRUE(outcome.published == 1 || !outcome.errors.empty()) << "neither an answer nor a line";
    EXPECT_TRUE(!outcome.answer.starts_with("EXCEPTION") || !outcome.errors.empty()) << "no line";
    EXPECT_EQ(outcome.hasEnded, fault >= RedisFault::kCut) << outcome.errors;
  }

  void RunOne(const Kind& kind, const RedisFaults& faults) {
    Prepare(kind);
    const Outcome outcome = Send(kind, faults);
    ExpectClear(outcome, faults.fault);
    if (outcome.hasEnded) {
      EXPECT_EQ(daemon_.ExitStatus(), 0);
      Restart();
      EXPECT_EQ(Disagreement(), "") << outcome.answer << "\n" << outcome.errors << Errors();
    }
    const Outcome again = Send(kind);
    EXPECT_EQ(again.published, 1U);
    EXPECT_GT(std::ranges::count(kind.answers, again.answer), 0) << again.answer << " to the repetition";
    if (!Disagreement().empty()) Restart();
    EXPECT_EQ(Disagreement(), "") << outcome.answer << "\n" << outcome.errors;
    if (kind.uri == kCollection) RemoveMembers();
  }

  TripCounter proxy_{Server().SocketPath()};

 private:
  RedisContext client_;
  size_t cases_ = 0;
};

std::string InShort(const RedisFaults& faults) {
  return "command " + std::to_string(faults.failedCommand) + ", fault " +
         std::to_string(static_cast<int>(faults.fault));
}

TEST_F(FaultInjection, ARequestWithAnyFaultIsAnsweredOnceOrNotAndLeavesNothingHalfDone) {
  for (const Kind& kind : kKinds) {
    SCOPED_TRACE(kind.method + " " + kind.uri + " " + kind.body.substr(0, 24));
    Prepare(kind);
    EXPECT_EQ(Send(kind).answer, kind.answers[0]);
    RemoveMembers();
    Prepare(kind);
    Prepare(kind);                     // a member is made, and then set back as before each case
    const Outcome usual = Send(kind);  // the first one also reads what is read once
    RemoveMembers();
    for (size_t n = 1; n <= usual.commands && !HasFailure(); ++n) {
      for (const RedisFault fault : kFaults) {
        const RedisFaults faults = {.failedCommand = n, .fault = fault};
        SCOPED_TRACE(InShort(faults));
        if (IsInSample(41)) RunOne(kind, faults);
      }
    }
    RemoveMembers();
  }
}

TEST_F(FaultInjection, AStartWithAnyFaultServesOrSaysWhyAndLeavesNothingHalfDone) {
  const std::string body = R"({"Id": "fault-member", "Destination": "https://collector/", "Protocol": "Redfish"})";
  EXPECT_EQ(NamesIn(Ask("POST", kCollection, body)), kCreated[0]);
  bool isHit = true;
  for (RedisFaults faults{.failedCommand = 1}; isHit && !HasFailure(); ++faults.failedCommand) {
    for (const RedisFault fault : kFaults) {
      if (!IsInSample(83)) continue;  // a loader that is cut off is tried again after a second
      faults.fault = fault;
      SCOPED_TRACE(InShort(faults));
      daemon_.Kill();
      Sandbox().UseRedis(Server().SocketPath());
      FillRedis();
      const bool serves = StartWith(faults);
      isHit = proxy_.commands().size() >= faults.failedCommand;
      if (!serves) {
        const int status = daemon_.ExitStatus();
        EXPECT_TRUE(status == 255 || (status == 0 && fault >= RedisFault::kCut)) << status;
        EXPECT_NE(Errors(), "");
        Restart();
      }
      EXPECT_EQ(ListedUris(), std::set<std::string>{kMember});
      EXPECT_EQ(Disagreement(), "") << serves << Errors();
    }
  }
}

}  // namespace
}  // namespace event_service
