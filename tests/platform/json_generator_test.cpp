#include "platform/json_generator/json_generator.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "resource_store/resource_writer.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"

namespace event_service {
namespace {

class JsonGeneratorTest : public RedisTest {};

TEST_F(JsonGeneratorTest, GivesDocumentsWithTheirControlFieldsAsStrings) {
  ASSERT_TRUE(
      WriteResource(redis(), "/k", Json::parse(R"({"b":[{"x":1.5},{"@odata.id":"/m"}],"&&Raw":"7","a":"\u00e4"})")));
  EXPECT_EQ(convertRedisDataToJsonString(redis(), "/k"),
            "{\"&&Raw\":\"7\",\"a\":\"\u00e4\",\"b\":[{\"x\":1.5},{\"@odata.id\":\"/m\"}]}");
  EXPECT_EQ(convertRedisDataToJsonString(redis(), "&&/k/b"), R"([{"x":1.5},{"@odata.id":"/m"}])");
  EXPECT_EQ(convertArrayDataToJsonString(redis(), "&&/k/b"), R"([{"x":1.5},{"@odata.id":"/m"}])");
  EXPECT_EQ(convertArrayDataToJsonString(redis(), "/missing"), "[]");
}

TEST_F(JsonGeneratorTest, GivesReferencesFromFieldsElementsAndCollections) {
  const struct {
    const char* marker;
    std::optional<std::string> text;
  } cases[] = {
      {"&&ObjectRef Owner /a", R"({"@odata.id":"/a"})"},
      {"&&ObjectRef /a", R"({"@odata.id":"/a"})"},
      {"&&ObjectRef &&/a", R"({"@odata.id":"/a"})"},
      {"&&Object Owner &&/k/Owner", std::nullopt},
      {"\"text\"", std::nullopt},
  };
  for (const auto& row : cases) EXPECT_EQ(convertObjectRefDataToJsonString(row.marker), row.text) << row.marker;
}

TEST_F(JsonGeneratorTest, GivesNothingForWhatIsNoJson) {
  const StreamCapture capture(STDERR_FILENO);
  ASSERT_TRUE(HashWrite(redis(), "/k", "&&Raw", "\xff"));
  EXPECT_EQ(convertRedisDataToJsonString(redis(), "/k"), std::nullopt);
  EXPECT_EQ(convertRedisDataToJsonString(redis(), "/missing"), std::nullopt);
  EXPECT_EQ(convertArrayDataToJsonString(redis(), "/k"), std::nullopt);
  EXPECT_EQ(std::ranges::count(capture.Text(), '\n'), 3);
}

}  // namespace
}  // namespace event_service
