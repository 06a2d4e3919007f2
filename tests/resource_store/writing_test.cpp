#include <functional>

#include "tests/resource_store/store_test.h"
#include "tests/support/canned_replies.h"

namespace event_service {
namespace {

TEST_F(StoreTest, StoresTheDocumentedExample) {
  SendCommand(redis(), "SET Array-Member-Sequence-ID 41");
  Write("/redfish/v1/Example", R"({"Id":"1","Count":3,"Enabled":true,"Note":null,"Status":{"State":"Enabled"},
      "Owner":{"@odata.id":"/redfish/v1/Managers/1"},"Tags":["a",{"x":1}],"&&ReturnChannel":"CH1"})");
  const DatabaseDump expected = {
      {"/redfish/v1/Example",
       "{&&ReturnChannel=CH1, Count=3, Enabled=true, Id=\"1\", Note=null, "
       "Owner=&&ObjectRef Owner /redfish/v1/Managers/1, Status=&&Object Status &&/redfish/v1/Example/Status, "
       "Tags=&&Array Tags &&/redfish/v1/Example/Tags}"},
      {"&&/redfish/v1/Example/Status", "{State=\"Enabled\"}"},
      {"&&/redfish/v1/Example/Tags", "[\"a\", &&Object &&/redfish/v1/Example/Tags/42]"},
      {"&&/redfish/v1/Example/Tags/42", "{x=1}"},
      {kCounter, "42"},
  };
  EXPECT_EQ(Dump(), expected);

  // Control fields are raw, and only elements lose the quotes of what reads like a marker.
  Write("/k", R"({"&&Raw":"a \"b\"","&&Number":1,"m":"&&Object two words","n":{"@odata.id":1},
      "list":["&&a b","&&a","&& a","&a b"]})");
  EXPECT_EQ(Dump()["/k"],
            "{&&Raw=a \"b\", list=&&Array list &&/k/list, m=\"&&Object two words\", n=&&Object n &&/k/n}");
  EXPECT_EQ(Dump()["&&/k/n"], "{@odata.id=1}");
  EXPECT_EQ(Dump()["&&/k/list"], "[&&a b, \"&&a\", \"&& a\", \"&a b\"]");
}

TEST_F(StoreTest, TheCounterIsTakenOnceAndStoredBackWhenItMoved) {
  const struct {
    const char* before;
    const char* document;
    const char* after;
  } cases[] = {
      {"41", R"({"a":["x",1,null],"b":{"c":{}}})", "42"},  // taken, not moved
      {"41", R"({"a":[{},[],{}]})", "44"},
      {"41", R"({"a":[{"@odata.id":"/m"},{}]})", "43"},
      {"9223372036854775805", R"({"a":[{},{}]})", "1"},  // 2^63 - 1 is handed out, the counter wraps
      {"9223372036854775805", R"({"a":[{}]})", "1"},
      {"9223372036854775807", R"({"a":[{}]})", "1"},  // cannot be incremented
      {"garbage", R"({"a":1})", "1"},
      {"-2", R"({"a":[{}]})", "1"},
  };
  for (const auto& row : cases) {
    SendArguments(redis(), {"SET", kCounter, row.before});
    Write("/k", row.document);
    EXPECT_EQ(Dump()[kCounter], row.after) << row.before << " " << row.document;
  }
  SendArguments(redis(), {"SET", kCounter, "9223372036854775806"});
  Write("/w", "[{},{}]");
  EXPECT_EQ(Dump()["/w"], "[&&Object &&/w/9223372036854775807, &&Object &&/w/1]");
}

TEST_F(StoreTest, WhatCannotBeStoredIsRefusedBeforeAnythingIsWritten) {
  Json deep = Json::array();
  for (size_t level = 1; level < kMaxNesting; ++level) deep = Json::array({deep});
  ASSERT_TRUE(WriteResource(redis(), "/deep", deep));
  EXPECT_EQ(Read("/deep"), deep);
  const DatabaseDump before = Dump();
  const StreamCapture capture(STDERR_FILENO);
  EXPECT_FALSE(WriteResource(redis(), "/k", Json::array({deep})));
  EXPECT_FALSE(WriteResource(redis(), "/k", "text"));
  EXPECT_FALSE(WriteResource(redis(), "/k", Json::parse(R"({"a":1,"b":[1,2]})"), {.style = 3, .maxSize = 1}));
  EXPECT_EQ(Dump(), before);
  EXPECT_TRUE(WriteResource(redis(), "/k", {{"a", "\xff"}, {"b", 1}})) << "without what is no UTF-8";
  EXPECT_EQ(Read("/k"), Json({{"b", 1}}));
  EXPECT_TRUE(capture.Text().starts_with(
      "[ERROR] Resource is nested too deep. RESOURCE=/k\n[ERROR] Resource is no object or array. RESOURCE=/k\n"
      "[ERROR] Array is longer than its maximum size.\n[ERROR] Dump JSON object error. EXCEPTION=[json.exception."));
}

