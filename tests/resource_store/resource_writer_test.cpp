#include "resource_store/resource_writer.h"

#include "tests/resource_store/store_test.h"

namespace event_service {
namespace {

class ResourceWriterTest : public StoreTest {
 protected:
  void SetCounter(const std::string& value) { SendArguments(redis(), {"SET", kCounter, value}); }
  std::string Counter() { return Dump()[kCounter]; }
};

TEST_F(ResourceWriterTest, StoresTheDocumentedExample) {
  SetCounter("41");
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
}

TEST_F(ResourceWriterTest, ControlFieldsAreRawAndOnlyElementsLoseTheQuotesOfMarkerTexts) {
  Write("/k", R"({"&&Raw":"a \"b\"","&&Number":1,"&&Object":{"x":1},"m":"&&Object two words",
                  "list":["&&Object two words","&&Object"]})");
  EXPECT_EQ(Dump()["/k"], "{&&Raw=a \"b\", list=&&Array list &&/k/list, m=\"&&Object two words\"}");
  EXPECT_EQ(Dump()["&&/k/list"], "[&&Object two words, \"&&Object\"]");
}

TEST_F(ResourceWriterTest, TheCounterIsTakenOnceAndStoredBackWhenItMoved) {
  const struct {
    const char* before;
    const char* document;
    const char* after;
  } cases[] = {
      {"41", R"({"a":["x",1,null],"b":{"c":{}}})", "42"},  // taken, not moved
      {"41", R"({"a":[{},[],{}]})", "44"},
      {"41", R"({"a":[{"@odata.id":"/m"},{}]})", "43"},
      {"9223372036854775806", R"({"a":[{}]})", "1"},  // 2^63 - 1 is handed out, the counter wraps
      {"9223372036854775807", R"({"a":[{}]})", "1"},  // cannot be incremented
      {"garbage", R"({"a":[{}]})", "1"},
      {"0", R"({"a":[{}]})", "1"},  // as a missing one
  };
  for (const auto& row : cases) {
    SetCounter(row.before);
    Write("/k", row.document);
    EXPECT_EQ(Counter(), row.after) << row.before << " " << row.document;
  }
  const std::pair<int64_t, const char*> stored[] = {
      {2, "1"}, {43, "42"}, {INT64_MAX - 1, "9223372036854775805"}, {INT64_MAX, "1"}, {1, "1"}, {-7, "1"}};
  for (const auto& [next, text] : stored) {
    EXPECT_TRUE(StoreSequenceId(redis(), next));
    EXPECT_EQ(Counter(), text) << next;
  }
}

TEST_F(ResourceWriterTest, ADocumentTakesAtMostThreeTrips) {
  TripCounter proxy(Server().SocketPath());
  const RedisContext connection = proxy.Connect();
  Json document = Json::object();
  for (int i = 0; i < 200; ++i) document["m" + std::to_string(i)] = {{"list", {1, {{"x", i}}}}};
  proxy.Reset();
  ASSERT_TRUE(WriteResource(connection.get(), "/k", document));
  EXPECT_EQ(proxy.trips(), 3u);
  proxy.Reset();
  ASSERT_TRUE(WriteResource(connection.get(), "/l", Json::parse(R"({"a":{"b":1}})")));
  EXPECT_EQ(proxy.trips(), 2u) << "the counter did not move";
}

TEST_F(ResourceWriterTest, AFailedWriteIsLoggedOnceAndEveryReplyRead) {
  const StreamCapture capture(STDERR_FILENO);
  SendCommand(redis(), "SET &&/k/a text");
  EXPECT_FALSE(WriteResource(redis(), "/k", Json::parse(R"({"a":{"x":1,"y":2},"b":3})")));
  EXPECT_EQ(capture.Text(), "[ERROR] Updates property reply type is incorrect. RESOURCE=/k, RESULT_CODE=6\n");
  EXPECT_EQ(HashRead(redis(), "/k", "b"), "3") << "the connection is in step";
}

TEST_F(ResourceWriterTest, EveryLostConnectionFailsTheWrite) {
  TripCounter proxy(Server().SocketPath());
  for (size_t answered = 0; answered < 5; ++answered) {  // INCR, HSET, RPUSH, HSET, SET
    SetCounter("41");
    proxy.Reset();
    const RedisContext connection = proxy.Connect();
    proxy.CutAfter(answered);
    const StreamCapture capture(STDERR_FILENO);
    EXPECT_FALSE(WriteResource(connection.get(), "/k", Json::parse(R"({"a":[{"x":1}]})")));
    EXPECT_EQ(capture.Text(), answered < 4 ? "[ERROR] Redis get reply failed! RESOURCE=/k\n"
                                           : "[ERROR] Updates Array Sequence Id from 42 to 43 failed!\n")
        << answered;
  }
}

TEST_F(ResourceWriterTest, WhatCannotBeStoredIsRefusedBeforeAnythingIsWritten) {
  Json deep = Json::array();
  for (size_t level = 1; level < kMaxNesting; ++level) deep = Json::array({deep});
  ASSERT_TRUE(WriteResource(redis(), "/deep", deep));
  EXPECT_EQ(Read("/deep"), deep);
  const DatabaseDump before = Dump();
  const StreamCapture capture(STDERR_FILENO);
  EXPECT_FALSE(WriteResource(redis(), "/k", Json::array({deep})));
  EXPECT_FALSE(WriteResource(redis(), "/k", "text"));
  EXPECT_FALSE(WriteResource(redis(), "/k", Json::parse(R"({"a":1,"b":[1,2]})"), {.style = 3, .maxSize = 1}));
  EXPECT_EQ(capture.Text(),
            "[ERROR] Resource is nested too deep. RESOURCE=/k\n[ERROR] Resource is no object or array. RESOURCE=/k\n"
            "[ERROR] Array is longer than its maximum size.\n");
  EXPECT_EQ(Dump(), before);
}

TEST(NeedsSequenceIds, ForContainersInArraysOnly) {
  for (const char* text : {R"({"a":{"b":{}}})", R"({"a":[1,"x"]})", R"({"a":[{"@odata.id":"/m"}]})"})
    EXPECT_FALSE(NeedsSequenceIds(Json::parse(text))) << text;
  for (const char* text : {R"({"a":[{}]})", R"({"a":{"b":[[]]}})", R"([[{"@odata.id":"/m"}]])"})
    EXPECT_TRUE(NeedsSequenceIds(Json::parse(text))) << text;
}

TEST_F(ResourceWriterTest, ArrayStylesShapeEveryArray) {
  const struct {
    ArrayConfiguration arrays;
    const char* given;
    const char* shaped;
  } cases[] = {
      {{0, 1, true}, "[1,null,2]", "[1,null,2]"},
      {{1, 3, false}, "[1,null]", "[1,null]"},
      {{1, 3, true}, "[1,null]", "[1,null,null]"},
      {{1, 2, true}, "[1,2,3]", "refused"},
      {{2, 2, true}, "[null,1,null,2]", "[1,2]"},
      {{2, 1, true}, "[1,2]", "refused"},
      {{3, 3, true}, "[null,1,null]", "[null,1,null]"},
      {{3, 2, true}, "[null,1,null]", "refused"},
      {{1, 2, true}, R"({"a":{"b":[[]]}})", R"({"a":{"b":[[null,null],null]}})"},
      {{3, 1, false}, R"({"a":[{"b":[1,2]}]})", "refused"},
  };
  const StreamCapture capture(STDERR_FILENO);
  for (const auto& row : cases) {
    SendCommand(redis(), "FLUSHALL");
    const bool isStored = WriteResource(redis(), "/k", Json::parse(row.given), row.arrays);
    EXPECT_EQ(isStored ? Read("/k").dump() : "refused", row.shaped) << row.given;
  }
}

TEST(ArrayConfiguration, IsReadWholeOrNotAtAll) {
  constexpr const char* kUnreadable = "[ERROR] Reads array configuration failed!\n";
  const std::pair<const char*, const char*> cases[] = {
      {R"({"ArrayStyle":2,"ArrayMaxSize":8,"ArrayNullElement":true})",
       "[INFO] Input Array style =2, maxSize=8, fill null element=true\n"},
      {R"({"ArrayStyle":4,"ArrayMaxSize":8,"ArrayNullElement":false})",
       "[INFO] Input Array style =4, maxSize=8, fill null element=false\n[ERROR] Array style is incorrect.\n"},
      {R"({"ArrayStyle":1,"ArrayMaxSize":8})", kUnreadable},
      {R"({"ArrayStyle":"1","ArrayMaxSize":8,"ArrayNullElement":false})", kUnreadable},
      {R"({"ArrayStyle":1,"ArrayMaxSize":-8,"ArrayNullElement":false})", kUnreadable},
      {"[]", kUnreadable},
  };
  for (const auto& [configuration, log] : cases) {
    const StreamCapture capture(STDERR_FILENO);
    ArrayConfiguration arrays;
    const bool isRead = ReadArrayConfiguration(Json::parse(configuration), arrays);
    EXPECT_EQ(capture.Text(), log);
    EXPECT_EQ(isRead, &log == &cases[0].second) << configuration;
    EXPECT_EQ(arrays.style, isRead ? 2 : 0);
  }
}

}  // namespace
}  // namespace event_service
