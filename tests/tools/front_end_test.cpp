#include "tools/front_end/front_end.h"

#include "resource_store/resource_writer.h"
#include "tests/support/redis_test.h"

namespace event_service {
namespace {

TEST(FrontEndRoutes, UriAndMethodDecideChannelAndRecordMethod) {
  const struct {
    const char* method;
    const char* uri;
    const char* recordMethod;
    bool subscriptions;
  } cases[] = {
      {"PATCH", "/redfish/v1/EventService", "PATCH", false},
      {"POST", "/redfish/v1/EventService", "POSTCREATE", false},
      {"POST", "/redfish/v1/EventService/Actions/EventService.SubmitTestEvent", "POSTACTION", false},
      {"POST", "/redfish/v1/EventService/SubscriptionsOfOthers", "POSTCREATE", false},
      {"POST", "/redfish/v1/EventService/Subscriptions", "POSTCREATE", true},
      {"DELETE", "/redfish/v1/EventService/Subscriptions/1", "DELETE", true},
      {"POST", "/redfish/v1/EventService/Subscriptions/1/Actions/EventDestination.ResumeSubscription", "POSTACTION",
       true},
      {"DELETE", "SSE-ALL", "DELETE", true},
  };
  for (const auto& row : cases) {
    EXPECT_EQ(RecordMethod(row.method, row.uri), row.recordMethod) << row.uri;
    EXPECT_EQ(ChannelOf(row.uri) == "&&/redfish/v1/EventService/Subscriptions/CHANNEL", row.subscriptions) << row.uri;
  }
}

class FrontEndTest : public RedisTest {};

TEST_F(FrontEndTest, AClientSeesNoSecretsAndNoControlFields) {
  const Json stored = Json::parse(R"({
    "&&SensitiveData": "HttpHeaders,SNMP/TrapCommunity,SNMP/AuthenticationKey,SMTP/Password",
    "HttpHeaders": [{"X-Token": "secret"}], "Context": "secret to nobody",
    "SNMP": {"TrapCommunity": "secret", "EncryptionKeySet": true},
    "Members": [{"@odata.id": "&&/redfish/v1/EventService/Subscriptions/1"}]})");
  ASSERT_TRUE(WriteResource(redis(), "/redfish/v1/Example", stored));
  EXPECT_EQ(ReadForClient(redis(), "/redfish/v1/Example"), Json::parse(R"({
    "HttpHeaders": [], "Context": "secret to nobody", "SNMP": {"TrapCommunity": null, "EncryptionKeySet": true},
    "Members": [{"@odata.id": "/redfish/v1/EventService/Subscriptions/1"}]})"));
  EXPECT_FALSE(ReadForClient(redis(), "/redfish/v1/Missing"));
}

TEST_F(FrontEndTest, WithoutAListenerThereIsNoAnswerAndNothingIsLeft) {
  const FrontEndRequest request{
      .method = "PATCH", .targetUri = "/redfish/v1/EventService", .body = Json::parse(R"({"a": [1]})")};
  EXPECT_FALSE(SendRequest(redis(), request, std::chrono::milliseconds(30)));
  EXPECT_TRUE(KeyListing(redis(), "&&*").empty());
}

}  // namespace
}  // namespace event_service
