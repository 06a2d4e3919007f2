#include "resource_store/resource_reader.h"

#include "tests/resource_store/store_test.h"
#include "tests/support/canned_replies.h"

namespace event_service {
namespace {

using ResourceReaderTest = StoreTest;

TEST_F(ResourceReaderTest, TakesOneTripForEachLevelAndOneForTheType) {
  Write("/k", R"({"a":{"b":[{"x":1}]},"c":{"d":[1]},"e":1})");
  TripCounter proxy(Server().SocketPath());
  const RedisContext connection = proxy.Connect();
  proxy.Reset();
  Json document;
  ASSERT_TRUE(ReadResource(connection.get(), "/k", document));
  EXPECT_EQ(proxy.trips(), 5u);
  const RedisReply root = SendCommand(redis(), "HGETALL /k");
  proxy.Reset();
  Json same;
  ASSERT_TRUE(ReadResource(connection.get(), "/k", root.get(), same));
  EXPECT_EQ(proxy.trips(), 3u);
  EXPECT_EQ(same, document);
}

TEST_F(ResourceReaderTest, AWalkSharesItsBatchesWithOtherCommands) {
  const Json stored = Json::parse(R"({"a":{"b":[1]},"a/b":2,"c":[{"x":1}]})");
  ASSERT_TRUE(WriteResource(redis(), "/k", stored));
  Json document;
  ResourceWalk walk("/k", {.knownKind = ContainerKind::kObject}, &document);
  size_t levels = 0;
  for (; !walk.Done(); ++levels) {
    RedisPipeline pipeline(redis());
    pipeline.Append({"PING"});
    walk.AppendLevel(pipeline);
    pipeline.Append({"EXISTS", "/k"});
    ASSERT_TRUE(walk.TakeLevel(pipeline.Execute()));
  }
  EXPECT_EQ(levels, 3u);
  EXPECT_EQ(document, stored);
  EXPECT_EQ(walk.KeysOfMember("a"), (std::vector<std::string>{"&&/k/a", "&&/k/a/b"}));
  EXPECT_EQ(walk.KeysOfMember("c"), (std::vector<std::string>{"&&/k/c", "&&/k/c/1"}));
  EXPECT_TRUE(walk.KeysOfMember("a/b").empty());
}

TEST_F(ResourceReaderTest, FollowsMarkersAsFarAsTheOptionsSay) {
  constexpr const char* kShapes = R"({"&&/k/list":["&&Object x y","&&Removed","&&ObjectRef /m","1"],
      "/k":{"four":"&&Object four words here","two":"&&Object &&/k/two","kind":"&&Thing kind &&/k/kind",
            "list":"&&Array list &&/k/list"}})";
  constexpr const char* kControl = R"({"/k":{"&&N":"1","&&Raw":"&&Object x /o","x":"1"},"/o":{"secret":"1"}})";
  constexpr const char* kForeign = R"({"/k":{"a":"&&Object a &&/k/a","o":"&&Object o /o"},"&&/k/a":{"x":"1"},
      "/o":{"l":"&&Array l &&/o/l"},"&&/o/l":["&&Object &&/k/a","&&Object /o/l/x","&&Array a \\\"b\\\"","&&Object &&/o/l/7"],
      "&&/o/l/7":{"y":"1"}})";
  constexpr const char* kLoop = R"({"/k":{"self":"&&Object self /k","child":"&&Object child &&/k/child"},
      "&&/k/child":{"up":"&&Object up /k","x":"1"}})";
  const Json onlyA = {{"a", Json::object()}, {"b", 1}};
  const struct {
    const char* database;
    ReadOptions options;
    const char* document;
    std::vector<std::string> keys;
  } cases[] = {
      {kShapes, {}, R"({"list":[{"@odata.id":"/m"},1]})", {"/k", "&&/k/list"}},
      {kControl, {}, R"({"x":1})", {"/k"}},
      {kControl, {.withControlFields = true}, R"({"&&N":"1","&&Raw":"&&Object x /o","x":1})", {"/k"}},
      {kLoop, {}, R"({"self":{},"child":{"up":{},"x":1}})", {"/k", "&&/k/child"}},
      {kForeign,
       {},
       R"({"a":{"x":1},"o":{"l":[{},{},{"y":1}]}})",
       {"/k", "&&/k/a", "/o", "&&/o/l", "/o/l/x", "&&/o/l/7"}},
      {kForeign, {.ownKeysOnly = true}, R"({"a":{"x":1},"o":{}})", {"/k", "&&/k/a"}},
      {kForeign, {.onlyMembersOf = &onlyA}, R"({"a":{"x":1},"o":{}})", {}},
      // What a client sent as strings comes back as strings.
      {kForeign,
       {.followForeignMarkers = false},
       R"({"a":{"x":1},"o":{"l":["&&Object &&/k/a","&&Object /o/l/x","&&Array a \"b\"",{"y":1}]}})",
       {}},
  };
  for (const auto& row : cases) {
    Store(row.database);
    EXPECT_EQ(Read("/k", row.options), Json::parse(row.document));
    std::vector<std::string> keys;
    ASSERT_TRUE(CollectResourceKeys(redis(), "/k", keys, row.options.ownKeysOnly));
    EXPECT_TRUE(row.keys.empty() || keys == row.keys) << testing::PrintToString(keys);
  }
}

