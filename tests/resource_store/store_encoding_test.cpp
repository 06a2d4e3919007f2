#include "resource_store/store_encoding.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <limits>
#include <regex>

#include "resource_store/json_text.h"
#include "tests/support/log_capture.h"

namespace event_service {
namespace {

/// Calls `check` with every text of up to `longest` pieces.
void ForEveryText(std::initializer_list<std::string_view> pieces, size_t longest,
                  const std::function<void(const std::string&)>& check, const std::string& begin = {}) {
  check(begin);
  if (longest == 0) return;
  for (const std::string_view piece : pieces) ForEveryText(pieces, longest - 1, check, begin + std::string(piece));
}

TEST(StoreEncoding, MatchersAgreeWithTheirRegularExpressions) {
  const std::regex quotedMarker("^\"&&[^ ]+ +.*\"$");
  ForEveryText({"\"", "&", "&&", "x", " ", "\n", "\r"}, 6, [&](const std::string& text) {
    ASSERT_EQ(IsQuotedMarkerText(text), std::regex_search(text, quotedMarker)) << text;
  });
  const std::regex fieldMarker("^&&(Object|Array|ObjectRef) [^ ]* [^ ]*$");
  const std::regex elementMarker("^&&(Object|Array|ObjectRef) [^ ]*$");
  ForEveryText({"&&Object", "&&Array", "Ref", " ", "x", "&&"}, 5, [&](const std::string& text) {
    ASSERT_EQ(ParseFieldMarker(text).has_value(), std::regex_search(text, fieldMarker)) << text;
    ASSERT_EQ(ParseElementMarker(text).has_value(), std::regex_search(text, elementMarker)) << text;
  });
  const std::regex number("^-?(0|[1-9][0-9]*)(\\.[0-9]+)?([eE][+-]?[0-9]+)?$");
  ForEveryText({"0", "7", "-", "+", ".", "e", "E", " "}, 6, [&](const std::string& text) {
    ASSERT_EQ(IsJsonNumber(text), std::regex_search(text, number)) << text;
  });
}

TEST(StoreEncoding, ShortcutsOfTheParserAgreeWithIt) {
  ForEveryText(
      {"\"", "\\", "a", "\x1f", "\x7f", "\xc3", "\u00e4", " ", "null", "true", "0", "12", "-", "[", "]", ",", "."}, 4,
      [](const std::string& text) {
        const Json expected = Json::parse(text, nullptr, false);
        Json value;
        bool exact = false;
        ASSERT_EQ(ParseJsonText(text, value, exact), !expected.is_discarded()) << text;
        if (expected.is_discarded()) return;
        ASSERT_EQ(value, expected) << text;
        ASSERT_EQ(value.type(), expected.type()) << text;
      });
  Json value;
  bool exact = false;
  for (const char* largest : {"999999999999999999", "9223372036854775807", "18446744073709551615"}) {
    ASSERT_TRUE(ParseJsonText(largest, value, exact));
    EXPECT_TRUE(exact && value.is_number_unsigned() && value.dump() == largest) << largest;
  }
}

TEST(StoreEncoding, LongTextsNeedNoStack) {
  EXPECT_TRUE(IsQuotedMarkerText("\"&&" + std::string(4'000'000, 'x') + std::string(4'000'000, ' ') + "\""));
}

TEST(StoreEncoding, ADocumentsKeysAreKnownByTheirBeginning) {
  const struct {
    const char* document;
    const char* key;
    bool isUnder;
  } cases[] = {
      {"/k", "&&/k/a", true},   {"/k", "&&/k/a/b", true}, {"&&/k", "&&/k/a", true},    {"/k", "/k/a", false},
      {"/k", "&&/kk/a", false}, {"/k", "&&/k", false},    {"&&/k", "&&&&/k/a", false},
  };
  for (const auto& row : cases) EXPECT_EQ(IsUnderKey(row.document, row.key), row.isUnder) << row.document << row.key;
}

TEST(StoreEncoding, DumpItemGivesTextOrChildKeyOrNothing) {
  const StreamCapture capture(STDERR_FILENO);
  int64_t none = kNoSequence;
  int64_t sequence = std::numeric_limits<int64_t>::max();
  const DumpedItem text = DumpItem("/k", &sequence, "0", "a \"b\" \u00e4");
  EXPECT_EQ(text.valueText + text.childKey + text.name, "\"a \\\"b\\\" \u00e4\"0");
  EXPECT_EQ(DumpItem("/k", &none, "Status", Json::object()).childKey, "&&/k/Status");
  EXPECT_EQ(DumpItem("&&/k", &sequence, "0", Json::array()).childKey, "&&/k/9223372036854775807");
  EXPECT_EQ(sequence, 1);
  const DumpedItem broken = DumpItem("/k", &none, "Name", "\xff");
  EXPECT_EQ(broken.valueText + broken.childKey + broken.name, "");
  EXPECT_TRUE(capture.Text().starts_with("[ERROR] Dump JSON object error. EXCEPTION=[json.exception.type_error.316]"));
}

}  // namespace
}  // namespace event_service
