#include "tests/system/daemon_test.h"

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "resource_store/resource_editor.h"
#include "resource_store/resource_reader.h"

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
  SendCommand(redis(), "SADD &&AccessBlockList EventService");
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

std::string Difference(const DatabaseDump& actual, const DatabaseDump& expected) {
  std::string text;
  for (const auto& [key, content] : actual) text += expected.contains(key) ? "" : " too much: " + key + content;
  for (const auto& [key, content] : expected) {
    const auto found = actual.find(key);
    if (found == actual.end() || found->second != content) text += " should be: " + key + content;
  }
  return text;
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

/// The etag as Redis keeps it; "" stands for none.
static Json MembersInFile(const FilePaths& paths, std::string& etag) {
  Json members = Json::object();
  const Json file = Json::parse(DecryptedDatabase(paths));
  for (const Json& member : file.at("Members")) members[member.value("@odata.id", "")] = member;
  etag = file.at("@odata.etag").dump();
  return members;
}

std::set<std::string> DaemonTest::ListedUris() {
  std::set<std::string> uris;
  const RedisReply entries = SendArguments(redis(), {"LRANGE", MembersKey(kCollection), "0", "-1"});
  for (const std::string_view entry : TextsOf(entries)) {
    if (!uris.emplace(MemberUriOf(entry)).second) uris.insert("twice");
  }
  return uris;
}

/// A key that belongs to no listed member.
std::string DaemonTest::StrayKey(const std::set<std::string>& uris) {
  for (const std::string& key : KeyListing(redis(), "*" + kCollection + "/*")) {
    const std::string_view rest = std::string_view(key).substr(key.find(kCollection) + kCollection.size() + 1);
    const std::string_view id = rest.substr(0, rest.find('/'));
    const bool isOfMember = key.starts_with(kCollection) || id.size() < rest.size();
    if (isOfMember && !uris.contains(kCollection + "/" + std::string(id))) return key;
  }
  return {};
}

DatabaseDump DaemonTest::Index() {
  DatabaseDump index;
  for (const std::string& key : KeyListing(redis(), "&&subs:*")) index[key] = ContentOf(key);
  return index;
}

/// What is different when the origin index is built anew, which repairs it.
std::string DaemonTest::IndexDifference() {
  const DatabaseDump before = Index();
  const std::string script = ReadFile(Sandbox().Paths().startUpMapScript);
  EXPECT_EQ(TextOf(SendArguments(redis(), {"EVAL", script, "0"})), "OK");
  return Difference(before, Index());
}

/// A line of the persistent properties that the service does not have.
std::string DaemonTest::StrayProperty() {
  std::istringstream lines(ReadFile(Sandbox().Paths().persistentProperties));
  for (std::string line; std::getline(lines, line);) {
    const size_t equals = line.find('=');
    if (Value(kService, "/" + line.substr(0, equals)).dump() != line.substr(equals + 1)) return line;
  }
  return {};
}

std::string DaemonTest::Disagreement() {
  const std::set<std::string> uris = ListedUris();
  if (HashRead(redis(), kCollection, "Members@odata.count") != std::to_string(uris.size())) return "the count";
  std::string etag;
  Json file = MembersInFile(Sandbox().Paths(), etag);
  for (const std::string& uri : uris) {
    Json stored;
    if (!ReadResource(redis(), uri, stored, {.withControlFields = true})) return "unreadable: " + uri;
    if (stored["SubscriptionType"] == "SSE") continue;
    if (const Json difference = Json::diff(stored, file[uri]); !difference.empty()) return uri + difference.dump();
    file.erase(uri);
  }
  if (!file.empty()) return "in the file alone: " + file.dump();
  const std::string stored = HashRead(redis(), kCollection, "@odata.etag");
  const bool hasEtag = (stored.empty() ? "\"\"" : stored) == etag;
  if (fileHasEtag_ && !hasEtag) return "the etag: " + stored + ", in the file " + etag;
  if (const std::string line = StrayProperty(); !line.empty()) return "in the persistent properties: " + line;
  if (const std::string difference = IndexDifference(); !difference.empty()) return "the index:" + difference;
  return StrayKey(uris);
}

}  // namespace event_service
