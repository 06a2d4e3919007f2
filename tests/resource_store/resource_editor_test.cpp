#include "resource_store/resource_editor.h"

#include <functional>

#include "tests/resource_store/store_test.h"

namespace event_service {
namespace {

constexpr const char* kCollection = "/redfish/v1/EventService/Subscriptions";
constexpr const char* kMember = "/redfish/v1/EventService/Subscriptions/1";

using ResourceEditorTest = StoreTest;

TEST_F(ResourceEditorTest, APropertyIsReplacedByAnyOtherWithoutRemains) {
  constexpr const char* kOther = R"({"other":{"x":[{"y":1}]}})";
  const char* values[] = {"1",  R"("text")", R"({"x":{"y":[1]}})", R"([1,{"z":[[]]}])", R"({"@odata.id":"/m"})", "{}",
                          "[]", "null"};
  for (const char* from : values) {
    for (const char* to : values) {
      SendCommand(redis(), "FLUSHALL");
      Write("/k", kOther);
      ASSERT_TRUE(UpdateProperty(redis(), "/k", "p", Json::parse(from)));
      ASSERT_TRUE(UpdateProperty(redis(), "/k", "p", Json::parse(to)));
      Json expected = Json::parse(kOther);
      expected["p"] = Json::parse(to);
      EXPECT_EQ(Read("/k"), expected) << from << " -> " << to;
      ASSERT_TRUE(RemoveProperty(redis(), "/k", "p"));
      EXPECT_EQ(Read("/k"), Json::parse(kOther));
      EXPECT_EQ(Dump().size(), 5u) << "remains of " << from << " -> " << to;
    }
  }
}

TEST_F(ResourceEditorTest, ReplacingLeavesSiblingsAndForeignKeysAlone) {
  Store(R"({"/k":{"a":"&&Object a &&/k/a","a/b":"&&Object a/b &&/k/a/b","foreign":"&&Object foreign /other"},
      "&&/k/a":{"foreign":"&&Object foreign /other"},"&&/k/a/b":{"x":"2"},"/other":{"x":"1"}})");
  ASSERT_TRUE(UpdateProperty(redis(), "/k", "a", 1));
  ASSERT_TRUE(UpdateProperty(redis(), "/k", "foreign", 2));
  EXPECT_EQ(Read("/k"), Json::parse(R"({"a":1,"a/b":{"x":2},"foreign":2})"));
  EXPECT_EQ(Read("/other"), Json::parse(R"({"x":1})"));
}

TEST_F(ResourceEditorTest, WrongTypedKeysAreLeftAlone) {
  Store(R"({"/k":"text","/l":{"a":"&&Object a &&/l/a"},"&&/l/a":"text",
            "&&/redfish/v1/EventService/Subscriptions/Members":"text"})");
  const DatabaseDump before = Dump();
  const StreamCapture capture(STDERR_FILENO);
  EXPECT_FALSE(UpdateProperty(redis(), "/k", "a", 1));
  EXPECT_FALSE(UpdateProperty(redis(), "/l", "a", 1));
  EXPECT_FALSE(RemoveProperty(redis(), "/l", "a"));
  EXPECT_FALSE(DeleteResource(redis(), "/k"));
  EXPECT_FALSE(AddToCollection(redis(), kCollection, kMember));
  EXPECT_FALSE(RemoveFromCollection(redis(), kCollection, kMember));
  EXPECT_EQ(Dump(), before);
  EXPECT_TRUE(
      capture.Text().starts_with("[ERROR] Gets redis resource failed. RESOURCE=/k FIELDS=a\n"
                                 "[ERROR] Gets redis resource failed. RESOURCE=&&/l/a\n"));
  EXPECT_EQ(std::ranges::count(capture.Text(), '\n'), 6);
}

TEST_F(ResourceEditorTest, DeletesADocumentWithOneUnlink) {
  Write(kMember, R"({"a":{"b":[{"x":1},[2]]},"c":[],"r":{"@odata.id":"/other"}})");
  ASSERT_TRUE(HashWrite(redis(), "/other", "x", "1"));
  ASSERT_TRUE(HashWrite(redis(), kMember, "foreign", "&&Object foreign /other"));
  ASSERT_TRUE(HashWrite(redis(), kMember, "garbage", "neither marker nor JSON"));
  TripCounter proxy(Server().SocketPath());
  const RedisContext connection = proxy.Connect();
  proxy.Reset();
  EXPECT_TRUE(DeleteResource(connection.get(), kMember));
  EXPECT_EQ(proxy.trips(), 6u) << "TYPE, four levels, UNLINK";
  EXPECT_TRUE(proxy.CommandTexts().back().starts_with("UNLINK"));
  EXPECT_EQ(Dump(), (DatabaseDump{{"/other", "{x=1}"}, {kCounter, "2"}}));
  EXPECT_TRUE(DeleteResource(redis(), kMember)) << "deleted already";
}

TEST_F(ResourceEditorTest, AnUnreadablePartIsDeletedWithTheRest) {
  Store(R"({"/k":{"a":"&&Object a &&/k/a","b":"&&Object b &&/k/b"},"&&/k/a":"text",
            "&&/k/b":{"c":"&&Object c &&/k/b/c"},"&&/k/b/c":{"x":"1"}})");
  const StreamCapture capture(STDERR_FILENO);
  EXPECT_FALSE(DeleteResource(redis(), "/k"));
  EXPECT_TRUE(Dump().empty());
  EXPECT_EQ(capture.Text(), "[ERROR] Gets redis resource failed. RESOURCE=&&/k/a\n");
}

