#include "service/discovery.h"

#include <gtest/gtest.h>

#include <random>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"

namespace event_service {
namespace {

/// Texts put together from pieces that matter to a pattern, so that many of them nearly match.
class PieceTexts {
 public:
  PieceTexts(std::string prefix, std::vector<std::string> pieces)
      : prefix_(std::move(prefix)), pieces_(std::move(pieces)) {}

  std::string Next() {
    std::string text = random_() % 16 == 0 ? "" : prefix_;
    for (size_t count = random_() % 9; count > 0; --count) text += pieces_[random_() % pieces_.size()];
    return text;
  }

 private:
  std::mt19937 random_{20211204};  // the same texts in every run
  std::string prefix_;
  std::vector<std::string> pieces_;
};

TEST(SchemaNameOf, AgreesWithItsPattern) {
  const std::regex pattern("^.*/([^/\\.]+)(\\..*)?");
  PieceTexts texts("", {"/", "/", ".", ".", "a", "Event", "_v1", "\n", "\r", "&&", " ", std::string(1, '\0'), "\xC3"});
  for (int i = 0; i < 100'000; ++i) {
    const std::string text = texts.Next();
    std::smatch match;
    const bool matches = std::regex_match(text, match, pattern);
    const auto name = SchemaNameOf(text);
    ASSERT_EQ(name.has_value(), matches) << testing::PrintToString(text);
    ASSERT_EQ(name.value_or(""), match[1].str()) << testing::PrintToString(text);
  }
}

TEST(MessageIdOf, AgreesWithItsPattern) {
  const std::regex pattern("^&&/redfish/v1/schemas/registries/(\\w+)\\.(\\d+\\.\\d+).*/Messages/(\\w+)");
  PieceTexts texts("&&/redfish/v1/schemas/registries/", {"Base.1.12", "Base", ".", ".", "1", "20", ".json",
                                                         "/Messages/", "/Messages/", "/", "Key_1", "\n", "-"});
  int matching = 0;
  for (int i = 0; i < 100'000; ++i) {
    const std::string text = texts.Next();
    std::smatch match;
    const bool matches = std::regex_match(text, match, pattern);
    const auto id = MessageIdOf(text);
    ASSERT_EQ(id.has_value(), matches) << testing::PrintToString(text);
    if (!matches) continue;
    ++matching;
    ASSERT_EQ(*id, '"' + match[1].str() + "." + match[2].str() + "." + match[3].str() + '"')
        << testing::PrintToString(text);
  }
  EXPECT_GT(matching, 200);
}

TEST(SchemaNameOf, TakesAMegabyteOfSlashesInItsStride) {
  std::string text;
  for (int i = 0; i < 500'000; ++i) text += "/.";
  EXPECT_FALSE(SchemaNameOf(text + "\n"));
}

class DiscoveryTest : public RedisTest {
 protected:
  void AddSchemas(const std::vector<std::string>& elements) {
    for (const std::string& element : elements) {
      ASSERT_TRUE(ListAppend(redis(), "&&/redfish/v1/JsonSchemas/Members", element));
    }
  }
  void AddRegistry(const std::string& file, const std::string& prefix) {
    ASSERT_TRUE(HashWrite(redis(), "/redfish/v1/schemas/registries/" + file, "RegistryPrefix", prefix));
  }

  bool RunInitResourceTypes() { return InitResourceTypes(redis(), Read().resourceTypes); }
  bool RunInitRegistryPrefixes() { return InitRegistryPrefixes(redis(), ProcessPaths(), Read().registryPrefixes); }

  std::string ListText(const std::string& name) { return Dump()["&&/redfish/v1/EventService/" + name]; }

  LogCapture log_;

 private:
  DiscoveryReads Read() {
    RedisPipeline pipeline(redis());
    DiscoveryReads reads(pipeline);
    std::vector<RedisReply> replies = pipeline.Execute();
    reads.Take(replies);
    return reads;
  }
};

TEST_F(DiscoveryTest, ResourceTypesAreTheSchemaNamesInOrderEachOnce) {
  AddSchemas({"&&ObjectRef &&/redfish/v1/JsonSchemas/Task.v1_5_1", "/redfish/v1/JsonSchemas/Event.v1_7_0",
              "/redfish/v1/JsonSchemas/Event.v1_6_0", "/redfish/v1/JsonSchemas/odata-v4",
              "/redfish/v1/JsonSchemas/redfish-error.v1_0_1", "no segment", "/redfish/v1/JsonSchemas/Odata"});
  EXPECT_TRUE(RunInitResourceTypes());
  EXPECT_EQ(ListText("ResourceTypes"), R"(["Event", "Odata", "Task"])");
  EXPECT_TRUE(log_.Errors().empty());
}

TEST_F(DiscoveryTest, ListsThatStandAreLeftAlone) {
  ListAppend(redis(), "&&/redfish/v1/EventService/ResourceTypes", "\"Old\"");
  ListAppend(redis(), "&&/redfish/v1/EventService/RegistryPrefixes", "\"Old\"");
  AddSchemas({"/redfish/v1/JsonSchemas/Event"});
  AddRegistry("Base.1.12.1.json", "\"Base\"");
  EXPECT_TRUE(RunInitResourceTypes());
  EXPECT_TRUE(RunInitRegistryPrefixes());
  EXPECT_EQ(ListText("ResourceTypes"), R"(["Old"])");
  EXPECT_EQ(ListText("RegistryPrefixes"), R"(["Old"])");
}

TEST_F(DiscoveryTest, WithoutUsableSchemasThereAreNoResourceTypes) {
  EXPECT_FALSE(RunInitResourceTypes());
  AddSchemas({"/redfish/v1/JsonSchemas/redfish-schema.v1_9_0"});
  EXPECT_FALSE(RunInitResourceTypes());
  SendCommand(redis(), "SET &&/redfish/v1/JsonSchemas/Members x");
  EXPECT_FALSE(RunInitResourceTypes());
  EXPECT_EQ(log_.Errors(),
            (std::vector<std::string>{"Cannot find any defined ResourceTypes.",
                                      "Cannot find any defined ResourceTypes.", "Cannot get the list of schema."}));
  EXPECT_EQ(ListText("ResourceTypes"), "");
}

TEST_F(DiscoveryTest, RegistryPrefixesComeAsStoredFromFilesOfAnyCase) {
  AddRegistry("Base.1.12.1.json", "\"Base\"");
  AddRegistry("Base.1.8.0.JSON", "\"Base\"");
  AddRegistry("A.1.0.0.jSoN", "Bare");
  AddRegistry("NotJson.xml", "\"NotJson\"");
  HashWrite(redis(), "/redfish/v1/schemas/registries/Empty.json", "Id", "\"Empty\"");
  SendCommand(redis(), "SET /redfish/v1/schemas/registries/WrongType.json x");
  EXPECT_TRUE(RunInitRegistryPrefixes());
  EXPECT_EQ(ListText("RegistryPrefixes"), R"(["Base", Bare])");
}

TEST_F(DiscoveryTest, OnlyExactlyFalseRemovesTheRegistryPrefixes) {
  const struct {
    const char* value;
    const char* list;
  } cases[] = {{"False", R"(["Base"])"}, {"", R"(["Base"])"}, {"false", ""}};
  AddRegistry("Base.1.12.1.json", "\"Base\"");
  for (const auto& row : cases) {
    WriteFile(ProcessPaths().configuration, "EnableFilterRegistryPrefixes=" + std::string(row.value) + "\n");
    EXPECT_TRUE(RunInitRegistryPrefixes()) << row.value;
    EXPECT_EQ(ListText("RegistryPrefixes"), row.list) << row.value;
  }
}

TEST_F(DiscoveryTest, WithoutRegistriesThereAreNoPrefixes) {
  EXPECT_FALSE(RunInitRegistryPrefixes());
  EXPECT_EQ(log_.Errors(), std::vector<std::string>{"Cannot find any defined RegistryPrefix."});
}

TEST_F(DiscoveryTest, MessageIdsDropTheThirdPartOfTheVersion) {
  for (const char* key : {"&&/redfish/v1/schemas/registries/ResourceEvent.1.0.3.json/Messages/ResourceAdded",
                          "&&/redfish/v1/schemas/registries/ResourceEvent.1.0.2.json/Messages/ResourceAdded",
                          "&&/redfish/v1/schemas/registries/Base.1.12.json/Messages/Success",
                          "&&/redfish/v1/schemas/registries/Base.1.12.json/Messages/Success/ParamTypes"}) {
    SendArguments(redis(), {"SET", key, "x"});
  }
  AllowedValuesTable allowed;
  InitMessageIds(SendArguments(redis(), {"KEYS", kMessageKeys}).get(), allowed);
  EXPECT_EQ(allowed["MessageIds"],
            (std::vector<std::string>{"\"Base.1.12.Success\"", "\"ResourceEvent.1.0.ResourceAdded\""}));
}

TEST_F(DiscoveryTest, WithoutMessagesTheTableKeepsWhatItHad) {
  AllowedValuesTable allowed;
  InitMessageIds(SendArguments(redis(), {"KEYS", kMessageKeys}).get(), allowed);
  InitMessageIds(nullptr, allowed);
  EXPECT_TRUE(allowed.empty());
  EXPECT_EQ(log_.Errors(), std::vector<std::string>(2, "Cannot find any defined MessageId."));
}

}  // namespace
}  // namespace event_service
