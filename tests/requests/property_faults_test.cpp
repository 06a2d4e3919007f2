#include "requests/property_faults.h"

#include <gtest/gtest.h>

#include <limits>

namespace event_service {
namespace {

using Args = std::vector<std::string>;

TEST(PropertyFaults, ValuesAreShownAsTextAndNeverWithSecrets) {
  const struct {
    const char* json;
    std::string text;
  } cases[] = {
      {R"("a\"b")", "a\"b"},
      {"null", "null"},
      {"25", "25"},
      {R"({"b": [1, true], "a": {}})", R"({"a":{},"b":[1,true]})"},
      {R"([{"Password": "pw", "Port": 1}])", R"([{"Password":null,"Port":1}])"},
      {R"({"SNMP": {"TrapCommunity": "c"}, "HttpHeaders": [{"A": "b"}]})",
       R"({"HttpHeaders":null,"SNMP":{"TrapCommunity":null}})"},
  };
  for (const auto& row : cases) EXPECT_EQ(ValueAsArgument(Json::parse(row.json)), row.text);
  EXPECT_EQ(ValueAsArgument(std::string(300, 'x')), std::string(256, 'x'));
  EXPECT_EQ(ValueAsArgument(Json::array({"\xFF"})), "[\"\xEF\xBF\xBD\"]") << "bytes that are no UTF-8";
}

TEST(PropertyFaults, TextsAreCutBetweenCharacters) {
  EXPECT_EQ(CutToCharacters("\xC3\xA4\xC3\xB6\xC3\xBC", 2), "\xC3\xA4\xC3\xB6");
  EXPECT_EQ(CutToCharacters("ab", 2), "ab");
  EXPECT_EQ(CutToCharacters("ab", 0), "");
}

TEST(PropertyFaults, EachFaultHasItsMessageAndArguments) {
  const Json value = "value";
  const struct {
    Fault fault;
    std::string propertyMessage;
    Args propertyArgs;
    std::string parameterMessage;
    Args parameterArgs;
  } cases[] = {
      {{FaultKind::kUnknown}, "PropertyUnknown", {"A/B"}, "ActionParameterUnknown", {"Do", "A/B"}},
      {{FaultKind::kNotWritable}, "PropertyNotWritable", {"A/B"}, "ActionParameterNotSupported", {"A/B", "Do"}},
      {{FaultKind::kType},
       "PropertyValueTypeError",
       {"value", "A/B"},
       "ActionParameterValueTypeError",
       {"value", "A/B", "Do"}},
      {{FaultKind::kNotInList},
       "PropertyValueNotInList",
       {"value", "A/B"},
       "ActionParameterValueNotInList",
       {"value", "A/B", "Do"}},
      {{FaultKind::kOutOfRange},
       "PropertyValueOutOfRange",
       {"value", "A/B"},
       "ActionParameterValueFormatError",
       {"value", "A/B", "Do"}},
      {{FaultKind::kFormat},
       "PropertyValueFormatError",
       {"value", "A/B"},
       "ActionParameterValueFormatError",
       {"value", "A/B", "Do"}},
      {{FaultKind::kTooLong, 3}, "StringValueTooLong", {"value", "3"}, "StringValueTooLong", {"value", "3"}},
      {{FaultKind::kValue}, "PropertyValueError", {"A/B"}, "ActionParameterValueError", {"A/B", "Do"}},
  };
  for (const auto& row : cases) {
    const Message property = PropertyMessage(row.fault, value, "A/B");
    EXPECT_EQ(property.id, "Base.1.12." + row.propertyMessage);
    EXPECT_EQ(property.args, row.propertyArgs) << row.propertyMessage;
    EXPECT_EQ(property.relatedProperties, Args{"A/B"});
    const Message parameter = ParameterMessage(row.fault, value, "A/B", "Do");
    EXPECT_EQ(parameter.id, "Base.1.12." + row.parameterMessage);
    EXPECT_EQ(parameter.args, row.parameterArgs) << row.parameterMessage;
  }
}

TEST(PropertyFaults, ANumberIsNamedAsItWasWritten) {
  const Message message = PropertyMessage({FaultKind::kOutOfRange}, 7e4, "SMTP/Port", {{"SMTP/Port", "7e4"}});
  EXPECT_EQ(message.args, (Args{"7e4", "SMTP/Port"}));
}

TEST(PropertyFaults, WholeNumbersAreTakenInAnyNotation) {
  const struct {
    const char* json;
    std::optional<int64_t> number;
  } cases[] = {
      {"25", 25},
      {"25.0", 25},
      {"2.5e1", 25},
      {"-0", 0},
      {"25.5", {}},
      {"\"25\"", {}},
      {"true", {}},
      {"9223372036854775807", std::numeric_limits<int64_t>::max()},
      {"9223372036854775808", {}},
      {"1e300", {}},
      {"-9223372036854775808", std::numeric_limits<int64_t>::min()},
  };
  for (const auto& row : cases) EXPECT_EQ(WholeNumber(Json::parse(row.json)), row.number) << row.json;
}

TEST(PropertyFaults, ChecksTellTheFirstFault) {
  constexpr auto kNone = static_cast<FaultKind>(-1);
  const auto kind = [](const std::optional<Fault>& fault) { return fault ? fault->kind : static_cast<FaultKind>(-1); };
  const std::string nul("a\0b", 3);
  EXPECT_EQ(kind(CheckText(5)), FaultKind::kType);
  EXPECT_EQ(kind(CheckText("1234", 3)), FaultKind::kTooLong);
  EXPECT_EQ(kind(CheckText("123", 3)), kNone);
  EXPECT_EQ(kind(CheckText(nul)), FaultKind::kFormat);
  EXPECT_EQ(kind(CheckBoolean("true")), FaultKind::kType);
  EXPECT_EQ(kind(CheckInteger(1.5)), FaultKind::kType);
  EXPECT_EQ(kind(CheckInteger(1e30)), FaultKind::kOutOfRange);
  EXPECT_EQ(kind(CheckInteger(-1, 0)), FaultKind::kOutOfRange);
  EXPECT_EQ(kind(CheckInteger(0, 0, 0)), kNone);
  EXPECT_EQ(kind(CheckInList("b", std::vector<std::string>{"\"a\""})), FaultKind::kNotInList);
  EXPECT_EQ(kind(CheckInList("a", std::vector<std::string>{"\"a\""})), kNone);
  EXPECT_EQ(kind(CheckArray(Json::array({1, 2}), 1)), FaultKind::kValue);
  EXPECT_EQ(kind(CheckStringElement("&&Array x")), FaultKind::kType);
  EXPECT_EQ(kind(CheckStringElement(nullptr)), FaultKind::kType);
}

TEST(PropertyFaults, ControlFieldsAndAnnotationsAreTakenOutAtEveryLevel) {
  Json body = Json::parse(R"({"&&SSE-CHANNEL": "x", "@odata.id": "/a", "Context": "c", "Context@Redfish.Copy": 1,
                              "SNMP": {"@Message.ExtendedInfo": [], "TrapCommunity": "t", "@odata.id": "/b"},
                              "HttpHeaders": [{"A@odata.type": 1, "B": "2"}], "mail@example.org": true})");
  RemovePassedOver(body);
  EXPECT_EQ(body, Json::parse(R"({"Context": "c", "SNMP": {"TrapCommunity": "t"}, "HttpHeaders": [{"B": "2"}],
                                  "mail@example.org": true})"));
}

TEST(PropertyFaults, LinksKeepTheirTarget) {
  Json body = Json::parse(
      R"({"OriginResources": [{"@odata.id": "/a", "@odata.type": "#A"}, {"@odata.id": "/a", "b": 1}, 1, {"@odata.id": 2}],
                              "OriginOfCondition": {"@odata.id": "/a"}})");
  RemovePassedOver(body);
  EXPECT_EQ(body,
            Json::parse(R"({"OriginResources": [{"@odata.id": "/a"}, {"@odata.id": "/a", "b": 1}, 1, {"@odata.id": 2}],
                                  "OriginOfCondition": {"@odata.id": "/a"}})"));
}

}  // namespace
}  // namespace event_service
