/// The program on files of every kind; that members of every kind come back as they were is a whole-daemon test.
#include <optional>

#include "foundation/shell.h"
#include "resource_store/resource_writer.h"
#include "tests/support/redis_test.h"
#include "tests/support/trip_counter.h"

namespace event_service {
namespace {

const std::string kCollection = "/redfish/v1/EventService/Subscriptions";
const std::string kEntries = "&&" + kCollection + "/Members";

/// A collection file with one member for each of the texts behind the collection's URI.
std::string FileOf(const std::vector<std::string>& members, const char* etag = "\"E\"") {
  Json file = {{"@odata.id", kCollection}, {"@odata.etag", etag}, {"Members", Json::array()}};
  for (const std::string& member : members) {
    file["Members"].push_back({{"@odata.id", kCollection + member}, {"Status", {{"State", "Enabled"}}}});
  }
  return file.dump();
}

class ResourceLoaderTest : public RedisTest {
 protected:
  static constexpr int kLoaded = 0, kFileFault = 1, kRedisFault = 75;

  /// Runs the program on a file with this text, or on what stands there already. A failure says its one promised line.
  static int Load(const std::optional<std::string>& text, const std::string& root = Sandbox().Root()) {
    const std::string file = Sandbox().Root() + "/var/file", said = Sandbox().Root() + "/var/said";
    if (text) WriteFile(file, *text);
    const int status = RunShell("EVENT_SERVICE_ROOT=" + root + " " RESOURCE_LOADER " UPDATE " + file + " " +
                                kCollection + " 2>" + said);
    const std::string line = ReadFile(said);
    EXPECT_EQ(line.starts_with("ResourceLoader: ") && line.find('\n') == line.size() - 1, status != kLoaded) << line;
    return status;
  }
};

TEST_F(ResourceLoaderTest, WhatTheFileHoldsIsReplacedAndNothingElse) {
  const std::string a = kCollection + "/A";
  ListAppend(redis(), "&&" + kCollection + "/POSTCREATEQ", "channel");
  HashWrite(redis(), "&&" + a + "B/Status", "State", "\"a member whose Id begins like another's\"");
  ListAppend(redis(), kEntries, "&&ObjectRef &&" + a + "B");
  HashWrite(redis(), kCollection, "Description", "\"not in the file\"");
  ASSERT_EQ(Load(FileOf({"/A", "/B"})), kLoaded);
  DatabaseDump expected = Dump();
  expected[kEntries] = "[" + a + ", &&ObjectRef &&" + a + "B, &&ObjectRef &&" + kCollection + "/B]";
  EXPECT_TRUE(expected.contains("&&" + a + "B/Status"));
  EXPECT_EQ(expected[a], R"({@odata.id=")" + a + R"(", Status=&&Object Status &&)" + a + "/Status}");
  EXPECT_EQ(HashRead(redis(), kCollection, "Members@odata.count"), "3");

  // Left from another life of A, in places that no marker leads to; B is listed twice, A by another loader.
  HashWrite(redis(), a, "Old", "1");
  ListAppend(redis(), "&&" + a + "/MessageIds", "\"Old\"");
  SendArguments(redis(), {"LREM", kEntries, "0", "&&ObjectRef &&" + a});
  SendArguments(redis(), {"LPUSH", kEntries, kCollection + "/B", a});
  ASSERT_EQ(Load(FileOf({"/A", "/B"}, "")), kLoaded) << "an empty etag is none: the one in Redis stays";
  EXPECT_EQ(Dump(), expected);
}

TEST_F(ResourceLoaderTest, AFaultyFileIsRefusedAsAWhole) {
  ASSERT_EQ(Load(FileOf({"/A"})), kLoaded);
  const DatabaseDump before = Dump();
  const std::string good = FileOf({"/A", "/B"});
  const std::string deep = std::string(99, '[') + std::string(99, ']');
  std::vector<std::string> files = {good.substr(1), good + "}", good + '\0', R"({"Members": [], "A": )" + deep + "}",
                                    R"({"Members": [{"@odata.id": ")" + kCollection + R"(/B", "A": )" + deep + "}]}"};
  for (const char* file : {"", "[]", R"({"Name": "x"})", R"({"Members": {}})", R"({"Members": ["text"]})",
                           R"({"Members": [{"Id": "B"}]})", R"({"Members": [{"@odata.id": 5}]})",
                           "{\"Members\": [], \"Name\": \"\xff\"}", R"({"@odata.id": "/x", "Members": []})"}) {
    files.emplace_back(file);
  }
  for (const char* uri : {"", "/", "X/1", "/B/C", "/B C", "/B\x7f", "/A"}) files.push_back(FileOf({"/A", uri}));
  for (const std::string& file : files) {
    EXPECT_EQ(Load(file), kFileFault) << file;
    EXPECT_EQ(Dump(), before) << file;
  }
  EXPECT_EQ(Load(good, "/no/redis/there"), kRedisFault);
  for (const std::string& key : {kCollection, kEntries}) {
    SendCommand(redis(), "FLUSHALL");
    SendArguments(redis(), {"SET", key, "text"});
    EXPECT_EQ(Load(good), kRedisFault);
    EXPECT_EQ(Dump(), (DatabaseDump{{key, "text"}}));
  }
  Obstruct(Sandbox().Root() + "/var/file", "fifo", Sandbox().Root() + "/var/victim");
  EXPECT_EQ(Load({}), kFileFault) << "and does not wait for it";
}

TEST_F(ResourceLoaderTest, ALoadThatIsCutOffAnywhereHasDoneNothing) {
  TripCounter proxy(Server().SocketPath());
  const SandboxRoot other;
  other.UseRedis(proxy.SocketPath());
  bool isLoaded = false;
  for (size_t cut = 0; !isLoaded; ++cut) {
    SendCommand(redis(), "FLUSHALL");
    ASSERT_EQ(Load(FileOf({"/A"})), kLoaded);
    const DatabaseDump before = Dump();
    proxy.Reset({.cutAfter = cut});
    const int status = Load(FileOf({"/A", "/B"}), other.Root());
    isLoaded = status == kLoaded;
    EXPECT_TRUE(isLoaded || status == kRedisFault) << status << ", cut after " << cut;
    EXPECT_EQ(Dump() == before, !isLoaded) << "cut after " << cut;
  }
  EXPECT_EQ(proxy.trips(), 2U);
}

}  // namespace
}  // namespace event_service
