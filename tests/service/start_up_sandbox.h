/// A sandbox in which the daemon can start: what the platform has put into Redis and onto the disk before.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "service/redis_keys.h"
#include "service/settings.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"

namespace event_service {

class StartUpSandbox : public RedisTest {
 protected:
  using Texts = std::vector<std::string>;
  static constexpr const char* kCollection = "/redfish/v1/EventService/Subscriptions";
  static constexpr const char* kSchemas = "&&/redfish/v1/JsonSchemas/Members";
  static constexpr const char* kMembers = "&&/redfish/v1/EventService/Subscriptions/Members";

  void SetUp() override {
    RedisTest::SetUp();
    const FilePaths& paths = ProcessPaths();
    WriteFile(paths.defaultDatabaseFile, R"({"Members": [], "@odata.etag": ""})");
    WriteFile(paths.startUpMapScript, "return redis.call('INCR', 'map script runs')");
    WriteFile(paths.resourceLoader, "#!/bin/sh\n");
    ASSERT_EQ(chmod(paths.resourceLoader.c_str(), 0700), 0);
    for (const char* schema :
         {"Task.v1_5_1", "Event.v1_7_0", "Event.v1_6_0", "odata-v4", "redfish-error.v1_0_1", "Odata"}) {
      ListAppend(redis(), kSchemas, "/redfish/v1/JsonSchemas/" + std::string(schema));
    }
    ListAppend(redis(), kSchemas, "no segment");
    for (const char* registry : {"Base.1.2.0.json", "Base.1.8.0.JSON"}) {
      const std::string file = "/redfish/v1/schemas/registries/" + std::string(registry);
      HashWriteQuoted(redis(), file, "RegistryPrefix", "Base");
      HashWrite(redis(), "&&" + file + "/Messages/Success", "Severity", "\"OK\"");
    }
    HashWrite(redis(), "webDefaultValue", "MAX_EVENT_GROUP_ID", "99");
    SendCommand(redis(), "SADD &&AccessBlockList EventService Other");
  }

  static void Configure(const std::string& lines) { WriteFile(ProcessPaths().configuration, lines); }

  static std::string UriOf(const std::string& id) { return std::string(kCollection) + "/" + id; }

  /// A stored subscription as a creation leaves it, but for the entry in the collection.
  void StoreMember(const std::string& id, const std::string& protocol, const std::string& type) {
    const std::string uri = UriOf(id);
    const HashBatch member = {{uri,
                               {{"@odata.id", "\"" + uri + "\""},
                                {"Id", "\"" + id + "\""},
                                {"Protocol", "\"" + protocol + "\""},
                                {"SubscriptionType", "\"" + type + "\""},
                                {"Destination", "\"https://collector/" + id + "\""},
                                {"Status", "&&Object Status &&" + uri + "/Status"},
                                {"&&Privileges", "ConfigureManager"},
                                {"&&PATCHValidation", "v_EventDestination.json"}}},
                              {"&&" + uri + "/Status", {{"State", "\"Enabled\""}}}};
    ASSERT_TRUE(HashBatchWrite(redis(), member));
  }
  void ListMember(const std::string& id) { ASSERT_TRUE(ListAppend(redis(), kMembers, "&&ObjectRef &&" + UriOf(id))); }

  /// The database file, decrypted as an operator would do it.
  static nlohmann::json DecryptedFile() {
    const FilePaths& paths = ProcessPaths();
    const std::string plain = Sandbox().Root() + "/decrypted.json";
    const std::string command = paths.openssl + " enc -d -aes-256-cbc -in " + paths.databaseFile + " -out " + plain +
                                " -k $(head -n 1 " + paths.passwordFile + ") 2>/dev/null";
    EXPECT_EQ(std::system(command.c_str()), 0);
    return nlohmann::json::parse(ReadFile(plain), nullptr, false);
  }

  ServiceSettings settings_;
  SubscriptionsState state_;
  LogCapture log_;
};

}  // namespace event_service
