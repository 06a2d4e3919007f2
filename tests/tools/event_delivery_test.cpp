#include <gtest/gtest.h>

#include "tools/event_delivery/event_document.h"
#include "tools/event_delivery/ledger.h"
#include "tools/event_delivery/retry_plan.h"
#include "tools/event_delivery/subscription.h"

namespace event_service {
namespace {

using std::chrono::seconds;

TEST(OriginIndex, AnOriginIsLookedUpItselfAndBelowEveryAncestor) {
  const struct {
    std::string origin;
    std::vector<std::string> keys;
  } rows[] = {
      {"", {"*"}},
      {"/elsewhere", {"*"}},
      {"/redfish/v1/Chassis/1/Sensors/2",
       {"*", "Chassis/1/Sensors/2", "Chassis/1/Sensors/2/", "/*", "Chassis/*", "Chassis/1/*", "Chassis/1/Sensors/*"}},
      {"/redfish/v1/Systems/", {"*", "Systems", "Systems/", "/*"}},
      {"/redfish/v1/Chassis/1/Thermal#/Fans/0",
       {"*", "Chassis/1/Thermal#/Fans/0", "Chassis/1/Thermal#/Fans/0/", "/*", "Chassis/*", "Chassis/1/*",
        "Chassis/1/Thermal/*", "Chassis/1/Thermal#/Fans/*"}},
      {"/redfish/v1/" + std::string(3000, 'a'), {"*"}},
  };
  for (const auto& row : rows) {
    std::vector<std::string> keys = row.keys;
    for (std::string& key : keys) key.insert(0, "&&subs:");
    EXPECT_EQ(OriginIndexKeysFor(row.origin), keys) << row.origin;
  }
  EXPECT_EQ(OriginIndexKeysFor("/redfish/v1" + std::string(1000, '/')).size(), 4U + 32U);
}

TEST(Filters, EachThatIsPresentHasToLetTheRecordThrough) {
  const RecordFacts record{.messageId = "ResourceEvent.1.2.ResourceChanged",
                           .eventType = "ResourceUpdated",
                           .origin = "/redfish/v1/Chassis/1",
                           .resourceType = "Chassis"};
  const struct {
    const char* member;
    bool isAdmitted;
  } rows[] = {
      {R"({})", true},
      {R"({"MessageIds": [], "RegistryPrefixes": [], "ResourceTypes": [], "EventTypes": []})", true},
      {R"({"Status": {"State": "Enabled"}, "EventFormatType": "Event"})", true},
      {R"({"Status": {"State": "Disabled"}})", false},
      {R"({"EventFormatType": null})", true},
      {R"({"EventFormatType": "MetricReport"})", false},
      {R"({"MessageIds": [null, "ResourceEvent.1.2.ResourceChanged"]})", true},
      {R"({"MessageIds": ["ResourceEvent.1.0.ResourceChanged"]})", false},
      {R"({"RegistryPrefixes": ["Base", "ResourceEvent"]})", true},
      {R"({"RegistryPrefixes": ["Resource"]})", false},
      {R"({"ResourceTypes": ["Chassis"], "RegistryPrefixes": ["Base"]})", false},
      {R"({"ResourceTypes": ["Chassis"], "EventTypes": ["ResourceUpdated", "Alert"]})", true},
      {R"({"ResourceTypes": ["ChassisCollection"]})", false},
      {R"({"EventTypes": ["Alert"]})", false},
      {R"({"MessageIds": "damaged", "Status": 7})", true},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Admits(ParseSubscription("/s", Json::parse(row.member)), record), row.isAdmitted) << row.member;
  }
}

TEST(Filters, AMaskRulesOutOnlyARegistryThatItKnows) {
  std::vector<std::string> prefixes;
  for (int i = 1; i <= 40; ++i) prefixes.push_back("R" + std::to_string(i));
  const struct {
    const char* prefix;
    int64_t mask;
    bool isAdmitted;
  } rows[] = {
      {"R1", 1, true},  {"R2", 1, false},          {"R2", -1, true},          {"R31", 1LL << 30, true},
      {"R1", 0, false}, {"R32", 2147483647, true}, {"R40", 2147483647, true}, {"Unknown", 0, true},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(MaskAdmits(row.mask, RegistryBit(prefixes, row.prefix)), row.isAdmitted) << row.prefix << row.mask;
  }
}

TEST(Subscriptions, HeadersThatWouldBreakARequestArePassedOver) {
  const Json member = {{"HttpHeaders", {{{"X-A", "1"}, {"X B", "2"}}, "x", {{"X-C", "3\r\nX-D: 4"}, {"X-E", ""}}}}};
  const std::vector<std::pair<std::string, std::string>> headers = {{"X-A", "1"}, {"X-E", ""}};
  EXPECT_EQ(ParseSubscription("/s", member).headers, headers);
}

TEST(RetryPlan, EachPolicyHasItsPausesAndItsEnd) {
  const struct {
    const char* policy;
    uint32_t failures;
    RetrySettings settings;
    int pause;  // -1: given up
  } rows[] = {
      {"TerminateAfterRetries", 3, {3, seconds(60)}, 60},
      {"TerminateAfterRetries", 4, {3, seconds(60)}, -1},
      {"TerminateAfterRetries", 1, {0, seconds(60)}, -1},
      {"SuspendRetries", 1, {1, seconds(0)}, 0},
      {"SuspendRetries", 2, {1, seconds(0)}, -1},
      {"unknown", 4, {3, seconds(60)}, -1},
      {"RetryForever", 1000, {0, seconds(60)}, 60},
      {"RetryForever", 1, {0, seconds(0)}, 1},
      {"RetryForeverWithBackoff", 1, {0, seconds(0)}, 1},
      {"RetryForeverWithBackoff", 4, {0, seconds(30)}, 240},
      {"RetryForeverWithBackoff", 4000000000, {0, seconds(30)}, 3600},
      {"RetryForeverWithBackoff", 9, {0, seconds(4294967295)}, 604800},
  };
  for (const auto& row : rows) {
    const auto pause = PauseAfter(RetryPolicyOf(row.policy), row.failures, row.settings);
    EXPECT_EQ(pause ? pause->count() : -1, row.pause) << row.policy << " after " << row.failures;
  }
}

TEST(Payload, ASubscriberGetsItsRecordsItsContextAndNothingOfOurs) {
  const Json document = Json::parse(R"({
      "@odata.type": "#Event.v1_7_0.Event", "Id": "1", "Name": "n", "&&ResourceType": "Chassis",
      "&&Receiver": {"HttpHeaders": [{"X": "secret"}]}, "Events": [
        {"MemberId": "0", "MessageId": "A.1.0.B"},
        {"MemberId": "1", "MessageId": "A.1.0.C", "OriginOfCondition": {"@odata.id": "/redfish/v1/Chassis/1"},
         "&&Origin": {"@odata.id": "/redfish/v1/Chassis/1", "Id": "1"}}]})");
  const Json link = Json::parse(PayloadOf(document, {1}, "mine", false));
  EXPECT_EQ(link, Json::parse(R"({
      "@odata.type": "#Event.v1_7_0.Event", "Id": "1", "Name": "n", "Context": "mine", "Events@odata.count": 1,
      "Events": [{"MemberId": "0", "MessageId": "A.1.0.C",
                  "OriginOfCondition": {"@odata.id": "/redfish/v1/Chassis/1"}}]})"));
  const Json whole = Json::parse(PayloadOf(document, {0, 1}, nullptr, true));
  EXPECT_EQ(whole["Events"][1]["OriginOfCondition"], document["Events"][1]["&&Origin"]);
  EXPECT_FALSE(whole.contains("Context"));
  Json large = document;
  large["Events"][1]["&&Origin"]["Description"] = std::string(kMostPayload, 'x');
  EXPECT_EQ(PayloadOf(large, {1}, "mine", true), link.dump()) << "beyond the limit of a payload the link stays";
}

TEST(Ledger, WhatCannotBeReadIsLeftOut) {
  const std::string event = R"({"Events": [{"MessageId": "A.1.0.B"}, {}]})";
  const auto entries = ParseLedger({{"9", event},
                                    {"9 /a", "[0]"},
                                    {"9 /b", "[2]"},
                                    {"9 /c", "{"},
                                    {"10", "[]"},
                                    {"10 /a", "[0]"},
                                    {"11 /a", "[0]"},
                                    {"x", event}});
  ASSERT_EQ(entries.size(), 1U);
  const auto& receivers = entries.at(9).receivers;
  ASSERT_EQ(receivers.size(), 1U);
  EXPECT_EQ(receivers[0].first, "/a");
}

}  // namespace
}  // namespace event_service
