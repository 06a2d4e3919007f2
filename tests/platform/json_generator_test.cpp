#include "platform/json_generator/json_generator.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "resource_store/resource_writer.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"

namespace event_service {
namespace {

using JsonGeneratorTest = RedisTest;

TEST_F(JsonGeneratorTest, GivesDocumentsArraysAndReferencesOrNothing) {
  ASSERT_TRUE(WriteResource(redis(), "/k", Json::parse(R"({"b":[{"x":1.5},{"@odata.id":"/m"}],"&&Raw":"7"})")));
  const char* const array = R"([{"x":1.5},{"@odata.id":"/m"}])";
  EXPECT_EQ(convertRedisDataToJsonString(redis(), "/k"), std::string(R"({"&&Raw":"7","b":)") + array + "}");
  EXPECT_EQ(convertRedisDataToJsonString(redis(), "&&/k/b"), array);
  EXPECT_EQ(convertArrayDataToJsonString(redis(), "&&/k/b"), array);
  EXPECT_EQ(convertArrayDataToJsonString(redis(), "/missing"), "[]");
  for (const char* marker : {"&&ObjectRef Owner /a", "&&ObjectRef /a", "&&ObjectRef &&/a"}) {
    EXPECT_EQ(convertObjectRefDataToJsonString(marker), R"({"@odata.id":"/a"})") << marker;
  }
  EXPECT_EQ(convertObjectRefDataToJsonString("&&Object Owner &&/k/Owner"), std::nullopt);

  const StreamCapture capture(STDERR_FILENO);
  ASSERT_TRUE(HashWrite(redis(), "/k", "&&Raw", "\xff"));
  EXPECT_EQ(convertRedisDataToJsonString(redis(), "/k"), std::nullopt);
  EXPECT_EQ(convertRedisDataToJsonString(redis(), "/missing"), std::nullopt);
  EXPECT_EQ(convertArrayDataToJsonString(redis(), "/k"), std::nullopt);
}

}  // namespace
}  // namespace event_service
