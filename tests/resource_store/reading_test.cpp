/// Random documents, written and read back.
#include <cmath>
#include <limits>
#include <random>

#include "resource_store/json_text.h"
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

TEST_F(StoreTest, ABodyHasNoMoreTextsThanItMay) {
  std::set<std::string, std::less<>> overfull;
  for (const bool isNested : {false, true}) {
    SendCommand(redis(), "EVAL %s 0", "for i = 1, 16384 do redis.call('HSET', '&&k', i, 'true') end");
    EXPECT_EQ(Read("&&k", {.overfullMembers = &overfull}).size(), 16384);
    const std::string added = isNested ? "&&Object a &&k/a" : "true";
    SendCommand(redis(), "HSET &&k %s %s", isNested ? "1" : "a", added.c_str());
    SendCommand(redis(), "HSET &&k/a a true");
    EXPECT_EQ(FailureOf("&&k", {.overfullMembers = &overfull}),
              "[ERROR] Resource is too large. RESOURCE=&&k" + std::string(isNested ? "/a" : "") + "\n");
    EXPECT_EQ(Read("&&k").size(), isNested ? 16384 : 16385);
    SendCommand(redis(), "FLUSHALL");
  }
  const std::string list = '[' + std::string(65536, ' ') + ']';
  SendCommand(redis(), "HSET &&k a %s", list.c_str());
  EXPECT_EQ(FailureOf("&&k", {.overfullMembers = &overfull}), "[ERROR] Resource is too large. RESOURCE=&&k FIELDS=a\n");
  SendCommand(redis(), "HSET &&k a %s", Json(list).dump().c_str());
  EXPECT_EQ(Read("&&k", {.overfullMembers = &overfull})["a"], list);
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
  // Half a pair, a number, a field twice.
  const std::string object = "$1\r\nc\r\n$15\r\n&&Object c /k/c\r\n", array = "$1\r\nc\r\n$14\r\n&&Array c /k/d\r\n";
  for (const std::string& reply : {"*1\r\n$1\r\na\r\n"s, "*2\r\n$1\r\na\r\n:1\r\n"s,
                                   "*4\r\n" + object + array + "*2\r\n$1\r\nx\r\n$1\r\n1\r\n*0\r\n"}) {
    CannedConnection server("+hash\r\n" + reply);
    Json document;
    EXPECT_FALSE(ReadResource(server.redis(), "/k", document)) << reply;
  }
}

/// Documents that the encoding can hold, out of pieces that have tripped such encodings before.
struct DocumentMaker {
  std::mt19937 random;

  size_t Pick(size_t count) { return std::uniform_int_distribution<size_t>(0, count - 1)(random); }

  Json Container(size_t depth = 0) {
    // The first few, with "/" or a blank, are kept for primitives: the former can make two child keys equal, the latter
    // gives a marker that readers skip.
    static const char* const kNames[] = {"a/b",       "/", "a b", " ",    "Object &&x y",
                                         "",          "a", "a~b", "~1",   "\u00e4\u20ac\U0001F600",
                                         "@odata.id", "0", "%s",  "a\nb", "\"\\"};
    Json container = Pick(2) == 0 ? Json::object() : Json::array();
    for (size_t i = Pick(6); i > 0; --i) {
      const bool isPrimitive = depth > 8 || Pick(2) == 0;
      const Json value = isPrimitive ? Primitive() : Container(depth + 1);
      if (container.is_object()) container[kNames[isPrimitive ? Pick(15) : 5 + Pick(10)]] = value;
      // A string that reads like a marker is taken for one.
      if (container.is_array()) container.push_back(IsQuotedMarkerText(value.dump()) ? Json("&&Object") : value);
    }
    if (IsReference(container)) container["@odata.id"] = "/redfish/v1/Managers/2";  // none with a blank in its URI
    return container;
  }

  Json Primitive() {
    static const char* const kTexts[] = {
        "",     " ",    "a b", "&&Object a b",           "&&Array &&/k", "&&",    "&",        "\"&&Object a b\"",
        "\\\"", "null", "1",   "\u00e4\u20ac\U0001F600", "\t\r\n\x01",   "%s %d", "</script>"};
    const Json values[] = {
        nullptr,
        true,
        std::uniform_int_distribution<int64_t>(INT64_MIN)(random),
        std::uniform_int_distribution<uint64_t>(0)(random),
        std::ldexp(std::uniform_real_distribution(-1., 1.)(random), static_cast<int>(Pick(2000)) - 1000),
        std::string("nul \0 inside", 12),
        kTexts[Pick(std::size(kTexts))]};
    return values[Pick(std::size(values))];
  }
};

TEST_F(StoreTest, WhatIsWrittenReadsBackEqualAndIsDeletedWhole) {
  std::set<std::string, std::less<>> overfull;
  for (uint32_t seed = 0; seed < 500; ++seed) {
    const Json document = DocumentMaker{std::mt19937(seed)}.Container();
    ASSERT_EQ(TolerantJsonText(document), document.dump());
    if (document.empty()) continue;  // leaves no key
    for (const std::string key : {"/redfish/v1/k", "&&k"}) {
      SCOPED_TRACE("seed " + std::to_string(seed) + " at " + key);
      ASSERT_TRUE(WriteResource(redis(), key, document));
      ASSERT_EQ(Read(key), document);
      ASSERT_EQ(Read(key, {.overfullMembers = &overfull}).dump(), document.dump());
      ASSERT_TRUE(DeleteResource(redis(), key));
      ASSERT_TRUE(KeyListing(redis(), "*k*").empty());
    }
  }
}

TEST(JsonText, EveryCharacterAtEveryPlaceIsWrittenAsTheLibraryWritesIt) {
  for (size_t i = 0; i < 1280; ++i) {
    std::string text = "0123456789";
    text[i % 10] = static_cast<char>(i / 10);
    ASSERT_EQ(JsonText(text), Json(text).dump());
    ASSERT_EQ(JsonTextSize(text), Json(text).dump().size());
  }
}

TEST(JsonText, WhatIsNoUtf8IsReplaced) {
  const Json document = {{"a\xff", {"b\xc3", "\x80", "\u00e4"}}};
  EXPECT_EQ(TolerantJsonText(document), document.dump(-1, ' ', false, Json::error_handler_t::replace));
}

}  // namespace
}  // namespace event_service
