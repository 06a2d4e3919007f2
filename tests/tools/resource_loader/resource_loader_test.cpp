#include <gtest/gtest.h>

#include <algorithm>

#include "foundation/shell.h"
#include "resource_store/resource_reader.h"
#include "tests/support/redis_test.h"
#include "tests/support/trip_counter.h"

namespace event_service {
namespace {

const std::string kCollection = "/redfish/v1/EventService/Subscriptions";
const std::string kEntries = "&&" + kCollection + "/Members";

Json MemberOf(const std::string& id) {
  Json member = Json::parse(R"({
    "Context": "a \"b\" / ~ \u00e9", "&&Privileges": "Login, ConfigureSelf", "Status": {"State": "Enabled"}, "Empty": {},
    "HttpHeaders": [{"X-Token": "abc"}, {"X-Other": "d"}], "OriginResources@odata.count": 1,
    "OriginResources": [{"@odata.id": "/redfish/v1/Systems/1"}]})");
  member["@odata.id"] = kCollection + "/" + id;
  member["Id"] = id;
  return member;
}

/// A collection with these members; each letter is an Id.
Json DocumentOf(std::string_view ids) {
  Json document = Json::parse(R"({"@odata.etag": "\"AB\"", "Name": "Subscriptions", "Oem": {"List": [1, 2]},
                                  "Members@odata.count": 77, "Members": []})");
  document["@odata.id"] = kCollection;
  for (const char id : ids) document["Members"].push_back(MemberOf(std::string(1, id)));
  return document;
}

class ResourceLoaderTest : public RedisTest {
 protected:
  /// Runs the program on a file with this text; true when its exit status was 0.
  bool Load(const std::string& text, const std::string& root = Sandbox().Root()) {
    WriteFile(file_, text);
    const std::string command =
        "EVENT_SERVICE_ROOT=" + root + " " RESOURCE_LOADER " UPDATE " + file_ + " " + kCollection + " 2>" + errors_;
    return RunShell(command) == 0;
  }
  std::string Errors() const { return ReadFile(errors_); }
  /// The one promised line.
  bool SaidOneLine() const {
    const std::string said = Errors();
    return said.starts_with("ResourceLoader: ") && said.find('\n') == said.size() - 1;
  }
  Json Stored(const std::string& id) {
    Json document;
    EXPECT_TRUE(ReadResource(redis(), kCollection + "/" + id, document, {.withControlFields = true}));
    return document;
  }
  std::string Count() { return HashRead(redis(), kCollection, "Members@odata.count"); }

  const std::string file_ = Sandbox().Root() + "/var/nginx/file.json";
  const std::string errors_ = Sandbox().Root() + "/errors";
};

