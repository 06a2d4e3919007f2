#include "subscriptions/patch_check.h"

#include <gtest/gtest.h>

#include "subscriptions/array_patch.h"
#include "tests/subscriptions/message_text.h"

namespace event_service {
namespace {

const Json kStored = Json::parse(R"({
  "Context": "c", "DeliveryRetryPolicy": "RetryForever", "VerifyCertificate": false,
  "HttpHeaders": [{"A": "1"}, {"B": "2"}],
  "SyslogFilters": [{"LogFacilities": ["Kern"]}, {"LowestSeverity": "All"}],
  "SNMP": {"AuthenticationProtocol": "HMAC_MD5", "AuthenticationKey": "0A0B", "AuthenticationKeySet": true}})");

PatchJudgement Judge(const Json& body, const Json& stored = kStored) {
  ServiceSettings settings;
  settings.paths.headerValidatorModule = "/nonexistent/module";
  return JudgePatch(body, stored, settings);
}

TEST(ArrayPatch, FollowsTheElementRules) {
  const struct {
    std::string patch;
    std::string merged;
  } cases[] = {
      {"[]", "[]"},
      {"[{}]", "[1]"},
      {"[{}, {}, {}]", "[1,2,3]"},
      {"[9, {}, null]", "[9,2]"},
      {"[null, null, null]", "[]"},
      {"[{}, null, {}, {}, null, 4, {\"x\": {}}]", "[1,3,4,{\"x\":{}}]"},
  };
  for (const auto& row : cases) {
    EXPECT_EQ(MergeArray(Json::parse("[1, 2, 3]"), Json::parse(row.patch)).dump(), row.merged) << row.patch;
  }
}

TEST(PatchCheck, GivesWhatChanges) {
  const struct {
    std::string body;
    std::string changes;
  } cases[] = {
      {R"({"Context": "d", "DeliveryRetryPolicy": "RetryForever"})", R"({"Context":"d"})"},
      {R"({"Context": null, "VerifyCertificate": true})", R"({"Context":null,"VerifyCertificate":true})"},
      {R"({"SNMP": {"AuthenticationProtocol": "HMAC_MD5", "EncryptionProtocol": "CBC_DES"}})",
       R"({"SNMP":{"EncryptionProtocol":"CBC_DES"}})"},
      {R"({"SNMP": {"AuthenticationKey": null, "EncryptionKey": "new", "TrapCommunity": ""}})",
       R"({"SNMP":{"AuthenticationKey":null,"EncryptionKey":"new","TrapCommunity":""}})"},
      {R"({"HttpHeaders": [{}, null]})", R"({"HttpHeaders":[{"A":"1"}]})"},
      {R"({"HttpHeaders": [{"A": "1"}, {}]})", R"({"HttpHeaders":[{"A":"1"},{"B":"2"}]})"},
      {R"({"SyslogFilters": [{}, {"LogFacilities": ["User"], "x@odata.count": 1}]})",
       R"({"SyslogFilters":[{"LogFacilities":["Kern"]},{"LogFacilities":["User"]}]})"},
  };
  for (const auto& row : cases) {
    const PatchJudgement judgement = Judge(Json::parse(row.body));
    EXPECT_FALSE(judgement.answer) << row.body;
    EXPECT_EQ(judgement.changes.dump(), row.changes);
    EXPECT_TRUE(judgement.notUpdatable.empty());
  }
  EXPECT_EQ(Judge({{"SNMP", {{"EncryptionProtocol", "None"}}}}, Json::object()).changes.dump(),
            R"({"SNMP":{"EncryptionProtocol":"None"}})");
}

TEST(PatchCheck, NothingToChangeIsNoOperation) {
  for (const std::string_view body :
       {R"({})", R"({"@odata.etag": "x", "Context@Redfish.Foo": 1, "&&Privileges": "x"})",
        R"({"Context": "c", "VerifyCertificate": false})", R"({"SNMP": {}})",
        R"({"SNMP": {"AuthenticationProtocol": "HMAC_MD5", "EncryptionProtocol": null}})",
        R"({"HttpHeaders": [{}, {}]})", R"({"SyslogFilters": [{"LogFacilities": ["Kern"]}, {}]})"}) {
    const PatchJudgement judgement = Judge(Json::parse(body));
    ASSERT_TRUE(judgement.answer) << body;
    EXPECT_EQ(judgement.answer->body, NoOperationAnswer().body) << body;
    EXPECT_TRUE(judgement.changes.empty());
  }
}

TEST(PatchCheck, WhatCannotBeUpdatedIsNamedAndStopsNothing) {
  const Json body = Json::parse(R"({"Context": "d", "Destination": 5, "Foo": 1, "SNMP": {"Bar": 1,
                                    "EncryptionKeySet": true, "EncryptionProtocol": "None"}})");
  const std::vector<std::string> named = {"PropertyNotWritable(Destination) @Destination", "PropertyUnknown(Foo) @Foo",
                                          "PropertyUnknown(SNMP/Bar) @SNMP/Bar",
                                          "PropertyNotWritable(SNMP/EncryptionKeySet) @SNMP/EncryptionKeySet"};
  const PatchJudgement judgement = Judge(body);
  EXPECT_FALSE(judgement.answer);
  EXPECT_EQ(judgement.changes.dump(), R"({"Context":"d","SNMP":{"EncryptionProtocol":"None"}})");
  EXPECT_EQ(MessageTexts(judgement.notUpdatable), named);

  Json stored = kStored;
  stored.merge_patch(judgement.changes);
  const PatchJudgement again = Judge(body, stored);
  ASSERT_TRUE(again.answer);
  EXPECT_EQ(again.answer->status, kOkRes);
  EXPECT_EQ(MessageTexts(again.answer->messages), named);
}