TEST_F(StoreTest, ArrayStylesShapeEveryArray) {
  const struct {
    int style;
    size_t maxSize;
    bool fillNull;
    const char* given;
    const char* shaped;
  } cases[] = {
      {2, 3, true, "[1,null]", "[1]"},    {1, 3, true, "[1,null]", "[1,null,null]"},
      {1, 2, true, "[1,2,3]", "refused"}, {1, 3, false, "[null,1]", "[null,1]"},
      {2, 1, true, "[1,2]", "refused"},   {1, 2, true, R"({"a":{"b":[[]]}})", R"({"a":{"b":[[null,null],null]}})"},
      {4, 8, true, "[]", "refused"},      {-1, 8, true, "[]", "refused"},
  };
  const StreamCapture capture(STDERR_FILENO);
  for (const auto& row : cases) {
    SendCommand(redis(), "FLUSHALL");
    const Json given = {{"ArrayStyle", row.style}, {"ArrayMaxSize", row.maxSize}, {"ArrayNullElement", row.fillNull}};
    ArrayConfiguration arrays;
    const bool isStored =
        ReadArrayConfiguration(given, arrays) && WriteResource(redis(), "/k", Json::parse(row.given), arrays);
    EXPECT_EQ(isStored ? Read("/k").dump() : "refused", row.shaped) << row.given;
  }
  ArrayConfiguration arrays;
  for (const int maxSize : {8, -8}) {
    Json faulty = {{"ArrayStyle", 1}, {"ArrayMaxSize", maxSize}};
    if (maxSize < 0) faulty["ArrayNullElement"] = true;
    EXPECT_FALSE(ReadArrayConfiguration(faulty, arrays)) << maxSize;
  }
}

TEST_F(StoreTest, APropertyIsReplacedByAnyOtherWithoutRemainsAndNothingElse) {
  const char* values[] = {"1",  R"("text")", R"({"x":{"y":[1]}})", R"([1,{"z":[[]]}])", R"({"@odata.id":"/m"})", "{}",
                          "[]", "null"};
  for (const char* from : values) {
    for (const char* to : values) {
      // A sibling, a foreign key, and what an interrupted write has left.
      Store(
          R"({"/k":{"p/q":"&&Object p/q &&/k/p/q","p":"&&Object p /other"},"&&/k/p/q":{"x":"2"},"/other":{"x":"1"}})");
      const DatabaseDump surroundings = {
          {"&&/k/p/q", "{x=2}"}, {"/other", "{x=1}"}, {"/k", "{p/q=&&Object p/q &&/k/p/q}"}};
      if (Json::parse(from).is_structured()) HashWrite(redis(), "&&/k/p", "stale", "1");
      ASSERT_TRUE(UpdateProperty(redis(), "/k", "p", Json::parse(from)));
      ASSERT_TRUE(UpdateProperty(redis(), "/k", "p", Json::parse(to)));
      EXPECT_EQ(Read("/k"), Json({{"p/q", {{"x", 2}}}, {"p", Json::parse(to)}})) << from << " -> " << to;
      ASSERT_TRUE(RemoveProperty(redis(), "/k", "p"));
      KeyDelete(redis(), kCounter);
      EXPECT_EQ(Dump(), surroundings) << from << " -> " << to;
    }
  }
}

TEST_F(StoreTest, ADocumentIsDeletedWithOneUnlinkAsFarAsItCanBeRead) {
  Write("/k", R"({"a":{"b":[{"x":1},[2]]},"c":[],"r":{"@odata.id":"/other"}})");
  ASSERT_TRUE(HashWrite(redis(), "/other", "x", "1"));
  ASSERT_TRUE(HashWrite(redis(), "/k", "foreign", "&&Object foreign /other"));
  ASSERT_TRUE(HashWrite(redis(), "/k", "garbage", "neither marker nor JSON"));
  TripCounter proxy(Server().SocketPath());
  const RedisContext connection = proxy.Connect();
  EXPECT_TRUE(DeleteResource(connection.get(), "/k"));
  EXPECT_EQ(proxy.trips(), 6U) << "TYPE, four levels, UNLINK";
  EXPECT_TRUE(proxy.commands().back().starts_with("UNLINK"));
  EXPECT_EQ(Dump(), (DatabaseDump{{"/other", "{x=1}"}, {kCounter, "2"}}));
  EXPECT_TRUE(DeleteResource(redis(), "/k")) << "deleted already";

  Store(R"({"/k":{"a":"&&Object a &&/k/a","b":"&&Object b &&/k/b"},"&&/k/a":"text",
            "&&/k/b":{"c":"&&Object c &&/k/b/c"},"&&/k/b/c":{"d":"&&Array d &&/k/b/c/d"},"&&/k/b/c/d":["1"]})");
  const StreamCapture capture(STDERR_FILENO);
  EXPECT_FALSE(DeleteResource(redis(), "/k"));
  EXPECT_EQ(capture.Text(), "[ERROR] Gets redis resource failed. RESOURCE=&&/k/a\n");
  EXPECT_TRUE(Dump().empty());
}

