#include "tests/system/daemon_test.h"

#include <stdio.h>  // NOLINT(modernize-deprecated-headers): popen

#include <algorithm>
#include <array>
#include <chrono>
#include <thread>

namespace event_service {

std::string RunCommand(const std::string& command) {
  std::string output;
  FILE* pipe = popen(command.c_str(), "re");
  if (pipe == nullptr) {
    ADD_FAILURE() << "cannot run " << command;
    return output;
  }
  std::array<char, 4096> buffer{};
  for (size_t got = 0; (got = fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) output.append(buffer.data(), got);
  EXPECT_EQ(pclose(pipe), 0) << command << "\n" << output;
  return output;
}

std::string InShort(const FrontEndAnswer& answer) {
  std::string text = answer.status;
  for (const FrontEndMessage& message : answer.messages) {
    text += " " + message.id + "(";
    for (const std::string& argument : message.args) text += (text.back() == '(' ? "" : ", ") + argument;
    text += ")";
  }
  return text;
}

void DaemonTest::SetUp() {
  RedisTest::SetUp();
  RunCommand("'" EVENT_SERVICE_SOURCE "/scripts/lay-out-sandbox' " + Sandbox().Root() +
             " '" EVENT_SERVICE_BINARIES "'");
  LoadPlatform();
}

void DaemonTest::TearDown() {
  daemon_.Kill();
  for (const char* finding : {"Sanitizer", "runtime error:"}) {
    EXPECT_EQ(Output().find(finding), std::string::npos) << Output();
  }
  if (!HasFailure()) return;
  const std::string log = Log();
  std::printf("The end of the daemon's log:\n%s\nand its output:\n%s\n",
              log.substr(log.size() - std::min<size_t>(log.size(), 4000)).c_str(), Output().c_str());
}

void DaemonTest::StartDaemon() {
  daemon_.Start(Sandbox().Root(), OutputFile());
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!IsReady()) {
    ASSERT_TRUE(daemon_.IsRunning()) << "the daemon ended during its start";
    ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "the daemon does not become ready";
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

bool DaemonTest::IsReady() {
  const RedisReply blocked = SendCommand(redis(), "SISMEMBER &&AccessBlockList EventService");
  const RedisReply subscribed = SendCommand(redis(), "PUBSUB CHANNELS *");
  return IsInteger(blocked) && blocked->integer == 0 && IsArray(subscribed) && subscribed->elements == 2;
}

void DaemonTest::LoadPlatform() {
  RunCommand("EVENT_SERVICE_ROOT=" + Sandbox().Root() +
             " '" EVENT_SERVICE_BINARIES "/load_platform' '" EVENT_SERVICE_SOURCE "/share/platform'");
}

void DaemonTest::PowerCycle() {
  daemon_.Kill();
  ASSERT_TRUE(SendCommand(redis(), "FLUSHALL"));
  LoadPlatform();
  StartDaemon();
}

FrontEndAnswer DaemonTest::Ask(const std::string& httpMethod, const std::string& uri, const std::string& body) {
  FrontEndRequest request{.method = RecordMethod(httpMethod, uri), .targetUri = uri, .body = {}};
  if (!body.empty()) request.body = Json::parse(body);
  const std::optional<FrontEndAnswer> answer = SendRequest(redis(), request);
  EXPECT_TRUE(answer) << "no answer to " << httpMethod << " " << uri;
  return answer.value_or(FrontEndAnswer{});
}

std::string DaemonTest::AskShort(const std::string& httpMethod, const std::string& uri, const std::string& body) {
  return InShort(Ask(httpMethod, uri, body));
}

Json DaemonTest::Value(const std::string& uri, const std::string& pointer) {
  const std::optional<Json> document = ReadForClient(redis(), uri);
  return document ? document->value(Json::json_pointer(pointer), Json()) : Json();
}

}  // namespace event_service
