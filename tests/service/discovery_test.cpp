#include "service/discovery.h"

#include <gtest/gtest.h>

#include <random>
#include <regex>

namespace event_service {
namespace {

TEST(DiscoveryPatterns, AreMatchedAsTheRegularExpressionsWould) {
  const struct {
    std::regex pattern;
    const char* result;
    std::optional<std::string> (*read)(std::string_view text);
    std::vector<std::string> pieces;  // most texts begin with the first
  } cases[] = {
      {std::regex("^.*/([^/\\.]+)(\\..*)?"),
       "$1",
       [](std::string_view text) { return std::optional<std::string>(SchemaNameOf(text)); },
       {"/", "/", ".", ".", "a", "Event", "_v1", "\n", "\r", "&&", " ", std::string(1, '\0'), "\xC3"}},
      {std::regex("^&&/redfish/v1/schemas/registries/(\\w+)\\.(\\d+\\.\\d+).*/Messages/(\\w+)"),
       "\"$1.$2.$3\"",
       [](std::string_view text) { return MessageIdOf(text); },
       {"&&/redfish/v1/schemas/registries/", "Base.1.12", "Base", ".", ".", "1", "20", ".json", "/Messages/",
        "/Messages/", "/", "Key_1", "\n", "-"}},
  };
  std::mt19937 random(20211204);  // the same texts in every run
  for (const auto& row : cases) {
    int matching = 0;
    for (int i = 0; i < 100'000; ++i) {
      std::string text = random() % 16 == 0 ? "" : row.pieces[0];
      for (size_t count = random() % 9; count > 0; --count) text += row.pieces[random() % row.pieces.size()];
      std::smatch match;
      std::optional<std::string> expected;
      if (std::regex_match(text, match, row.pattern)) expected = match.format(row.result);
      ASSERT_EQ(row.read(text), expected) << testing::PrintToString(text);
      matching += expected ? 1 : 0;
    }
    EXPECT_GT(matching, 200);
  }
}

}  // namespace
}  // namespace event_service
