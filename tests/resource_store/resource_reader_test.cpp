#include "resource_store/resource_reader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "resource_store/resource_writer.h"
#include "tests/support/canned_replies.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"
#include "tests/support/trip_counter.h"

namespace event_service {
namespace {

class ResourceReaderTest : public RedisTest {
 protected:
  void Hash(std::string_view key, std::string_view field, std::string_view value) {
    ASSERT_TRUE(HashWrite(redis(), key, field, value));
  }
  void List(std::string_view key, std::string_view value) { ASSERT_TRUE(ListAppend(redis(), key, value)); }
  Json Read(std::string_view key, const ReadOptions& options = {}) {
    Json document;
    EXPECT_TRUE(ReadResource(redis(), key, document, options)) << key;
    return document;
  }
  std::string FailureOf(std::string_view key, const ReadOptions& options = {}) {
    const StreamCapture capture(STDERR_FILENO);
    Json document;
    EXPECT_FALSE(ReadResource(redis(), key, document, options)) << key;
    return capture.Text();
  }
};

TEST_F(ResourceReaderTest, TypeIsHashListOrAFailure) {
  Hash("/hash", "a", "1");
  List("/list", "1");
  SendCommand(redis(), "SET /string text");
  EXPECT_EQ(GetResourceType(redis(), "/hash"), ContainerKind::kObject);
  EXPECT_EQ(GetResourceType(redis(), "/list"), ContainerKind::kArray);
  const StreamCapture capture(STDERR_FILENO);
  EXPECT_EQ(GetResourceType(redis(), "/string"), std::nullopt);
  EXPECT_EQ(GetResourceType(redis(), "/missing"), std::nullopt);
  EXPECT_EQ(capture.Text(),
            "[ERROR] Gets resource type failed. RESOURCE=/string, RESULT_CODE=string\n"
            "[ERROR] Gets resource type failed. RESOURCE=/missing, RESULT_CODE=none\n");
}

TEST_F(ResourceReaderTest, TakesOneTripForEachLevelAndOneForTheType) {
  ASSERT_TRUE(WriteResource(redis(), "/k", Json::parse(R"({"a":{"b":[{"x":1}]},"c":{"d":[1]},"e":1})")));
  TripCounter proxy(Server().SocketPath());
  const RedisContext connection = proxy.Connect();
  proxy.Reset();
  Json document;
  ASSERT_TRUE(ReadResource(connection.get(), "/k", document));
  EXPECT_EQ(proxy.trips(), 5u);
  proxy.Reset();
  ASSERT_TRUE(ReadResource(connection.get(), "/k", document, {.knownKind = ContainerKind::kObject}));
  EXPECT_EQ(proxy.trips(), 4u);
  const RedisReply root = SendCommand(redis(), "HGETALL /k");
  proxy.Reset();
  Json same;
  ASSERT_TRUE(ReadResource(connection.get(), "/k", root.get(), same));
  EXPECT_EQ(proxy.trips(), 3u);
  EXPECT_EQ(same, document);
}

TEST_F(ResourceReaderTest, AWalkSharesItsBatchesWithOtherCommands) {
  ASSERT_TRUE(WriteResource(redis(), "/k", Json::parse(R"({"a":{"b":[1]},"a/b":2,"c":[{"x":1}]})")));
  Json document;
  ResourceWalk walk("/k", {.knownKind = ContainerKind::kObject}, &document);
  size_t levels = 0;
  for (; !walk.Done(); ++levels) {
    RedisPipeline pipeline(redis());
    pipeline.Append({"PING"});
    walk.AppendLevel(pipeline);
    const size_t last = pipeline.Append({"EXISTS", "/k"});
    const std::vector<RedisReply> replies = pipeline.Execute();
    ASSERT_TRUE(walk.TakeLevel(replies));
    EXPECT_EQ(replies[last]->integer, 1);
  }
  EXPECT_EQ(levels, 3u);
  EXPECT_EQ(document, Json::parse(R"({"a":{"b":[1]},"a/b":2,"c":[{"x":1}]})"));
  EXPECT_EQ(walk.KeysOfMember("a"), (std::vector<std::string>{"&&/k/a", "&&/k/a/b"}));
  EXPECT_EQ(walk.KeysOfMember("c"), (std::vector<std::string>{"&&/k/c", "&&/k/c/1"}));
  EXPECT_TRUE(walk.KeysOfMember("a/b").empty());
}

TEST_F(ResourceReaderTest, EachKeyIsReadOnce) {
  Hash("/k", "self", "&&Object self /k");
  Hash("/k", "child", "&&Object child &&/k/child");
  Hash("&&/k/child", "up", "&&Object up /k");
  Hash("&&/k/child", "x", "1");
  Hash("/k", "twin", "&&Object twin &&/k/child");
  Json document = Read("/k");
  EXPECT_EQ(document["child"].size() + document["twin"].size(), 2u) << "one of the two holds the members";
  document.erase("child");
  document.erase("twin");
  EXPECT_EQ(document, Json::parse(R"({"self":{}})"));
  std::vector<std::string> keys;
  ASSERT_TRUE(CollectResourceKeys(redis(), "/k", keys));
  EXPECT_EQ(keys, (std::vector<std::string>{"/k", "&&/k/child"}));
}

TEST_F(ResourceReaderTest, MarkersOfAnotherShapeAreSkipped) {
  Hash("/k", "four", "&&Object four words here");
  Hash("/k", "two", "&&Object &&/k/two");
  Hash("/k", "kind", "&&Thing kind &&/k/kind");
  Hash("/k", "list", "&&Array list &&/k/list");
  List("&&/k/list", "&&Object x y");
  List("&&/k/list", "&&Removed");
  List("&&/k/list", "&&ObjectRef /m");
  List("&&/k/list", "1");
  EXPECT_EQ(Read("/k"), Json::parse(R"({"list":[{"@odata.id":"/m"},1]})"));
}

TEST_F(ResourceReaderTest, ControlFieldsAreLeftOutOrGivenAsStrings) {
  Hash("/k", "&&Raw", "CH1");
  Hash("/k", "&&Number", "1");
  Hash("/k", "&&Marker", "&&Object x /other");
  Hash("/k", "x", "1");
  Hash("/other", "secret", "1");
  EXPECT_EQ(Read("/k"), Json::parse(R"({"x":1})"));
  EXPECT_EQ(Read("/k", {.withControlFields = true}),
            Json::parse(R"({"x":1,"&&Raw":"CH1","&&Number":"1","&&Marker":"&&Object x /other"})"));
  std::vector<std::string> keys;
  ASSERT_TRUE(CollectResourceKeys(redis(), "/k", keys));
  EXPECT_EQ(keys, std::vector<std::string>{"/k"});
}

TEST_F(ResourceReaderTest, ARequestBodyReachesNoForeignKey) {
  Hash("/secret", "Password", "\"x\"");
  List("/secrets", "\"x\"");
  // What a front end stores for {"L":["&&Object /secret","&&Array /secrets","&&Object a \"b\"", {"@odata.id":"/m"},
  // {"own":1}]}.
  ASSERT_TRUE(WriteResource(redis(), "&&body", Json::parse(R"({"L":["&&Object /secret","&&Array /secrets",
      "&&Object a \"b\"","&&Object &&body/L/x",{"@odata.id":"/m"},{"own":1}],"O":{"deep":[[2]]}})")));
  EXPECT_EQ(Read("&&body")["L"][0], Json::parse(R"({"Password":"x"})")) << "a resource is read through every marker";
  Hash("&&body", "F", "&&Object F /secret");
  Hash("&&body", "a b", "&&Array a b &&body/a b");
  EXPECT_EQ(Read("&&body", {.followForeignMarkers = false}),
            Json::parse(R"({"L":["&&Object /secret","&&Array /secrets","&&Object a \"b\"","&&Object &&body/L/x",
                            {"@odata.id":"/m"},{"own":1}],"O":{"deep":[[2]]},"F":{"Password":"x"},
                            "a b":"&&Array a b &&body/a b"})"));
}

TEST_F(ResourceReaderTest, OwnKeysOnlyLeavesForeignContainersEmpty) {
  Hash("/k", "mine", "&&Object mine &&/k/mine");
  Hash("&&/k/mine", "x", "1");
  Hash("/k", "theirs", "&&Object theirs &&/other/part");
  Hash("&&/other/part", "x", "1");
  EXPECT_EQ(Read("/k", {.ownKeysOnly = true}), Json::parse(R"({"mine":{"x":1},"theirs":{}})"));
  std::vector<std::string> keys;
  ASSERT_TRUE(CollectResourceKeys(redis(), "/k", keys, true));
  EXPECT_EQ(keys, (std::vector<std::string>{"/k", "&&/k/mine"}));
}

TEST_F(ResourceReaderTest, ContainersThatNobodyAskedForStayEmpty) {
  ASSERT_TRUE(WriteResource(redis(), "/k", Json::parse(R"({"a":{"c":{"d":1}},"b":{"x":1},"c":[1],"e":1})")));
  const Json wanted = Json::parse(R"({"a":{},"other":1})");
  EXPECT_EQ(Read("/k", {.onlyMembersOf = &wanted}), Json::parse(R"({"a":{"c":{"d":1}},"b":{},"c":[],"e":1})"));
}

TEST_F(ResourceReaderTest, NumbersThatJsonCannotHoldAreKeptAsWritten) {
  const char* texts[] = {"1.50", "1E2", "-0", "123456789012345678901234567890", "1e400", "-1e400"};
  for (const char* text : texts) List("/k", text);
  List("/k", "18446744073709551615");
  List("/k", "-9223372036854775808");
  List("/k", "0.1");
  NumberTexts numbers;
  const Json document = Read("/k", {.numberTexts = &numbers});
  for (const Json& number : document) EXPECT_TRUE(number.is_number());
  EXPECT_EQ(document[5], std::numeric_limits<double>::lowest());
  EXPECT_EQ(document[6].get<uint64_t>(), UINT64_MAX);
  EXPECT_EQ(document[7].get<int64_t>(), INT64_MIN);
  ASSERT_EQ(numbers.size(), std::size(texts));
  for (size_t i = 0; i < std::size(texts); ++i) EXPECT_EQ(numbers[std::to_string(i)], texts[i]);

  ASSERT_TRUE(WriteResource(redis(), "/nested", Json::parse(R"({"a":{"b":[1,2]}})")));
  SendCommand(redis(), "LSET &&/nested/a/b 1 2.00");
  numbers.clear();
  EXPECT_EQ(Read("/nested", {.numberTexts = &numbers}), Json::parse(R"({"a":{"b":[1,2.0]}})"));
  EXPECT_EQ(numbers, (NumberTexts{{"a/b/1", "2.00"}}));
}

TEST_F(ResourceReaderTest, ContainersNestNoDeeperThanTheLimit) {
  std::string key = "&&/k";
  for (size_t level = 1; level < kMaxNesting; ++level) {
    const std::string child = ChildKey(key, "a");
    Hash(key, "a", "&&Object a " + child);
    key = child;
  }
  Hash(key, "text", "1");
  EXPECT_TRUE(Read("&&/k").is_object());
  const std::string tooDeep = "[ERROR] Resource is nested too deep. RESOURCE=" + key.substr(0, 256) + " FIELDS=b\n";
  for (const char* value : {"&&Array b &&/x", "[]", "&&ObjectRef b /m"}) {
    Hash(key, "b", value);
    EXPECT_EQ(FailureOf("&&/k"), tooDeep) << value;
  }
  Hash("/flat", "a", std::string(1'000'000, '[') + std::string(1'000'000, ']'));
  EXPECT_EQ(FailureOf("/flat"), "[ERROR] Resource is nested too deep. RESOURCE=/flat FIELDS=a\n");
}

TEST_F(ResourceReaderTest, WhatIsNeitherMarkerNorJsonFailsTheRead) {
  const std::string texts[] = {"", "CH1", "\"open", "1 2", "{\"a\":}", "\"\xff\"", "nan", "&", std::string("1\0", 2)};
  for (const std::string& text : texts) {
    SendCommand(redis(), "DEL /k");
    Hash("/k", "a", text);
    EXPECT_EQ(FailureOf("/k"), "[ERROR] Gets redis resource failed. RESOURCE=/k FIELDS=a\n") << text;
  }
  Hash("/k", "b", "garbage too");
  EXPECT_EQ(std::ranges::count(FailureOf("/k"), '\n'), 1) << "one line for one read";
  List("/list", "1");
  List("/list", "garbage");
  EXPECT_EQ(FailureOf("/list"), "[ERROR] Gets redis resource failed. RESOURCE=/list, ELEMENT=1\n");
  std::vector<std::string> keys;
  EXPECT_TRUE(CollectResourceKeys(redis(), "/k", keys)) << "values are not looked at for the keys";
}

TEST_F(ResourceReaderTest, WrongTypedKeysFailTheReadButNotTheOtherKeys) {
  ASSERT_TRUE(WriteResource(redis(), "/k", Json::parse(R"({"a":{"x":1},"b":{"c":{"x":1}}})")));
  SendCommand(redis(), "SET /string text");
  SendCommand(redis(), "DEL &&/k/a");
  SendCommand(redis(), "SET &&/k/a text");
  EXPECT_EQ(FailureOf("/string"), "[ERROR] Gets resource type failed. RESOURCE=/string, RESULT_CODE=string\n");
  EXPECT_EQ(FailureOf("/string", {.knownKind = ContainerKind::kObject}),
            "[ERROR] Gets redis resource failed. RESOURCE=/string\n");
  EXPECT_EQ(FailureOf("/k"), "[ERROR] Gets redis resource failed. RESOURCE=&&/k/a\n");
}

TEST(ResourceReader, RepliesOfAnyShapeAreJudged) {
  const char* replies[] = {":1\r\n",
                           "+OK\r\n",
                           "$-1\r\n",
                           "*-1\r\n",
                           "*1\r\n$1\r\na\r\n",
                           "*2\r\n$1\r\na\r\n:1\r\n",
                           "*2\r\n$1\r\na\r\n$-1\r\n",
                           "*2\r\n$1\r\na\r\n*1\r\n$1\r\nb\r\n"};
  for (const char* reply : replies) {
    CannedConnection connection(reply);
    const StreamCapture capture(STDERR_FILENO);
    Json document;
    EXPECT_FALSE(ReadResource(connection.redis(), "/k", document, {.knownKind = ContainerKind::kObject})) << reply;
    EXPECT_EQ(capture.Text(), "[ERROR] Gets redis resource failed. RESOURCE=/k\n") << reply;
  }
}

}  // namespace
}  // namespace event_service
