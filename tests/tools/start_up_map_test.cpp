/// The start-up map script alone; that it rebuilds exactly what creations have written is a whole-daemon test.
#include "resource_store/resource_writer.h"
#include "tests/support/redis_test.h"

namespace event_service {
namespace {

class StartUpMap : public RedisTest {
 protected:
  /// Stores a member and its collection entry in the given form.
  void Add(const std::string& id, const char* resource, const std::string& entryPrefix = "&&ObjectRef &&") {
    const std::string uri = "/redfish/v1/EventService/Subscriptions/" + id;
    ASSERT_TRUE(WriteResource(redis(), uri, Json::parse(resource)));
    ASSERT_TRUE(ListAppend(redis(), "&&/redfish/v1/EventService/Subscriptions/Members", entryPrefix + uri));
  }

  /// Runs the script and gives the keys that it is about.
  DatabaseDump Run() {
    const std::string script = ReadFile(EVENT_SERVICE_SOURCE "/share/platform/scripts/InitUriAndSubscriptionMap.lua");
    const RedisReply reply = SendArguments(redis(), {"EVAL", script, "0"});
    EXPECT_EQ(TextOf(reply), "OK") << (reply && reply->str != nullptr ? reply->str : "");
    DatabaseDump dump = Dump();
    std::erase_if(dump, [](const auto& entry) { return !entry.first.starts_with("&&subs:"); });
    return dump;
  }
};

TEST_F(StartUpMap, MasksJoinTheBitsOfPrefixesOrOfMessageIds) {
  for (int i = 1; i <= 40; ++i) {
    ASSERT_TRUE(ListAppend(redis(), "&&/redfish/v1/EventService/RegistryPrefixes", "\"R" + std::to_string(i) + "\""));
  }
  const struct {
    const char* resource;
    const char* mask;
  } cases[] = {
      {R"({"Context": null})", "-1"},
      {R"({"RegistryPrefixes": [], "MessageIds": []})", "-1"},
      {R"({"RegistryPrefixes": ["R1", "R3", "R1"]})", "5"},
      {R"({"RegistryPrefixes": ["R2"], "MessageIds": ["R1.1.0.A"]})", "2"},
      {R"({"RegistryPrefixes": ["Unknown"]})", "0"},
      {R"({"MessageIds": [null]})", "0"},
      {R"({"RegistryPrefixes": ["R31"]})", "1073741824"},
      {R"({"RegistryPrefixes": ["R32", "R40", "R1"]})", "2147483647"},
      {R"({"MessageIds": ["R1.1.0.A", "R1.1.0.B", "R4.1.0.A", "R9"]})", "265"},
  };
  for (const auto& row : cases) {
    ASSERT_TRUE(SendCommand(redis(), "DEL &&/redfish/v1/EventService/Subscriptions/Members"));
    for (const std::string& key : KeyListing(redis(), "*Subscriptions/A*")) ASSERT_TRUE(KeyDelete(redis(), key));
    Add("A", row.resource);
    EXPECT_EQ(Run(), (DatabaseDump{{"&&subs:*", std::string("{A=") + row.mask + "}"}})) << row.resource;
  }
}

TEST_F(StartUpMap, OriginsAndSubordinatesGetTheirKeysAndStaleOnesGo) {
  ASSERT_TRUE(HashWrite(redis(), "&&subs:Chassis/9", "Gone", "-1"));
  ASSERT_TRUE(HashWrite(redis(), "&&subs:MetricReport", "Total_Num_Subscriber", "9"));
  ASSERT_TRUE(HashWrite(redis(), "/redfish/v1/EventService", "SubordinateResourcesSupported", "true"));
  Add("A", R"({"SubordinateResources": true,
              "OriginResources": [{"@odata.id": "/redfish/v1/Chassis/1"}, {"@odata.id": "/redfish/v1/Systems/"}]})");
  Add("B", R"({"SubordinateResources": false, "OriginResources": [{"@odata.id": "/redfish/v1/Chassis/1"}]})", "");
  Add("C", R"({"SubordinateResources": true, "OriginResources": []})");
  Add("D", R"({"EventFormatType": "MetricReport"})");
  Add("E", R"({"EventFormatType": null, "SubordinateResources": null})");
  const DatabaseDump expected = {{"&&subs:*", "{C=-1, E=-1}"},     {"&&subs:Chassis/1", "{A=-1, B=-1}"},
                                 {"&&subs:Chassis/1/*", "{A=-1}"}, {"&&subs:Systems/", "{A=-1}"},
                                 {"&&subs:Systems/*", "{A=-1}"},   {"&&subs:MetricReport", "{Total_Num_Subscriber=1}"}};
  EXPECT_EQ(Run(), expected);
  EXPECT_EQ(Run(), expected) << "on a second run";
}

TEST_F(StartUpMap, EntriesWithoutASoundMemberCountForNothing) {
  ASSERT_TRUE(SendCommand(redis(), "SET /redfish/v1/EventService wrong-type"));
  ASSERT_TRUE(SendCommand(redis(), "SET &&/redfish/v1/EventService/RegistryPrefixes wrong-type"));
  Add("A", R"({"RegistryPrefixes": "no marker", "OriginResources": 7})");
  Add("A", R"({})", "");
  Add("A/Below", R"({"Context": "no member"})");
  Add("Gone", "{}");
  for (const char* entry : {"", "&&ObjectRef", "/redfish/v1/EventService", "\xff"}) {
    ASSERT_TRUE(ListAppend(redis(), "&&/redfish/v1/EventService/Subscriptions/Members", entry));
  }
  EXPECT_EQ(Run(), (DatabaseDump{{"&&subs:*", "{A=-1}"}}));
  ASSERT_TRUE(SendCommand(redis(), "DEL &&/redfish/v1/EventService/Subscriptions/Members"));
  ASSERT_TRUE(SendCommand(redis(), "SET &&/redfish/v1/EventService/Subscriptions/Members wrong-type"));
  EXPECT_EQ(Run(), DatabaseDump{});
}

}  // namespace
}  // namespace event_service
