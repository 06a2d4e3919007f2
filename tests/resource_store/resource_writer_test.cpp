#include "resource_store/resource_writer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "resource_store/resource_reader.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"
#include "tests/support/trip_counter.h"

namespace event_service {
namespace {

constexpr const char* kCounter = "Array-Member-Sequence-ID";

class ResourceWriterTest : public RedisTest {
 protected:
  void SetCounter(const std::string& value) { SendArguments(redis(), {"SET", kCounter, value}); }
  std::string Counter() { return std::string(TextOf(SendCommand(redis(), "GET %s", kCounter))); }
  std::vector<std::string> List(const std::string& key) {
    std::vector<std::string> elements;
    const RedisReply reply = SendArguments(redis(), {"LRANGE", key, "0", "-1"});
    for (size_t i = 0; IsArray(reply) && i < reply->elements; ++i) elements.emplace_back(TextOf(reply->element[i]));
    return elements;
  }
};

TEST_F(ResourceWriterTest, StoresTheDocumentedExample) {
  SetCounter("41");
  const Json document = Json::parse(R"({"Id":"1","Count":3,"Enabled":true,"Note":null,"Status":{"State":"Enabled"},
      "Owner":{"@odata.id":"/redfish/v1/Managers/1"},"Tags":["a",{"x":1}],"&&ReturnChannel":"CH1"})");
  ASSERT_TRUE(WriteResource(redis(), "/redfish/v1/Example", document));

