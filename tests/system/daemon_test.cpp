#include "tests/system/daemon_test.h"

#include <algorithm>
#include <filesystem>

namespace event_service {

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
  std::filesystem::remove(OutputFile());
  ChildProcess layOut;
  layOut.Start({EVENT_SERVICE_SOURCE "/scripts/lay-out-sandbox", Sandbox().Root(), ProgramPath("")}, OutputFile());
  ASSERT_EQ(layOut.ExitStatus(), 0) << Output();
  FillRedis();
}

void DaemonTest::TearDown() {
  daemon_.Kill();
  for (const char* finding : {"Sanitizer", "runtime error:"}) EXPECT_EQ(Output().find(finding), std::string::npos);
  if (!HasFailure()) return;
  const std::string log = Log();
  std::printf("The end of the daemon's log:\n%s\nand its output:\n%s\n",
              log.substr(log.size() - std::min<size_t>(log.size(), 4000)).c_str(), Output().c_str());
}

void DaemonTest::Launch() {
  daemon_.Start({"env", "EVENT_SERVICE_ROOT=" + Sandbox().Root(), ProgramPath("EventService")}, OutputFile());
}

bool DaemonTest::StartDaemon() {
  Launch();
  const auto serves = [this] {
    const RedisReply blocked = SendCommand(redis(), "SISMEMBER &&AccessBlockList EventService");
    return IsInteger(blocked) && blocked->integer == 0;
  };
  const auto cannotSaySo = [] { return Log().find("fail to remove it from the block list") != std::string::npos; };
  EXPECT_TRUE(Eventually([&] { return !daemon_.IsRunning() || serves() || cannotSaySo(); })) << "it does not get ready";
  return daemon_.IsRunning();
}

void DaemonTest::FillRedis() {
  ASSERT_TRUE(SendCommand(redis(), "FLUSHALL"));
  ChildProcess load;
  load.Start({"env", "EVENT_SERVICE_ROOT=" + Sandbox().Root(), ProgramPath("load_platform"),
              EVENT_SERVICE_SOURCE "/share/platform"},
             OutputFile());
  ASSERT_EQ(load.ExitStatus(), 0) << Output();
}

void DaemonTest::PowerCycle() {
  daemon_.Kill();
  FillRedis();
  ASSERT_TRUE(StartDaemon());
}

static FrontEndRequest MakeRequest(const std::string& httpMethod, const std::string& uri, const std::string& body) {
  FrontEndRequest request{.method = RecordMethod(httpMethod, uri), .targetUri = uri, .body = {}};
  if (!body.empty()) request.body = Json::parse(body);
  if (body.find("redfish-sse:") != std::string::npos) request.sseChannel = "stream";
  return request;
}

StoredRequest DaemonTest::Store(const std::string& httpMethod, const std::string& uri, const std::string& body) {
  return StoreRequest(redis(), MakeRequest(httpMethod, uri, body)).value();
}

StoredRequest DaemonTest::Announce(const std::string& httpMethod, const std::string& uri, const std::string& body) {
  StoredRequest stored = Store(httpMethod, uri, body);
  EXPECT_TRUE(AnnounceRequest(redis(), ChannelOf(uri), stored));
  return stored;
}

FrontEndAnswer DaemonTest::Ask(const std::string& httpMethod, const std::string& uri, const std::string& body) {
  const std::optional<FrontEndAnswer> answer = SendRequest(redis(), MakeRequest(httpMethod, uri, body));
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
