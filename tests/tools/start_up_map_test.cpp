/// The startup map script alone; that it rebuilds exactly what creations have written is a whole-daemon test.
#include "resource_store/resource_writer.h"
#include "tests/support/redis_test.h"

namespace event_service {
namespace {

class StartUpMap : public RedisTest {
 protected:
  /// Lists these members, runs the script and gives the keys that it is about.
  DatabaseDump Run(const std::vector<std::pair<std::string, std::string>>& members) {
    for (const auto& [entry, resource] : members) {
      EXPECT_TRUE(WriteResource(redis(), entry.substr(entry.rfind('&') + 1), Json::parse(resource)));
      ListAppend(redis(), "&&/redfish/v1/EventService/Subscriptions/Members", entry);
    }
    const std::string script = ReadFile(EVENT_SERVICE_SOURCE "/share/platform/scripts/InitUriAndSubscriptionMap.lua");
    EXPECT_EQ(TextOf(SendArguments(redis(), {"EVAL", script, "0"})), "OK");
    DatabaseDump dump = Dump();
    std::erase_if(dump, [](const auto& entry) { return !entry.first.starts_with("&&subs:"); });
    return dump;
  }
};

const std::string kUri = "/redfish/v1/EventService/Subscriptions/";
const std::string kEntry = "&&ObjectRef &&" + kUri;

TEST_F(StartUpMap, MasksJoinTheBitsOfPrefixesOrOfMessageIds) {
  for (int i = 1; i <= 40; ++i) {
    ListAppend(redis(), "&&/redfish/v1/EventService/RegistryPrefixes", "\"R" + std::to_string(i) + "\"");
  }
  const DatabaseDump index = Run({
      {kEntry + "A", R"({"RegistryPrefixes": [], "MessageIds": []})"},
      {kEntry + "B", R"({"RegistryPrefixes": ["R1", "R3", "R1"]})"},
      {kEntry + "C", R"({"RegistryPrefixes": ["R2"], "MessageIds": ["R1.1.0.A"]})"},
      {kEntry + "D", R"({"RegistryPrefixes": ["Unknown"]})"},
      {kEntry + "E", R"({"RegistryPrefixes": ["R31"]})"},
      {kEntry + "F", R"({"RegistryPrefixes": ["R32", "R40", "R1"]})"},
      {kEntry + "G", R"({"MessageIds": ["R1.1.0.A", "R1.1.0.B", "R4.1.0.A", "R9", null]})"},
  });
  EXPECT_EQ(index.at("&&subs:*"), "{A=-1, B=5, C=2, D=0, E=1073741824, F=2147483647, G=265}");
}

TEST_F(StartUpMap, WhatIsStaleOrNoSoundMemberCountsForNothing) {
  HashWrite(redis(), "&&subs:Chassis/9", "Gone", "-1");
  HashWrite(redis(), "&&subs:MetricReport", "Total_Num_Subscriber", "9");
  SendCommand(redis(), "SET /redfish/v1/EventService wrong-type");
  SendCommand(redis(), "SET &&/redfish/v1/EventService/RegistryPrefixes wrong-type");
  for (const char* entry : {"", "&&ObjectRef", "/redfish/v1/EventService", "\xff"}) {
    ListAppend(redis(), "&&/redfish/v1/EventService/Subscriptions/Members", entry);
  }
  const DatabaseDump expected = {{"&&subs:*", "{A=-1, B=-1}"}, {"&&subs:MetricReport", "{Total_Num_Subscriber=1}"}};
  const std::string metrics = R"({"EventFormatType": "MetricReport"})";
  EXPECT_EQ(Run({{kEntry + "A", R"({"RegistryPrefixes": "no marker", "OriginResources": 7})"},
                 {kUri + "A", "{}"},
                 {kUri + "B", R"({"EventFormatType": null})"},
                 {kEntry + "C", metrics},
                 {kEntry + "C", metrics},
                 {kEntry + "A/Below", metrics},
                 {kEntry + "Gone", "{}"}}),
            expected);
  EXPECT_EQ(Run({}), expected) << "on a second run";
}

}  // namespace
}  // namespace event_service