TEST(PatchCheck, NothingUpdatableOrABadValueRefusesTheWhole) {
  const struct {
    std::string body;
    std::vector<std::string> messages;
  } cases[] = {
      {R"({"Foo": 1, "Id": "x", "Protocol": "FTP", "MessageIds": []})",
       {"PropertyUnknown(Foo) @Foo", "PropertyNotWritable(Id) @Id", "PropertyNotWritable(MessageIds) @MessageIds",
        "PropertyNotWritable(Protocol) @Protocol"}},
      {R"({"SNMP": {"Foo": 1}})", {"PropertyUnknown(SNMP/Foo) @SNMP/Foo"}},
      {R"({"Context": "d", "Foo": 1, "VerifyCertificate": 1})",
       {"PropertyUnknown(Foo) @Foo", "PropertyValueTypeError(1, VerifyCertificate) @VerifyCertificate"}},
      {R"({"SNMP": null})", {"PropertyValueTypeError(null, SNMP) @SNMP"}},
      {R"({"SNMP": {"AuthenticationKey": "", "EncryptionProtocol": "x"}})",
       {"PropertyValueError(SNMP/AuthenticationKey) @SNMP/AuthenticationKey",
        "PropertyValueNotInList(x, SNMP/EncryptionProtocol) @SNMP/EncryptionProtocol"}},
      {R"({"HttpHeaders": [null, {}, "x"]})", {"PropertyValueError(HttpHeaders/2) @HttpHeaders/2"}},
      {R"({"SyslogFilters": [null, {}, {"LogFacilities": [{}]}]})",
       {"PropertyValueTypeError({}, SyslogFilters/2/LogFacilities/0) @SyslogFilters/2/LogFacilities/0"}},
  };
  for (const auto& row : cases) {
    const PatchJudgement judgement = Judge(Json::parse(row.body));
    ASSERT_TRUE(judgement.answer) << row.body;
    EXPECT_EQ(judgement.answer->status, kFailure) << row.body;
    EXPECT_EQ(MessageTexts(judgement.answer->messages), row.messages);
    EXPECT_TRUE(judgement.changes.empty());
  }
}

}  // namespace
}  // namespace event_service
