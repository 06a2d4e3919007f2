#include "tools/front_end/front_end.h"

#include "resource_store/resource_writer.h"
#include "tests/support/redis_test.h"

namespace event_service {
namespace {

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

}  // namespace
}  // namespace event_service