TEST_F(ResourceLoaderTest, CollectionAndMembersReadBackAsTheFileHoldsThem) {
  ASSERT_TRUE(Load(DocumentOf("AB").dump())) << Errors();
  EXPECT_EQ(Stored("A"), MemberOf("A"));
  EXPECT_EQ(Stored("B"), MemberOf("B"));
  EXPECT_EQ(Dump()[kEntries], "[&&ObjectRef &&" + kCollection + "/A, &&ObjectRef &&" + kCollection + "/B]");
  const DatabaseDump fields = {{"Members", "&&Array Members " + kEntries},
                               {"Members@odata.count", "2"},
                               {"Name", "\"Subscriptions\""},
                               {"@odata.etag", R"("\"AB\"")"}};
  for (const auto& [name, text] : fields) EXPECT_EQ(HashRead(redis(), kCollection, name), text);
  EXPECT_EQ(HashRead(redis(), kCollection + "/A", "&&Privileges"), "Login, ConfigureSelf");
  EXPECT_EQ(Dump()["Array-Member-Sequence-ID"], "6");  // two headers and a reference, twice
}

TEST_F(ResourceLoaderTest, WhatTheFileHoldsIsReplacedAndNothingElse) {
  ASSERT_TRUE(Load(DocumentOf("AB").dump()));
  const std::string uri = kCollection + "/A";
  // Left from another life of A, in places that no marker leads to; B is listed twice, A by another loader.
  SendArguments(redis(), {"HSET", uri, "Old", "1"});
  SendArguments(redis(), {"RPUSH", "&&" + uri + "/MessageIds", "\"Old\""});
  SendArguments(redis(), {"LREM", kEntries, "0", "&&ObjectRef &&" + uri});
  SendArguments(redis(), {"LPUSH", kEntries, kCollection + "/B", uri});
  // What is not the file's: a queue, and a member whose Id begins like another's.
  SendArguments(redis(), {"RPUSH", "&&" + kCollection + "/POSTCREATEQ", "channel"});
  SendArguments(redis(), {"HSET", uri + "B", "Id", "\"AB\""});
  SendArguments(redis(), {"HSET", "&&" + uri + "B/Status", "State", "\"Enabled\""});
  SendArguments(redis(), {"RPUSH", kEntries, "&&ObjectRef &&" + uri + "B"});
  SendArguments(redis(), {"HSET", kCollection, "Description", "\"kept\""});
  DatabaseDump expected = Dump();
  expected.erase("&&" + uri + "/MessageIds");
  expected[kEntries] = "[" + uri + ", &&ObjectRef &&" + uri + "B, &&ObjectRef &&" + kCollection + "/B]";

  Json document = DocumentOf("AB");
  document["@odata.etag"] = "";  // there was none: the one in Redis stays
  ASSERT_TRUE(Load(document.dump())) << Errors();
  EXPECT_EQ(Stored("A"), MemberOf("A"));
  EXPECT_EQ(Count(), "3");
  EXPECT_EQ(HashRead(redis(), kCollection, "@odata.etag"), R"("\"AB\"")");
  EXPECT_EQ(HashRead(redis(), kCollection, "Description"), "\"kept\"");
  DatabaseDump after = Dump();
  for (const std::string& key : {"&&" + uri + "/MessageIds", kEntries, "&&" + kCollection + "/POSTCREATEQ", uri + "B",
                                 "&&" + uri + "B/Status", "&&" + kCollection + "/Oem/List"}) {
    EXPECT_EQ(after[key], expected[key]) << key;
  }
}

TEST_F(ResourceLoaderTest, AFaultyFileIsRefusedAsAWhole) {
  ASSERT_TRUE(Load(DocumentOf("A").dump()));
  const DatabaseDump before = Dump();
  const auto withMember = [](Json member) {
    Json document = DocumentOf("A");
    document["Members"].push_back(std::move(member));
    return document.dump();
  };
  const auto withUri = [&](const std::string& uri) { return withMember({{"@odata.id", uri}}); };
  Json deep = MemberOf("B");
  for (int level = 0; level < 40; ++level) deep = {{"@odata.id", kCollection + "/B"}, {"x", deep}};
  const std::string good = DocumentOf("AB").dump();
  const struct {
    const char* name;
    std::string text;
  } cases[] = {
      {"empty", ""},
      {"cut short", good.substr(0, good.size() - 1)},
      {"more after the end", good + "}"},
      {"a NUL after the end", good + '\0' + "x"},
      {"no UTF-8", R"({"Members": [], "Name": ")"
                   "\xff\"}"},
      {"no object", "[]"},
      {"no members", R"({"Name": "x"})"},
      {"members of another type", R"({"Members": {}})"},
      {"another collection", R"({"@odata.id": "/redfish/v1/Chassis", "Members": []})"},
      {"a member that is no object", withMember("text")},
      {"a member without an id", withMember({{"Id", "B"}})},
      {"an id of another type", withMember({{"@odata.id", 5}})},
      {"outside", withUri("/redfish/v1/Chassis/1")},
      {"the collection itself", withUri(kCollection)},
      {"no Id", withUri(kCollection + "/")},
      {"a name that begins alike", withUri(kCollection + "X/1")},
      {"deeper", withUri(kCollection + "/B/C")},
      {"a blank", withUri(kCollection + "/B C")},
      {"a NUL", withUri(kCollection + "/B" + '\0')},
      {"twice", withUri(kCollection + "/A")},
      {"too deep", withMember(deep)},
  };
  for (const auto& row : cases) {
    EXPECT_FALSE(Load(row.text)) << row.name;
    EXPECT_TRUE(SaidOneLine()) << row.name << ": " << Errors();
    EXPECT_EQ(Dump(), before) << row.name;
  }
}

TEST_F(ResourceLoaderTest, FaultsAroundItAreSaidInOneLine) {
  for (const std::string& arguments :
       {std::string(), std::string("INSERT a b"), std::string("UPDATE a b c"), "UPDATE /no/such/file " + kCollection}) {
    EXPECT_NE(RunShell(RESOURCE_LOADER " " + arguments + " 2>" + errors_), 0);
    EXPECT_TRUE(SaidOneLine()) << arguments;
  }
  const std::string good = DocumentOf("A").dump();
  EXPECT_FALSE(Load(good, "/no/redis/there"));
  EXPECT_TRUE(SaidOneLine()) << Errors();
  for (const std::string& key : {kCollection, kEntries}) {
    SendArguments(redis(), {"FLUSHALL"});
    SendArguments(redis(), {"SET", key, "text"});
    EXPECT_FALSE(Load(good));
    EXPECT_TRUE(SaidOneLine()) << Errors();
    EXPECT_EQ(Dump(), (DatabaseDump{{key, "text"}}));
  }
}

TEST_F(ResourceLoaderTest, ALoadThatIsCutOffAnywhereHasDoneNothing) {
  ASSERT_TRUE(Load(DocumentOf("A").dump()));
  Json changed = DocumentOf("AB");
  changed["Members"][0]["Context"] = "changed";
  SendArguments(redis(), {"DEL", "Array-Member-Sequence-ID"});
  DatabaseDump before = Dump();

  TripCounter proxy(Server().SocketPath());
  SandboxRoot other;
  other.WriteRedisSetting("port", "0");
  other.WriteRedisSetting("unixsocket", proxy.SocketPath());
  ASSERT_TRUE(Load(changed.dump(), other.Root())) << Errors();
  EXPECT_EQ(proxy.trips(), 3U);
  const size_t commands = proxy.commands();
  const DatabaseDump loaded = Dump();

  for (size_t cut = 0; cut <= commands; ++cut) {
    SendArguments(redis(), {"FLUSHALL"});
    ASSERT_TRUE(Load(DocumentOf("A").dump()));
    SendArguments(redis(), {"DEL", "Array-Member-Sequence-ID"});
    proxy.Reset();
    proxy.CutAfter(cut);
    EXPECT_EQ(Load(changed.dump(), other.Root()), cut == commands) << cut;
    DatabaseDump after = Dump();
    if (cut < commands) after.erase("Array-Member-Sequence-ID");  // an id that is never used does no harm
    EXPECT_EQ(after, cut < commands ? before : loaded) << "cut after " << cut;
  }
}

}  // namespace
}  // namespace event_service