TEST_F(StoreTest, ArraysAreClearedAndLoseElements) {
  Write("/k", R"([{"x":[1]},"same","same",[{"y":1}]])");
  ASSERT_TRUE(RemoveArrayElement(redis(), "/k", 0));
  ASSERT_TRUE(RemoveArrayElement(redis(), "/k", 1));
  EXPECT_EQ(Read("/k"), Json::parse(R"(["same",[{"y":1}]])"));
  EXPECT_FALSE(KeyExists(redis(), "&&/k/1") || KeyExists(redis(), "&&/k/1/x"));
  ASSERT_TRUE(ClearArray(redis(), "/k"));
  EXPECT_EQ(Dump(), (DatabaseDump{{kCounter, "3"}}));
}

TEST_F(StoreTest, ACollectionHoldsOneEntryForAMemberInWhateverForm) {
  for (const char* entry : {"&&ObjectRef &&/c/1", "&&ObjectRef /c/1", "/c/1"}) {
    Store(R"({"&&/c/Members":["&&ObjectRef &&/c/10"]})");
    ASSERT_TRUE(ListAppend(redis(), "&&/c/Members", entry) && AddToCollection(redis(), "/c", "/c/1"));
    EXPECT_EQ(ListLength(redis(), "&&/c/Members"), 2) << entry;
    ASSERT_TRUE(RemoveFromCollection(redis(), "/c", "/c/1") && AddToCollection(redis(), "/c", "/c/1"));
    EXPECT_EQ(Dump(), (DatabaseDump{{"&&/c/Members", "[&&ObjectRef &&/c/10, &&ObjectRef &&/c/1]"}})) << entry;
  }
}

TEST_F(StoreTest, AFailedCommandFailsTheWholeAndIsLogged) {
  const Json list = Json::parse(R"([{"x":1}])");
  Json read;
  const std::function<bool(redisContext*)> actions[] = {
      [&](redisContext* redis) { return ReadResource(redis, "/k", read); },
      [&](redisContext* redis) {
        return WriteResource(redis, "/l", {{"a", list}});
      },
      [&](redisContext* redis) { return UpdateProperty(redis, "/k", "a", list); },
      [](redisContext* redis) { return RemoveProperty(redis, "/k", "a"); },
      [](redisContext* redis) { return DeleteResource(redis, "/k"); },
      [](redisContext* redis) { return ClearArray(redis, "&&/k/a"); },
      [](redisContext* redis) { return RemoveArrayElement(redis, "&&/k/a", 0); },
      [](redisContext* redis) { return AddToCollection(redis, "/c", "/m"); },
      [](redisContext* redis) { return RemoveFromCollection(redis, "/c", "/m"); },
  };
  TripCounter proxy(Server().SocketPath());
  for (size_t action = 0; action < std::size(actions); ++action) {
    size_t commands = 0;
    for (size_t position = 0; position <= commands; ++position) {  // 0: no fault
      for (const bool isLost : {false, true}) {
        SendCommand(redis(), "FLUSHALL");
        Write("/k", R"({"a":[{"x":1}]})");
        const RedisContext connection = proxy.Connect();
        proxy.Reset(isLost ? RedisFaults{.cutAfter = position - 1} : RedisFaults{.failedCommand = position});
        const StreamCapture capture(STDERR_FILENO);
        const bool succeeded = actions[action](connection.get());
        if (position == 0) commands = proxy.commands().size();
        // A counter that cannot be incremented is begun anew.
        const bool succeeds = position == 0 || (!isLost && proxy.commands()[position - 1].starts_with("INCR"));
        EXPECT_EQ(succeeded, succeeds) << action << " at " << position;
        const long lines = std::ranges::count(capture.Text(), '\n');
        EXPECT_TRUE(lines == (succeeds ? 0 : 1) || (isLost && lines > 0)) << capture.Text();
        EXPECT_TRUE(isLost || TextOf(SendCommand(connection.get(), "PING")) == "PONG") << "out of step: " << action;
      }
    }
  }
}

TEST_F(StoreTest, EachWriteThatFailedIsTold) {
  const StreamCapture capture(STDERR_FILENO);
  CannedConnection server(":1\r\n:1\r\n-ERR no\r\n+OK\r\n");
  EXPECT_FALSE(WriteResource(server.redis(), "/k", {{"a", 1}, {"b", 1}, {"c", 1}, {"d", 1}}));
  std::vector<RedisReply> noReply(1);
  EXPECT_FALSE(CheckWriteReplies(redis(), noReply, "/l"));
  EXPECT_EQ(capture.Text(),
            "[ERROR] Updates property reply type is incorrect. RESOURCE=/k, RESULT_CODE=6\n"
            "[ERROR] Updates property reply type is incorrect. RESOURCE=/k, RESULT_CODE=5\n"
            "[ERROR] Redis get reply failed! RESOURCE=/k\n"
            "[ERROR] Updates property failed with NULL result. RESOURCE=/l\n");
}

}  // namespace
}  // namespace event_service
