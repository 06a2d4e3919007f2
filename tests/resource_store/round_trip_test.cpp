/// Random documents, written and read back.
#include <cmath>
#include <random>

#include "resource_store/json_text.h"
#include "tests/resource_store/store_test.h"

namespace event_service {
namespace {

/// Documents that the encoding can hold, out of pieces that have tripped such encodings before.
class DocumentMaker {
 public:
  explicit DocumentMaker(uint32_t seed) : random_(seed) {}

  Json Container(size_t depth = 0) {
    // The first few, with "/" or a blank, are kept for primitives: the former can make two child keys equal, the latter
    // gives a marker that readers skip.
    static const char* const kNames[] = {"a/b",       "/", "a b", " ",    "Object &&x y",
                                         "",          "a", "a~b", "~1",   "\u00e4\u20ac\U0001F600",
                                         "@odata.id", "0", "%s",  "a\nb", "\"\\"};
    Json container = Pick(2) == 0 ? Json::object() : Json::array();
    for (size_t i = Pick(6); i > 0; --i) {
      const bool isPrimitive = depth > 8 || Pick(2) == 0;
      Json value = isPrimitive ? Primitive() : Container(depth + 1);
      if (container.is_array()) {
        // A string that reads like a marker is taken for one.
        container.push_back(IsQuotedMarkerText(value.dump()) ? Json("&&Object") : std::move(value));
      } else {
        container[kNames[isPrimitive ? Pick(15) : 5 + Pick(10)]] = value;
      }
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
        std::uniform_int_distribution<int64_t>(INT64_MIN)(random_),
        std::uniform_int_distribution<uint64_t>(0)(random_),
        std::ldexp(std::uniform_real_distribution(-1., 1.)(random_), static_cast<int>(Pick(2000)) - 1000),
        std::string("nul \0 inside", 12),
        kTexts[Pick(std::size(kTexts))]};
    return values[Pick(std::size(values))];
  }

 private:
  size_t Pick(size_t count) { return std::uniform_int_distribution<size_t>(0, count - 1)(random_); }

  std::mt19937 random_;
};

TEST_F(StoreTest, WhatIsWrittenReadsBackEqualAndIsDeletedWhole) {
  std::set<std::string, std::less<>> overfull;
  for (uint32_t seed = 0; seed < 500; ++seed) {
    const Json document = DocumentMaker(seed).Container();
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
  for (int character = 0; character < 128; ++character) {
    for (size_t place = 0; place < 10; ++place) {
      std::string text = "0123456789";
      text[place] = static_cast<char>(character);
      ASSERT_EQ(JsonText(text), Json(text).dump());
      ASSERT_EQ(JsonTextSize(text), Json(text).dump().size());
    }
  }
}

TEST(JsonText, WhatIsNoUtf8IsReplaced) {
  const Json document = {{"a\xff", {"b\xc3", "\x80", "\u00e4"}}};
  EXPECT_EQ(TolerantJsonText(document), document.dump(-1, ' ', false, Json::error_handler_t::replace));
}

}  // namespace
}  // namespace event_service
