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
  return {{"@odata.id", kCollection + "/" + id},
          {"Id", id},
          {"Context", "a \"b\" / ~ \u00e9"},
          {"&&Privileges", "Login, ConfigureSelf"},
          {"Status", {{"State", "Enabled"}}},
          {"Empty", Json::object()},
          {"HttpHeaders", {{{"X-Token", "abc"}}, {{"X-Other", "d"}}}},
          {"OriginResources", {{{"@odata.id", "/redfish/v1/Systems/1"}}}},
          {"OriginResources@odata.count", 1}};
}

Json DocumentOf(const std::vector<std::string>& ids) {
  Json document = {{"@odata.id", kCollection},  {"@odata.etag", "\"AB\""},   {"Name", "Subscriptions"},
                   {"Oem", {{"List", {1, 2}}}}, {"Members@odata.count", 77}, {"Members", Json::array()}};
  for (const std::string& id : ids) document["Members"].push_back(MemberOf(id));
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
  bool Load(const Json& document) { return Load(document.dump()); }
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
  ASSERT_TRUE(Load(DocumentOf({"A", "B"}))) << Errors();
  EXPECT_EQ(Stored("A"), MemberOf("A"));
  EXPECT_EQ(Stored("B"), MemberOf("B"));
  EXPECT_EQ(Dump()[kEntries], "[&&ObjectRef &&" + kCollection + "/A, &&ObjectRef &&" + kCollection + "/B]");
  EXPECT_EQ(HashRead(redis(), kCollection, "Members"), "&&Array Members " + kEntries);
  EXPECT_EQ(Count(), "2");
  EXPECT_EQ(HashRead(redis(), kCollection, "Name"), "\"Subscriptions\"");
  EXPECT_EQ(HashRead(redis(), kCollection, "@odata.etag"), R"("\"AB\"")");
  EXPECT_EQ(HashRead(redis(), kCollection + "/A", "&&Privileges"), "Login, ConfigureSelf");
  EXPECT_EQ(Dump()["Array-Member-Sequence-ID"], "6");  // two headers and a reference, twice
  EXPECT_EQ(Errors(), "");
}

TEST_F(ResourceLoaderTest, WhatTheFileHoldsIsReplacedAndNothingElse) {
  ASSERT_TRUE(Load(DocumentOf({"A", "B"})));
  // Left from another life of A, in places that no marker leads to; B is listed twice, A by another loader.
  SendArguments(redis(), {"HSET", kCollection + "/A", "Old", "1"});
  SendArguments(redis(), {"RPUSH", "&&" + kCollection + "/A/MessageIds", "\"Old\""});
  SendArguments(redis(), {"DEL", kEntries});
  SendArguments(redis(),
                {"RPUSH", kEntries, kCollection + "/A", kCollection + "/B", "&&ObjectRef &&" + kCollection + "/B"});
  // A member and keys that are not the file's: a queue, and a member whose Id begins like another's.
  SendArguments(redis(), {"RPUSH", "&&" + kCollection + "/POSTCREATEQ", "channel"});
  SendArguments(redis(), {"HSET", kCollection + "/AB", "Id", "\"AB\""});
  SendArguments(redis(), {"HSET", "&&" + kCollection + "/AB/Status", "State", "\"Enabled\""});
  SendArguments(redis(), {"RPUSH", kEntries, "&&ObjectRef &&" + kCollection + "/AB"});
  SendArguments(redis(), {"HSET", kCollection, "Description", "\"kept\""});
  const DatabaseDump before = Dump();

  Json document = DocumentOf({"A", "B"});
  document["@odata.etag"] = "";
  ASSERT_TRUE(Load(document)) << Errors();
  EXPECT_EQ(Stored("A"), MemberOf("A"));
  DatabaseDump after = Dump();
  EXPECT_FALSE(after.contains("&&" + kCollection + "/A/MessageIds"));
  EXPECT_EQ(after[kEntries],
            "[" + kCollection + "/A, &&ObjectRef &&" + kCollection + "/AB, &&ObjectRef &&" + kCollection + "/B]");
  EXPECT_EQ(Count(), "3");
  EXPECT_EQ(HashRead(redis(), kCollection, "@odata.etag"), R"("\"AB\"")");
  EXPECT_EQ(HashRead(redis(), kCollection, "Description"), "\"kept\"");
  for (const std::string& key : {"&&" + kCollection + "/POSTCREATEQ", kCollection + "/AB",
                                 "&&" + kCollection + "/AB/Status", "&&" + kCollection + "/Oem/List"}) {
    EXPECT_EQ(after[key], before.at(key)) << key;
  }
}

TEST_F(ResourceLoaderTest, AFaultyFileIsRefusedAsAWhole) {
  ASSERT_TRUE(Load(DocumentOf({"A"})));
  const DatabaseDump before = Dump();
  const auto withMember = [](Json member) {
    Json document = DocumentOf({"A"});
    document["Members"].push_back(std::move(member));
    return document.dump();
  };
  const auto withUri = [&](const std::string& uri) { return withMember({{"@odata.id", uri}}); };
  Json deep = MemberOf("B");
  for (int level = 0; level < 40; ++level) deep = {{"@odata.id", kCollection + "/B"}, {"x", deep}};
  const std::string good = DocumentOf({"A", "B"}).dump();
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
  const std::string good = DocumentOf({"A"}).dump();
  for (const char* arguments : {"", "UPDATE", "INSERT a b", "UPDATE a b c"}) {
    EXPECT_NE(RunShell(std::string(RESOURCE_LOADER " ") + arguments + " 2>" + errors_), 0);
    EXPECT_TRUE(SaidOneLine()) << arguments;
  }
  EXPECT_NE(RunShell(RESOURCE_LOADER " UPDATE /no/such/file " + kCollection + " 2>" + errors_), 0);
  EXPECT_EQ(Errors(), "ResourceLoader: /no/such/file: No such file or directory\n");
  EXPECT_FALSE(Load(good, "/no/redis/there"));
  EXPECT_TRUE(SaidOneLine()) << Errors();

  for (const std::string& key : {kCollection, kEntries}) {
    SendArguments(redis(), {"FLUSHALL"});
    SendArguments(redis(), {"SET", key, "text"});
    const DatabaseDump before = Dump();
    EXPECT_FALSE(Load(good));
    EXPECT_TRUE(SaidOneLine()) << Errors();
    EXPECT_EQ(Dump(), before);
  }
}

TEST_F(ResourceLoaderTest, ALoadThatIsCutOffAnywhereHasDoneNothing) {
  ASSERT_TRUE(Load(DocumentOf({"A"})));
  Json changed = DocumentOf({"A", "B"});
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
    ASSERT_TRUE(Load(DocumentOf({"A"})));
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
