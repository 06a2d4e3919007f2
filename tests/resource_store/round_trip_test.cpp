/// Random documents, written and read back.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "resource_store/resource_editor.h"
#include "resource_store/resource_reader.h"
#include "tests/support/redis_test.h"

namespace event_service {
namespace {

/// Documents that the encoding can hold, out of pieces that have tripped such encodings before.
class DocumentMaker {
 public:
  explicit DocumentMaker(uint32_t seed) : random_(seed) {}

  Json Document() {
    Json document = Pick(2) == 0 ? Object(0) : Array(0);
    return document.empty() ? Json::array({nullptr}) : document;  // an empty document leaves no key
  }

 private:
  size_t Pick(size_t count) { return std::uniform_int_distribution<size_t>(0, count - 1)(random_); }

  Json Object(size_t depth) {
    // Names with "/" or a blank are kept for primitives: the former can make two child keys equal, the latter gives a
    // marker that readers skip.
    static const char* const kAny[] = {"",          "a", "a~b", "~1",   "~0", "\"", "\\", "\u00e4\u20ac\U0001F600",
                                       "@odata.id", "0", "%s",  "a\nb", "*",  "{}"};
    static const char* const kPrimitive[] = {"a/b", "/", "a b", " ", "Object &&x y"};
    Json object = Json::object();
    for (size_t i = Pick(6); i > 0; --i) {
      if (Pick(3) == 0) {
        object[kPrimitive[Pick(std::size(kPrimitive))]] = Primitive();
      } else {
        object[kAny[Pick(std::size(kAny))]] = Value(depth + 1);
      }
    }
    if (IsReference(object)) object["@odata.id"] = "/redfish/v1/Managers/2";  // none with a blank in its URI
    return object;
  }

  Json Array(size_t depth) {
    Json array = Json::array();
    for (size_t i = Pick(6); i > 0; --i) {
      Json element = Value(depth + 1);
      if (element.is_string() && IsQuotedMarkerText(element.dump())) element = "&&Object";
      array.push_back(std::move(element));
    }
    return array;
  }

  Json Value(size_t depth) {
    switch (depth > 8 ? 0 : Pick(4)) {
      case 1:
        return Object(depth);
      case 2:
        return Array(depth);
      default:
        return Primitive();
    }
  }

  Json Primitive() {
    static const char* const kTexts[] = {
        "",     " ",    "a b", "&&Object a b",           "&&Array &&/k", "&&",    "&",        "\"&&Object a b\"",
        "\\\"", "null", "1",   "\u00e4\u20ac\U0001F600", "\t\r\n\x01",   "%s %d", "</script>"};
    switch (Pick(7)) {
      case 0:
        return nullptr;
      case 1:
        return Pick(2) == 0;
      case 2:
        return std::uniform_int_distribution<int64_t>(std::numeric_limits<int64_t>::min())(random_);
      case 3:
        return std::uniform_int_distribution<uint64_t>(0)(random_);
      case 4:
        return std::ldexp(std::uniform_real_distribution<double>(-1, 1)(random_), static_cast<int>(Pick(2000)) - 1000);
      case 5:
        return std::string("nul \0 inside", 12);
      default:
        return kTexts[Pick(std::size(kTexts))];
    }
  }

  std::mt19937 random_;
};

class RoundTripTest : public RedisTest {};

TEST_F(RoundTripTest, WhatIsWrittenReadsBackEqualAndIsDeletedWhole) {
  for (uint32_t seed = 0; seed < 500; ++seed) {
    const Json document = DocumentMaker(seed).Document();
    for (const std::string key : {"/redfish/v1/k", "&&k"}) {
      SCOPED_TRACE("seed " + std::to_string(seed) + " at " + key);
      ASSERT_TRUE(WriteResource(redis(), key, document));
      Json back;
      ASSERT_TRUE(ReadResource(redis(), key, back));
      ASSERT_EQ(back, document);
      ASSERT_TRUE(ReadResource(redis(), key, back, {.followForeignMarkers = false}));
      ASSERT_EQ(back.dump(), document.dump());
      ASSERT_TRUE(DeleteResource(redis(), key));
      ASSERT_TRUE(KeyListing(redis(), "*k*").empty());
    }
  }
}

// What the encoding gives up, and what comes in its place.
TEST_F(RoundTripTest, KnownLosses) {
  const struct {
    const char* written;
    const char* read;
  } cases[] = {
      {R"({"a":["&&Object two words",1]})", R"({"a":[1]})"},             // a marker of another shape
      {R"({"a":["&&ObjectRef /m"]})", R"({"a":[{"@odata.id":"/m"}]})"},  // a marker
      {R"({"a":["&&Array &&/none"]})", R"({"a":[[]]})"},                 // a marker to nothing
      {R"({"a b":{"x":1},"c":1})", R"({"c":1})"},                        // a container under a name with a blank
      {R"({"a":{"@odata.id":"/m 1"},"c":1})", R"({"c":1})"},             // a reference with a blank
      {R"({"&&c":"text","&&n":1,"c":1})", R"({"c":1})"},                 // control fields
      {R"({"a":{"b":{"x":1}},"a/b":{"x":1}})", R"({"a":{"b":{}},"a/b":{"x":1}})"},  // two child keys are equal
  };
  for (const auto& row : cases) {
    ASSERT_TRUE(WriteResource(redis(), "/k", Json::parse(row.written)));
    Json back;
    ASSERT_TRUE(ReadResource(redis(), "/k", back)) << row.written;
    EXPECT_EQ(back, Json::parse(row.read)) << row.written;
    SendCommand(redis(), "FLUSHALL");
  }
  ASSERT_TRUE(WriteResource(redis(), "/k", Json::object()));
  EXPECT_FALSE(KeyExists(redis(), "/k")) << "an empty document";
}

}  // namespace
}  // namespace event_service