TEST_F(ResourceEditorTest, ClearsArraysAndRemovesElements) {
  Write("/k", R"([{"x":[1]},"same","same",[{"y":1}]])");
  ASSERT_TRUE(RemoveArrayElement(redis(), "/k", 0));
  ASSERT_TRUE(RemoveArrayElement(redis(), "/k", 1));
  EXPECT_EQ(Read("/k"), Json::parse(R"(["same",[{"y":1}]])"));
  EXPECT_FALSE(KeyExists(redis(), "&&/k/1") || KeyExists(redis(), "&&/k/1/x"));
  {
    const StreamCapture capture(STDERR_FILENO);
    EXPECT_FALSE(RemoveArrayElement(redis(), "/k", 2));
    EXPECT_EQ(capture.Text(), "[ERROR] Gets redis resource failed. RESOURCE=/k, ELEMENT=2\n");
  }
  ASSERT_TRUE(ClearArray(redis(), "/k"));
  EXPECT_EQ(Dump().size(), 1u) << "the counter";
  EXPECT_TRUE(ClearArray(redis(), "/k")) << "a missing array is empty";
}

TEST_F(ResourceEditorTest, LostConnectionsFailEveryReadAndChange) {
  TripCounter proxy(Server().SocketPath());
  Json document;
  const std::function<bool(redisContext*)> actions[] = {
      [&](redisContext* c) { return ReadResource(c, "/k", document); },
      [](redisContext* c) { return UpdateProperty(c, "/k", "a", Json::parse(R"([{"x":1}])")); },
      [](redisContext* c) { return RemoveProperty(c, "/k", "a"); },
      [](redisContext* c) { return DeleteResource(c, "/k"); },
      [](redisContext* c) { return ClearArray(c, "&&/k/a"); },
      [](redisContext* c) { return RemoveArrayElement(c, "&&/k/a", 0); },
      [](redisContext* c) { return AddToCollection(c, kCollection, kMember); },
      [](redisContext* c) { return RemoveFromCollection(c, kCollection, kMember); },
  };
  for (size_t action = 0; action < std::size(actions); ++action) {
    bool succeeded = false;
    for (size_t answered = 0; !succeeded; ++answered) {
      ASSERT_LT(answered, 20u);
      SendCommand(redis(), "FLUSHALL");
      Write("/k", R"({"a":[{"x":1}]})");
      proxy.Reset();
      const RedisContext connection = proxy.Connect();
      proxy.CutAfter(answered);
      const StreamCapture capture(STDERR_FILENO);
      succeeded = actions[action](connection.get());
      EXPECT_EQ(std::ranges::count(capture.Text(), '\n'), succeeded ? 0 : 1) << action << " after " << answered;
    }
  }
}

TEST_F(ResourceEditorTest, ABatchTakesSeveralPropertiesAndTheCounter) {
  Write("/k", R"({"list":[{"x":1}],"text":"old"})");
  RedisPipeline pipeline(redis());
  int64_t next = 100;
  const std::vector<std::string> oldKeys = {"&&/k/list", "&&/k/list/1"};
  ASSERT_TRUE(AppendPropertyWrites(pipeline, "/k", "list", Json::parse(R"([{"y":2}])"), next, oldKeys));
  ASSERT_TRUE(AppendPropertyWrites(pipeline, "/k", "text", "new", next));
  AppendPropertyRemoval(pipeline, "/k", "gone");
  EXPECT_TRUE(AllIntegers(pipeline.Execute()));
  AppendSequenceStore(pipeline, next);
  EXPECT_EQ(TextOf(pipeline.Execute().front()), "OK");
  EXPECT_EQ(Read("/k"), Json::parse(R"({"list":[{"y":2}],"text":"new"})"));
  EXPECT_EQ(Dump()[kCounter], "100");
  EXPECT_FALSE(KeyExists(redis(), "&&/k/list/1"));
}

TEST_F(ResourceEditorTest, ACollectionHoldsOneEntryForAMember) {
  const std::string key = MembersKey(kCollection);
  const std::string own = "&&ObjectRef &&/redfish/v1/EventService/Subscriptions/1";
  const std::string other = own + "0";
  for (const std::string& entry : {own, "&&ObjectRef " + std::string(kMember), std::string(kMember)}) {
    SendCommand(redis(), "FLUSHALL");
    ASSERT_TRUE(ListAppend(redis(), key, other) && ListAppend(redis(), key, entry));
    ASSERT_TRUE(AddToCollection(redis(), kCollection, kMember));
    EXPECT_EQ(Dump()[key], "[" + other + ", " + entry + "]");
    ASSERT_TRUE(RemoveFromCollection(redis(), kCollection, kMember));
    EXPECT_EQ(Dump()[key], "[" + other + "]") << entry;
    ASSERT_TRUE(AddToCollection(redis(), kCollection, kMember));
    EXPECT_EQ(Dump()[key], "[" + other + ", " + own + "]");
  }
  for (const char* text : {"", "\"text\"", "&&Object &&/k", "&&ObjectRef a b"}) EXPECT_EQ(MemberUriOf(text), "");
}

}  // namespace
}  // namespace event_service
