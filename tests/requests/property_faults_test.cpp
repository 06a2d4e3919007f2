#include "requests/property_faults.h"

#include <gtest/gtest.h>

namespace event_service {
namespace {

TEST(PropertyFaults, ValuesAreShownAsTextAndNeverWithSecrets) {
  const struct {
    Json value;
    std::string text;
  } cases[] = {
      {"a\"b", "a\"b"},
      {nullptr, "null"},
      {{{"b", {1, true}}, {"a", Json::object()}}, R"({"a":{},"b":[1,true]})"},
      {Json::parse(R"([{"Password": "pw", "Port": 1}])"), R"([{"Password":null,"Port":1}])"},
      {Json::parse(R"({"SNMP": {"TrapCommunity": "c"}, "HttpHeaders": [{"A": "b"}]})"),
       R"({"HttpHeaders":null,"SNMP":{"TrapCommunity":null}})"},
      {std::string(255, 'x') + "\xC3\xA4y", std::string(255, 'x') + "\xC3\xA4"},
      {Json::array({"\xFF"}), "[\"\xEF\xBF\xBD\"]"},
  };
  for (const auto& row : cases) {
    EXPECT_EQ(PropertyMessage({FaultKind::kType}, row.value, "A").args, (std::vector{row.text, std::string("A")}));
  }
}

TEST(PropertyFaults, WholeNumbersAreTakenInAnyNotation) {
  const struct {
    const char* json;
    std::optional<int64_t> number;
  } cases[] = {
      {"25.0", 25},
      {"2.5e1", 25},
      {"-0", 0},
      {"25.5", {}},
      {"true", {}},
      {"9223372036854775807", INT64_MAX},
      {"9223372036854775808", {}},
      {"1e300", {}},
      {"-9223372036854775808", INT64_MIN},
  };
  for (const auto& row : cases) EXPECT_EQ(WholeNumber(Json::parse(row.json)), row.number) << row.json;
}

TEST(PropertyFaults, ControlFieldsAndAnnotationsAreTakenOutButLinksKeepTheirTarget) {
  const struct {
    const char* body;
    const char* cleaned;
  } cases[] = {
      {R"({"&&SSE-CHANNEL": "x", "@odata.id": "/a", "C@Redfish.Copy": 1, "mail@example.org": true})",
       R"({"mail@example.org": true})"},
      {R"({"SNMP": {"@Message.ExtendedInfo": [], "T": "t", "@odata.id": "/b"}, "H": [{"A@odata.type": 1, "B": "2"}]})",
       R"({"SNMP": {"T": "t"}, "H": [{"B": "2"}]})"},
      {R"({"OriginResources": [{"@odata.id": "/a", "@odata.type": "#A"}, {"@odata.id": "/a", "b": 1}, 1]})",
       R"({"OriginResources": [{"@odata.id": "/a"}, {"@odata.id": "/a", "b": 1}, 1]})"},
      {R"({"OriginOfCondition": {"@odata.id": "/a"}})", R"({"OriginOfCondition": {"@odata.id": "/a"}})"},
  };
  for (const auto& row : cases) {
    Json body = Json::parse(row.body);
    RemovePassedOver(body);
    EXPECT_EQ(body, Json::parse(row.cleaned));
  }
}

}  // namespace
}  // namespace event_service
