#include "resource_store/resource_editor.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "resource_store/resource_reader.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"
#include "tests/support/trip_counter.h"

namespace event_service {
namespace {

constexpr const char* kCollection = "/redfish/v1/EventService/Subscriptions";
constexpr const char* kMember = "/redfish/v1/EventService/Subscriptions/1";

class ResourceEditorTest : public RedisTest {
 protected:
  void Write(std::string_view key, const char* document) {
    ASSERT_TRUE(WriteResource(redis(), key, Json::parse(document)));
  }
  Json Read(std::string_view key) {
    Json document;
    EXPECT_TRUE(ReadResource(redis(), key, document)) << key;
    return document;
  }
  std::vector<std::string> Keys() {
    std::vector<std::string> keys;
    for (const auto& [key, content] : Dump()) keys.push_back(key);
    return keys;
  }
};

TEST_F(ResourceEditorTest, APropertyIsReplacedByAnyOtherWithoutRemains) {
  const char* values[] = {"1",  R"("text")", R"({"x":{"y":[1]}})", R"([1,{"z":[[]]}])", R"({"@odata.id":"/m"})", "{}",
                          "[]", "null"};
  for (const char* from : values) {
    for (const char* to : values) {
      SendCommand(redis(), "FLUSHALL");
      Write("/k", R"({"other":{"x":[{"y":1}]}})");
      ASSERT_TRUE(UpdateProperty(redis(), "/k", "p", Json::parse(from)));
      ASSERT_TRUE(UpdateProperty(redis(), "/k", "p", Json::parse(to)));
      Json expected = Json::parse(R"({"other":{"x":[{"y":1}]}})");
      expected["p"] = Json::parse(to);
      EXPECT_EQ(Read("/k"), expected) << from << " -> " << to;

      std::vector<std::string> reachable;
      ASSERT_TRUE(CollectResourceKeys(redis(), "/k", reachable));
      for (const std::string& key : Keys()) {
        EXPECT_TRUE(key == "Array-Member-Sequence-ID" || std::ranges::count(reachable, key) == 1)
            << key << " remains of " << from << " -> " << to;
      }
      ASSERT_TRUE(RemoveProperty(redis(), "/k", "p"));
      EXPECT_EQ(Read("/k"), Json::parse(R"({"other":{"x":[{"y":1}]}})"));
    }
  }
}

TEST_F(ResourceEditorTest, ReplacingLeavesSiblingsAndForeignKeysAlone) {
  Write("/k", R"({"a":{"x":1},"a/b":{"x":2}})");
  Write("/other", R"({"x":1})");
  ASSERT_TRUE(HashWrite(redis(), "/k", "foreign", "&&Object foreign /other"));
  ASSERT_TRUE(HashWrite(redis(), "&&/k/a", "foreign", "&&Object foreign /other"));
  ASSERT_TRUE(UpdateProperty(redis(), "/k", "a", 1));
  ASSERT_TRUE(UpdateProperty(redis(), "/k", "foreign", 2));
  EXPECT_EQ(Read("/k"), Json::parse(R"({"a":1,"a/b":{"x":2},"foreign":2})"));
  EXPECT_EQ(Read("/other"), Json::parse(R"({"x":1})"));
}

TEST_F(ResourceEditorTest, NoPropertyOfAWrongTypedKeyIsChanged) {
  SendCommand(redis(), "SET /k text");
  Write("/l", R"({"a":{"x":1}})");
  SendCommand(redis(), "DEL &&/l/a");
  SendCommand(redis(), "SET &&/l/a text");
  const DatabaseDump before = Dump();
  const StreamCapture capture(STDERR_FILENO);
  EXPECT_FALSE(UpdateProperty(redis(), "/k", "a", 1));
  EXPECT_FALSE(UpdateProperty(redis(), "/l", "a", 1));
  EXPECT_FALSE(RemoveProperty(redis(), "/l", "a"));
  EXPECT_EQ(Dump(), before);
  EXPECT_EQ(
      capture.Text(),
      "[ERROR] Gets redis resource failed. RESOURCE=/k FIELDS=a\n"
      "[ERROR] Gets redis resource failed. RESOURCE=&&/l/a\n[ERROR] Gets redis resource failed. RESOURCE=&&/l/a\n");
}

TEST_F(ResourceEditorTest, DeletesADocumentWithOneUnlink) {
  Write("/other", R"({"x":1})");
  const DatabaseDump before = Dump();
  Write(kMember, R"({"a":{"b":[{"x":1},[2]]},"c":[],"r":{"@odata.id":"/other"}})");
  ASSERT_TRUE(HashWrite(redis(), kMember, "foreign", "&&Object foreign /other"));
  ASSERT_TRUE(HashWrite(redis(), kMember, "garbage", "neither marker nor JSON"));
  TripCounter proxy(Server().SocketPath());
  const RedisContext connection = proxy.Connect();
  proxy.Reset();
  EXPECT_TRUE(DeleteResource(connection.get(), kMember));
  EXPECT_EQ(proxy.trips(), 6u) << "TYPE, four levels, UNLINK";
  EXPECT_EQ(std::ranges::count_if(proxy.CommandTexts(), [](const std::string& c) { return c.starts_with("UNLINK"); }),
            1);
  SendCommand(redis(), "DEL Array-Member-Sequence-ID");
  DatabaseDump expected = before;
  expected.erase("Array-Member-Sequence-ID");
  EXPECT_EQ(Dump(), expected);
  EXPECT_TRUE(DeleteResource(redis(), kMember)) << "deleted already";
}

TEST_F(ResourceEditorTest, AUnreadablePartIsDeletedWithTheRest) {
  Write("/k", R"({"a":{"x":1},"b":{"c":{"x":1}}})");
  SendCommand(redis(), "DEL &&/k/a");
  SendCommand(redis(), "SET &&/k/a text");
  const StreamCapture capture(STDERR_FILENO);
  EXPECT_FALSE(DeleteResource(redis(), "/k"));
  EXPECT_EQ(Keys(), std::vector<std::string>{"Array-Member-Sequence-ID"});
  SendCommand(redis(), "SET /string text");
  EXPECT_FALSE(DeleteResource(redis(), "/string"));
  EXPECT_EQ(capture.Text(),
            "[ERROR] Gets redis resource failed. RESOURCE=&&/k/a\n"
            "[ERROR] Gets resource type failed. RESOURCE=/string, RESULT_CODE=string\n");
}

TEST_F(ResourceEditorTest, ClearsArraysAndRemovesElements) {
  Write("/k", R"([{"x":[1]},"same","same",[{"y":1}]])");
  ASSERT_TRUE(RemoveArrayElement(redis(), "/k", 0));
  EXPECT_EQ(Read("/k"), Json::parse(R"(["same","same",[{"y":1}]])"));
  EXPECT_FALSE(KeyExists(redis(), "&&/k/1") || KeyExists(redis(), "&&/k/1/x"));
  ASSERT_TRUE(RemoveArrayElement(redis(), "/k", 1));
  EXPECT_EQ(Read("/k"), Json::parse(R"(["same",[{"y":1}]])"));
  {
    const StreamCapture capture(STDERR_FILENO);
    EXPECT_FALSE(RemoveArrayElement(redis(), "/k", 2));
    EXPECT_EQ(capture.Text(), "[ERROR] Gets redis resource failed. RESOURCE=/k, ELEMENT=2\n");
  }
  ASSERT_TRUE(ClearArray(redis(), "/k"));
  EXPECT_EQ(Keys(), std::vector<std::string>{"Array-Member-Sequence-ID"});
  EXPECT_TRUE(ClearArray(redis(), "/k")) << "a missing array is empty";
}

TEST_F(ResourceEditorTest, LostConnectionsFailEveryChange) {
  TripCounter proxy(Server().SocketPath());
  const std::function<bool(redisContext*)> changes[] = {
      [](redisContext* c) { return UpdateProperty(c, "/k", "a", Json::parse(R"([{"x":1}])")); },
      [](redisContext* c) { return RemoveProperty(c, "/k", "a"); },
      [](redisContext* c) { return DeleteResource(c, "/k"); },
      [](redisContext* c) { return ClearArray(c, "&&/k/a"); },
      [](redisContext* c) { return RemoveArrayElement(c, "&&/k/a", 0); },
      [](redisContext* c) { return AddToCollection(c, kCollection, kMember); },
      [](redisContext* c) { return RemoveFromCollection(c, kCollection, kMember); },
  };
  for (size_t change = 0; change < std::size(changes); ++change) {
    for (size_t answered = 0;; ++answered) {
      SendCommand(redis(), "FLUSHALL");
      Write("/k", R"({"a":[{"x":1}]})");
      proxy.Reset();
      const RedisContext connection = proxy.Connect();
      proxy.CutAfter(answered);
      const StreamCapture capture(STDERR_FILENO);
      const bool succeeded = changes[change](connection.get());
      EXPECT_EQ(std::ranges::count(capture.Text(), '\n'), succeeded ? 0 : 1) << change << " after " << answered;
      if (succeeded) break;
      ASSERT_LT(answered, 20u);
    }
  }
}

TEST_F(ResourceEditorTest, ACollectionHoldsOneEntryForAMember) {
  const std::string key = MembersKey(kCollection);
  EXPECT_EQ(key, "&&/redfish/v1/EventService/Subscriptions/Members");
  const std::string other = MemberEntry(std::string(kMember) + "0");
  for (const std::string& entry : {MemberEntry(kMember), "&&ObjectRef " + std::string(kMember), std::string(kMember)}) {
    SendCommand(redis(), "FLUSHALL");
    ASSERT_TRUE(ListAppend(redis(), key, other));
    ASSERT_TRUE(ListAppend(redis(), key, entry));
    EXPECT_TRUE(IsMemberEntry(entry, kMember));
    EXPECT_FALSE(IsMemberEntry(entry, other));
    ASSERT_TRUE(AddToCollection(redis(), kCollection, kMember));
    EXPECT_EQ(ListLength(redis(), key), 2) << entry;
    ASSERT_TRUE(RemoveFromCollection(redis(), kCollection, kMember));
    EXPECT_EQ(ListLength(redis(), key), 1) << entry;
  }
  ASSERT_TRUE(AddToCollection(redis(), kCollection, kMember));
  EXPECT_EQ(TextOf(SendArguments(redis(), {"LINDEX", key, "1"})),
            "&&ObjectRef &&/redfish/v1/EventService/Subscriptions/1");
  for (const char* text : {"", "\"text\"", "&&Object &&/k", "&&ObjectRef a b"})
    EXPECT_EQ(MemberUriOf(text), "") << text;
}

TEST_F(ResourceEditorTest, AWrongTypedCollectionIsLeftAlone) {
  SendArguments(redis(), {"SET", MembersKey(kCollection), "text"});
  const StreamCapture capture(STDERR_FILENO);
  EXPECT_FALSE(AddToCollection(redis(), kCollection, kMember));
  EXPECT_FALSE(RemoveFromCollection(redis(), kCollection, kMember));
  EXPECT_EQ(std::ranges::count(capture.Text(), '\n'), 2);
}

}  // namespace
}  // namespace event_service