TEST_F(ResourceReaderTest, NumbersThatJsonCannotHoldAreKeptAsWritten) {
  Store(R"({"/k":["1.50","1E2","-0","123456789012345678901234567890","1e400","-1e400",
                  "18446744073709551615","-9223372036854775808","0.1","&&Object &&/k/1"],"&&/k/1":{"a":"2.00"}})");
  NumberTexts numbers;
  const Json document = Read("/k", {.numberTexts = &numbers});
  EXPECT_EQ(document[5], std::numeric_limits<double>::lowest());
  EXPECT_EQ(document[6].get<uint64_t>(), UINT64_MAX);
  EXPECT_EQ(document[7].get<int64_t>(), INT64_MIN);
  EXPECT_EQ(document[9]["a"], 2.0);
  EXPECT_EQ(numbers, (NumberTexts{{"0", "1.50"},
                                  {"1", "1E2"},
                                  {"2", "-0"},
                                  {"3", "123456789012345678901234567890"},
                                  {"4", "1e400"},
                                  {"5", "-1e400"},
                                  {"9/a", "2.00"}}));
}

TEST_F(ResourceReaderTest, ContainersNestNoDeeperThanTheLimit) {
  std::string key = "&&/k";
  for (size_t level = 1; level < kMaxNesting; ++level) {
    const std::string child = ChildKey(key, "a");
    ASSERT_TRUE(HashWrite(redis(), key, "a", "&&Object a " + child));
    key = child;
  }
  ASSERT_TRUE(HashWrite(redis(), key, "text", "1"));
  EXPECT_TRUE(Read("&&/k").is_object());
  const std::string tooDeep = "[ERROR] Resource is nested too deep. RESOURCE=" + key.substr(0, 256) + " FIELDS=b\n";
  const std::string bomb = std::string(1'000'000, '[') + std::string(1'000'000, ']');
  for (const std::string_view value : {"&&Array b &&/x", "[]", "&&ObjectRef b /m", bomb.c_str()}) {
    ASSERT_TRUE(HashWrite(redis(), key, "b", value));
    EXPECT_EQ(FailureOf("&&/k"), tooDeep) << value.substr(0, 20);
  }
}

TEST_F(ResourceReaderTest, WhatCannotBeReadIsToldOnce) {
  const struct {
    const char* database;
    const char* log;
    ReadOptions options = {};
  } cases[] = {
      {"{}", "Gets resource type failed. RESOURCE=/k, RESULT_CODE=none"},
      {R"({"/k":"text"})", "Gets resource type failed. RESOURCE=/k, RESULT_CODE=string"},
      {R"({"/k":"text"})", "Gets redis resource failed. RESOURCE=/k", {.knownKind = ContainerKind::kArray}},
      {R"({"/k":{"a":"&&Object a &&/a"},"&&/a":"text"})", "Gets redis resource failed. RESOURCE=&&/a"},
      {R"({"/k":["1","garbage"]})", "Gets redis resource failed. RESOURCE=/k, ELEMENT=1"},
      {R"({"/k":{"a":"garbage","b":"garbage"}})", "Gets redis resource failed. RESOURCE=/k FIELDS=a"},
  };
  for (const auto& row : cases) {
    Store(row.database);
    EXPECT_EQ(FailureOf("/k", row.options), "[ERROR] " + std::string(row.log) + "\n") << row.database;
  }
  std::vector<std::string> keys;
  EXPECT_TRUE(CollectResourceKeys(redis(), "/k", keys)) << "values are not looked at for the keys";
  for (const std::string_view text : {"", "\"open", "1 2", "{\"a\":}", "\"\xff\"", "nan", "&"}) {
    ASSERT_TRUE(HashWrite(redis(), "/k", "a", text));
    EXPECT_NE(FailureOf("/k"), "") << text;
  }
}

TEST(ResourceReader, RepliesOfAnyShapeAreJudged) {
  for (const char* reply : {":1\r\n", "+OK\r\n", "$-1\r\n", "*-1\r\n", "*1\r\n$1\r\na\r\n", "*2\r\n$1\r\na\r\n:1\r\n",
                            "*2\r\n$1\r\na\r\n$-1\r\n", "*2\r\n$1\r\na\r\n*1\r\n$1\r\nb\r\n"}) {
    CannedConnection connection(reply);
    const StreamCapture capture(STDERR_FILENO);
    Json document;
    EXPECT_FALSE(ReadResource(connection.redis(), "/k", document, {.knownKind = ContainerKind::kObject})) << reply;
    EXPECT_EQ(capture.Text(), "[ERROR] Gets redis resource failed. RESOURCE=/k\n") << reply;
  }
}

}  // namespace
}  // namespace event_service