  const std::map<std::string, std::map<std::string, std::string>> hashes = {
      {"/redfish/v1/Example",
       {{"Id", "\"1\""},
        {"Count", "3"},
        {"Enabled", "true"},
        {"Note", "null"},
        {"Status", "&&Object Status &&/redfish/v1/Example/Status"},
        {"Owner", "&&ObjectRef Owner /redfish/v1/Managers/1"},
        {"Tags", "&&Array Tags &&/redfish/v1/Example/Tags"},
        {"&&ReturnChannel", "CH1"}}},
      {"&&/redfish/v1/Example/Status", {{"State", "\"Enabled\""}}},
      {"&&/redfish/v1/Example/Tags/42", {{"x", "1"}}},
  };
  for (const auto& [key, fields] : hashes) {
    EXPECT_EQ(SendArguments(redis(), {"HLEN", key})->integer, static_cast<long long>(fields.size())) << key;
    for (const auto& [field, value] : fields) EXPECT_EQ(HashRead(redis(), key, field), value) << key << " " << field;
  }
  EXPECT_EQ(List("&&/redfish/v1/Example/Tags"),
            (std::vector<std::string>{"\"a\"", "&&Object &&/redfish/v1/Example/Tags/42"}));
  EXPECT_EQ(Counter(), "42");
  EXPECT_EQ(Dump().size(), 5u) << "a reference has no key of its own";
}

TEST_F(ResourceWriterTest, TheCounterIsTakenOnceAndStoredBackWhenItMoved) {
  const struct {
    const char* before;
    const char* document;
    const char* after;
  } cases[] = {
      {"41", R"({"a":1})", "42"},  // taken, not moved
      {"41", R"({"a":[{},[],{}]})", "44"},
      {"41", R"({"a":["x",1,null],"b":{"c":{}}})", "42"},
      {"41", R"({"a":[{"@odata.id":"/m"},{}]})", "43"},
      {"9223372036854775806", R"({"a":[{}]})", "1"},  // 2^63 - 1 is handed out, the counter wraps
      {"9223372036854775807", R"({"a":[{}]})", "1"},  // cannot be incremented
      {"garbage", R"({"a":[{}]})", "1"},
  };
  for (const auto& row : cases) {
    SetCounter(row.before);
    ASSERT_TRUE(WriteResource(redis(), "/k", Json::parse(row.document)));
    EXPECT_EQ(Counter(), row.after) << row.before << " " << row.document;
    SendCommand(redis(), "DEL /k &&/k/a &&/k/b");
  }
  SendCommand(redis(), "DEL %s", kCounter);
  ASSERT_TRUE(WriteResource(redis(), "/k", Json::parse(R"([{"x":1}])")));
  EXPECT_EQ(List("/k"), std::vector<std::string>{"&&Object &&/k/1"});
  EXPECT_EQ(Counter(), "1");
}

TEST_F(ResourceWriterTest, StoreSequenceIdKeepsToItsRange) {
  const struct {
    int64_t next;
    const char* stored;
  } cases[] = {
      {2, "1"}, {43, "42"}, {INT64_MAX - 1, "9223372036854775805"}, {INT64_MAX, "1"}, {1, "1"}, {0, "1"}, {-7, "1"},
  };
  for (const auto& row : cases) {
    EXPECT_TRUE(StoreSequenceId(redis(), row.next));
    EXPECT_EQ(Counter(), row.stored) << row.next;
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

TEST_F(ResourceWriterTest, ControlFieldsAreRawStringsOrNotWritten) {
  ASSERT_TRUE(
      WriteResource(redis(), "/k", Json::parse(R"({"&&Raw":"a \"b\"","&&Number":1,"&&Object":{"x":1},"x":1})")));
  EXPECT_EQ(HashRead(redis(), "/k", "&&Raw"), "a \"b\"");
  EXPECT_EQ(SendCommand(redis(), "HLEN /k")->integer, 2);
}

TEST_F(ResourceWriterTest, OnlyArrayElementsLoseTheQuotesOfMarkerTexts) {
  const Json text = "&&Object two words";
  ASSERT_TRUE(WriteResource(redis(), "/k", {{"member", text}, {"list", {text, "&&Object"}}}));
  EXPECT_EQ(HashRead(redis(), "/k", "member"), "\"&&Object two words\"");
  EXPECT_EQ(List("&&/k/list"), (std::vector<std::string>{"&&Object two words", "\"&&Object\""}));
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

TEST_F(ResourceWriterTest, WhatIsNoContainerOrTooDeepIsRefusedBeforeAnythingIsWritten) {
  Json deep = Json::array();
  for (size_t level = 1; level < kMaxNesting; ++level) deep = Json::array({deep});
  ASSERT_TRUE(WriteResource(redis(), "/deep", deep));
  Json back;
  ASSERT_TRUE(ReadResource(redis(), "/deep", back));
  EXPECT_EQ(back, deep);

  const DatabaseDump before = Dump();
  const StreamCapture capture(STDERR_FILENO);
  EXPECT_FALSE(WriteResource(redis(), "/k", Json::array({deep})));
  EXPECT_FALSE(WriteResource(redis(), "/k", "text"));
  EXPECT_EQ(capture.Text(),
            "[ERROR] Resource is nested too deep. RESOURCE=/k\n[ERROR] Resource is no object or array. RESOURCE=/k\n");
  EXPECT_EQ(Dump(), before);
}

TEST_F(ResourceWriterTest, ABatchTakesSeveralPropertiesAndTheCounter) {
  ASSERT_TRUE(WriteResource(redis(), "/k", Json::parse(R"({"list":[{"x":1}],"text":"old"})")));
  RedisPipeline pipeline(redis());
  int64_t next = 100;
  const std::vector<std::string> oldKeys = {"&&/k/list", "&&/k/list/1"};
  ASSERT_TRUE(AppendPropertyWrites(pipeline, "/k", "list", Json::parse(R"([{"y":2}])"), next, oldKeys));
  ASSERT_TRUE(AppendPropertyWrites(pipeline, "/k", "text", "new", next));
  AppendPropertyRemoval(pipeline, "/k", "gone");
  EXPECT_TRUE(AllIntegers(pipeline.Execute()));
  AppendSequenceStore(pipeline, next);
  EXPECT_EQ(TextOf(pipeline.Execute().front()), "OK");
  EXPECT_EQ(Counter(), "100");
  Json document;
  ASSERT_TRUE(ReadResource(redis(), "/k", document));
  EXPECT_EQ(document, Json::parse(R"({"list":[{"y":2}],"text":"new"})"));
  EXPECT_FALSE(KeyExists(redis(), "&&/k/list/1"));
}

TEST(ArrayStyles, NeedsSequenceIdsOnlyForContainersInArrays) {
  const struct {
    const char* document;
    bool needs;
  } cases[] = {
      {R"({"a":{"b":{}}})", false}, {R"({"a":[1,"x"]})", false},   {R"({"a":[{"@odata.id":"/m"}]})", false},
      {R"({"a":[{}]})", true},      {R"({"a":{"b":[[]]}})", true}, {R"([[{"@odata.id":"/m"}]])", true},
  };
  for (const auto& row : cases) EXPECT_EQ(NeedsSequenceIds(Json::parse(row.document)), row.needs) << row.document;
}

TEST(ArrayStyles, ShapeEveryArray) {
  const struct {
    ArrayConfiguration arrays;
    const char* given;
    const char* shaped;
  } cases[] = {
      {{0, 1, true}, "[1,null,2]", "[1,null,2]"},
      {{1, 3, false}, "[1,null]", "[1,null]"},
      {{1, 3, true}, "[1,null]", "[1,null,null]"},
      {{1, 2, true}, "[1,2,3]", nullptr},
      {{2, 2, true}, "[null,1,null,2]", "[1,2]"},
      {{2, 1, true}, "[1,2]", nullptr},
      {{3, 3, true}, "[null,1,null]", "[null,1,null]"},
      {{3, 2, true}, "[null,1,null]", nullptr},
      {{1, 2, true}, R"({"a":{"b":[[]]}})", R"({"a":{"b":[[null,null],null]}})"},
      {{3, 1, false}, R"({"a":[{"b":[1,2]}]})", nullptr},
  };
  const StreamCapture capture(STDERR_FILENO);
  for (const auto& row : cases) {
    Json document = Json::parse(row.given);
    ASSERT_EQ(ShapeArrays(document, row.arrays), row.shaped != nullptr) << row.given;
    if (row.shaped == nullptr) continue;
    EXPECT_EQ(document.dump(), row.shaped);
  }
}

TEST_F(ResourceWriterTest, ATooLongArrayLeavesNothingBehind) {
  const StreamCapture capture(STDERR_FILENO);
  EXPECT_FALSE(WriteResource(redis(), "/k", Json::parse(R"({"a":1,"b":[1,2]})"), {.style = 3, .maxSize = 1}));
  EXPECT_TRUE(Dump().empty());
  ASSERT_TRUE(WriteResource(redis(), "/k", Json::parse(R"({"b":[1]})"), {.style = 1, .maxSize = 2, .fillNull = true}));
  EXPECT_EQ(List("&&/k/b"), (std::vector<std::string>{"1", "null"}));
}

TEST(ArrayStyles, ReadsTheirConfiguration) {
  const struct {
    const char* configuration;
    bool isRead;
    const char* log;
  } cases[] = {
      {R"({"ArrayStyle":2,"ArrayMaxSize":8,"ArrayNullElement":true})", true,
       "[INFO] Input Array style =2, maxSize=8, fill null element=true\n"},
      {R"({"ArrayStyle":4,"ArrayMaxSize":8,"ArrayNullElement":false})", false,
       "[INFO] Input Array style =4, maxSize=8, fill null element=false\n[ERROR] Array style is incorrect.\n"},
      {R"({"ArrayStyle":1,"ArrayMaxSize":8})", false, "[ERROR] Reads array configuration failed!\n"},
      {R"({"ArrayStyle":"1","ArrayMaxSize":8,"ArrayNullElement":false})", false,
       "[ERROR] Reads array configuration failed!\n"},
      {R"({"ArrayStyle":1,"ArrayMaxSize":-8,"ArrayNullElement":false})", false,
       "[ERROR] Reads array configuration failed!\n"},
      {R"([])", false, "[ERROR] Reads array configuration failed!\n"},
  };
  for (const auto& row : cases) {
    const StreamCapture capture(STDERR_FILENO);
    ArrayConfiguration arrays;
    EXPECT_EQ(ReadArrayConfiguration(Json::parse(row.configuration), arrays), row.isRead) << row.configuration;
    EXPECT_EQ(capture.Text(), row.log);
    EXPECT_EQ(arrays.style, row.isRead ? 2 : 0);
  }
}

}  // namespace
}  // namespace event_service
