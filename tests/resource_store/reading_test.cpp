#include <limits>

#include "tests/resource_store/store_test.h"
#include "tests/support/canned_replies.h"

namespace event_service {
namespace {

using std::string_literals::operator""s;

TEST_F(StoreTest, TripsAreOneForEachLevelAndAtMostThreeForAWrite) {
  TripCounter proxy(Server().SocketPath());
  const RedisContext connection = proxy.Connect();
  Json document, same;
  for (int i = 0; i < 200; ++i) document["m" + std::to_string(i)] = {{"list", {1, {{"x", i}}}}};
  const auto trips = [&](bool succeeded) { return succeeded ? proxy.trips() : 0; };
  EXPECT_EQ(trips(WriteResource(connection.get(), "/k", document)), 3U);
  proxy.Reset();
  EXPECT_EQ(trips(WriteResource(connection.get(), "/l", {{"a", {{"b", 1}}}})), 2U) << "the counter did not move";
  proxy.Reset();
  EXPECT_EQ(trips(ReadResource(connection.get(), "/k", same)), 5U) << "the type and four levels";
  const RedisReply root = SendCommand(redis(), "HGETALL /k");
  proxy.Reset();
  EXPECT_EQ(trips(ReadResource(connection.get(), "/k", root.get(), same)), 3U);
  EXPECT_EQ(same, document);
}

TEST_F(StoreTest, FollowsMarkersAsFarAsTheOptionsSay) {
  constexpr const char* kShapes = R"({"&&/k/list":["&&Object x y","&&Removed","&&ObjectRef /m","1"],
      "/k":{"four":"&&Object four words here","two":"&&Object &&/k/two","kind":"&&Thing kind &&/k/kind",
            "list":"&&Array list &&/k/list","&&N":"1","&&Raw":"&&Object x /o"}})";
  constexpr const char* kForeign = R"({"/k":{"a":"&&Object a &&/k/a","o":"&&Object o &&/kk"},"&&/k/a":{"x":"1"},
      "&&/kk":{"l":"&&Array l &&/o/l"},"&&/o/l":["&&Object &&/k/a","&&Object /o/l/x","&&Array a \\\"b\\\"",
      "&&Object &&/o/l/7"],"&&/o/l/7":{"y":"1"}})";
  constexpr const char* kLoop = R"({"/k":{"self":"&&Object self /k","child":"&&Object child &&/k/child"},
      "&&/k/child":{"up":"&&Object up /k","x":"1"}})";
  std::set<std::string, std::less<>> overfull;
  const Json onlyA = {{"a", Json::object()}, {"b", 1}};
  const struct {
    const char* database;
    ReadOptions options;
    const char* document;
  } cases[] = {
      {kShapes, {}, R"({"list":[{"@odata.id":"/m"},1]})"},
      {kShapes,
       {.overfullMembers = &overfull},
       R"({"two":{},"list":["&&Object x y","&&Removed",{"@odata.id":"/m"},1]})"},
      {kShapes, {.withControlFields = true}, R"({"list":[{"@odata.id":"/m"},1],"&&N":"1","&&Raw":"&&Object x /o"})"},
      {kLoop, {}, R"({"self":{},"child":{"up":{},"x":1}})"},
      {kForeign, {}, R"({"a":{"x":1},"o":{"l":[{},{},{"y":1}]}})"},
      {kForeign, {.ownKeysOnly = true}, R"({"a":{"x":1},"o":{}})"},
      {kForeign, {.onlyMembersOf = &onlyA}, R"({"a":{"x":1},"o":{}})"},
      {kForeign,
       {.overfullMembers = &overfull},  // what a client sent as strings comes back as strings
       R"({"a":{"x":1},"o":{"l":["&&Object &&/k/a","&&Object /o/l/x","&&Array a \"b\"",{"y":1}]}})"},
  };
  for (const auto& row : cases) {
    Store(row.database);
    EXPECT_EQ(Read("/k", row.options), Json::parse(row.document));
  }
}

TEST_F(StoreTest, NumbersThatJsonCannotHoldAreKeptAsWritten) {
  const char* texts[] = {"1.50", "1E2", "-0", "99999999999999999999", "1e400", "-1e400", "18446744073709551615", "0.1"};
  for (const char* text : texts) ListAppend(redis(), "/k", text);
  NumberTexts numbers;
  const Json document = Read("/k", {.numberTexts = &numbers});
  EXPECT_EQ(document[5], std::numeric_limits<double>::lowest());
  EXPECT_EQ(document[6].get<uint64_t>(), UINT64_MAX);
  NumberTexts expected;
  for (size_t i = 0; i < 6; ++i) expected[std::to_string(i)] = texts[i];
  EXPECT_EQ(numbers, expected);
}

TEST_F(StoreTest, ContainersNestNoDeeperThanTheLimit) {
  std::string key = "&&/k";
  for (size_t level = 1; level < kMaxNesting; ++level) {
    const std::string child = ChildKey(key, "long-name");
    ASSERT_TRUE(HashWrite(redis(), key, "long-name", "&&Object long-name " + child));
    key = child;
  }
  ASSERT_TRUE(HashWrite(redis(), key, "text", "1"));
  EXPECT_TRUE(Read("&&/k").is_object());
  const std::string bomb = std::string(1'000'000, '[') + std::string(1'000'000, ']');
  for (const std::string_view value : {"&&Array b &&/x", "[]", "&&ObjectRef b /m", bomb.c_str()}) {
    ASSERT_TRUE(HashWrite(redis(), key, "b", value));
    EXPECT_EQ(FailureOf("&&/k"), "[ERROR] Resource is nested too deep. RESOURCE=" + key.substr(0, 256) + " FIELDS=b\n")
        << "the key is cut";
  }
}

TEST_F(StoreTest, WhatCannotBeReadIsToldOnce) {
  const struct {
    const char* database;
    const char* log;
    ReadOptions options = {};
  } cases[] = {
      {"{}", "Gets resource type failed. RESOURCE=/k, RESULT_CODE=none"},
      {R"({"/k":"text"})", "Gets redis resource failed. RESOURCE=/k", {.knownKind = ContainerKind::kArray}},
      {R"({"/k":{"a":"&&Object a &&/a"},"&&/a":"text"})", "Gets redis resource failed. RESOURCE=&&/a"},
      {R"({"/k":["1","garbage"]})", "Gets redis resource failed. RESOURCE=/k, ELEMENT=1"},
      {R"({"/k":{"a\nb":"garbage","b":"garbage"}})", "Gets redis resource failed. RESOURCE=/k FIELDS=a?b"},
  };
  for (const auto& row : cases) {
    Store(row.database);
    EXPECT_EQ(FailureOf("/k", row.options), "[ERROR] " + std::string(row.log) + "\n") << row.database;
  }
  for (const std::string& text :
       {""s, "\"open"s, "\""s, "1 2"s, "01"s, "1."s, "\"a\"b\""s, "\"\x1f\""s, "\"\xff\""s, "&"s, "1\0"s}) {
    ASSERT_TRUE(HashWrite(redis(), "/text", "a", text));
    EXPECT_EQ(FailureOf("/text"), "[ERROR] Gets redis resource failed. RESOURCE=/text FIELDS=a\n") << text;
  }
  for (const std::string reply : {"*1\r\n$1\r\na\r\n", "*2\r\n$1\r\na\r\n:1\r\n"}) {  // half a pair, a number
    CannedConnection server("+hash\r\n" + reply);
    Json document;
    EXPECT_FALSE(ReadResource(server.redis(), "/k", document)) << reply;
  }
}

}  // namespace
}  // namespace event_service
