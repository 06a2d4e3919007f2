#include "tests/subscription_db/db_documents.h"

namespace event_service {

Json MemberOf(const std::string& id, const std::string& context) {
  return {{"@odata.id", kUris + id},
          {"Id", id},
          {"Context", context},
          {"&&PATCHValidation", "v_EventDestination.json"},
          {"SNMP", {{"AuthenticationKey", "AB12"}, {"AuthenticationKeySet", true}, {"TrapCommunity", "CD34"}}},
          {"HttpHeaders", {{{"X-Token", "abc"}}}},
          {"MessageIds", {"Base.1.12.Created"}}};
}

Json DocumentOf(std::string_view ids) {
  Json document = {{"@odata.etag", "\"0\""}, {"Name", "Subscriptions"}, {"Members", Json::array()}};
  for (const char id : ids) {
    document["Members"].push_back(MemberOf(std::string(1, id)));
    document["Members"].back()["&&Privileges"] = kPrivileges;
  }
  return document;
}

}  // namespace event_service
