/// What the tests of the store share: stored values as they stand in Redis, and documents.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include "resource_store/resource_editor.h"
#include "resource_store/resource_reader.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"
#include "tests/support/trip_counter.h"

namespace event_service {

inline constexpr const char* kCounter = "Array-Member-Sequence-ID";

class StoreTest : public RedisTest {
 protected:
  /// Makes these the database's keys: {"/hash": {"field": "value"}, "/list": ["element"], "/string": "text"}.
  void Store(const char* database) {
    SendCommand(redis(), "FLUSHALL");
    const Json keys = Json::parse(database);
    for (const auto& [key, content] : keys.items()) {
      if (content.is_string()) SendArguments(redis(), {"SET", key, content.get<std::string>()});
      for (const auto& [field, value] : content.items()) {
        if (content.is_object()) HashWrite(redis(), key, field, value.get<std::string>());
        if (content.is_array()) ListAppend(redis(), key, value.get<std::string>());
      }
    }
  }
  void Write(std::string_view key, const char* document) {
    ASSERT_TRUE(WriteResource(redis(), key, Json::parse(document))) << document;
  }
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

}  // namespace event_service
