#include "subscriptions/creation_check.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/subscriptions/message_text.h"

namespace event_service {
namespace {

const std::string kLongText(1025, 'x');

ServiceSettings Settings() {
  ServiceSettings settings;
  settings.subordinateResourcesSupported = true;
  settings.includeOriginOfConditionSupported = true;
  settings.allowedValues["MessageIds"] = {"\"Base.1.12.Success\"", "\"Base.1.12.Created\""};
  settings.allowedValues["ResourceTypes"] = {"\"Chassis\"", "\"Task\""};
  settings.allowedValues["RegistryPrefixes"] = {"\"Base\"", "ResourceEvent"};
  settings.paths.headerValidatorModule = "/nonexistent/module";
  return settings;
}

/// A Redfish creation, with the properties of `more` added to it or put in the place of its own.
Json Body(const Json& more = Json::object()) {
  Json body = {{"Destination", "https://10.0.0.1/"}, {"Protocol", "Redfish"}};
  body.update(more);
  return body;
}

Json Snmp(Json members) {
  return {{"Protocol", "SNMPv2c"},
          {"Destination", "snmp://10.0.0.1"},
          {"SubscriptionType", "SNMPTrap"},
          {"SNMP", std::move(members)}};
}

/// "FAILURE: <message>; <message>", empty when the creation may go on.
std::string Verdict(const Json& body, const ServiceSettings& settings = Settings(), bool isSse = false,
                    size_t syslogTlsDestinations = 0) {
  const auto answer =
      CheckCreation(body, {.settings = settings, .syslogTlsDestinations = syslogTlsDestinations, .isSse = isSse});
  if (!answer) return "";
  std::string verdict = std::string(answer->status) + ":";
  for (const std::string& text : MessageTexts(answer->messages)) verdict += " " + text + ";";
  return verdict;
}

TEST(CreationCheck, TakesWhatIsUnusualButRight) {
  const Json bodies[] = {
      Body({{"Description", nullptr},
            {"Context", nullptr},
            {"DeliveryRetryPolicy", nullptr},
            {"SubscriptionType", nullptr}}),
      Body({{"MessageIds", {"Base.1.12.Success", "Base.1.12.Success"}}, {"HeartbeatIntervalMinutes", 65535.0}}),
      Body({{"RegistryPrefixes", {"Base", "ResourceEvent"}}, {"EventFormatType", nullptr}}),
      Body({{"MetricReportDefinitions", Json::array()}, {"SubordinateResources", nullptr}}),
      Body({{"SyslogFilters", {{{"LogFacilities", {"Kern", nullptr}}, {"LowestSeverity", nullptr}}, nullptr}}}),
      Body({{"&&CRUDprefix", 5}, {"@odata.type", 5}, {"Context@Redfish.AllowableValues", 5}, {"x@Message.y", 5}}),
  };
  for (const Json& body : bodies) EXPECT_EQ(Verdict(body), "") << body;
  EXPECT_EQ(Verdict({{"Protocol", "Redfish"}, {"SubscriptionType", "SSE"}}, Settings(), true), "");
}

TEST(CreationCheck, EachFaultHasItsMessage) {
  const struct {
    Json properties;
    std::string messages;
  } cases[] = {
      {{{"Foo", 1}}, "PropertyUnknown(Foo) @Foo;"},
      {{{"Status", {{"State", "Enabled"}}}}, "PropertyNotWritable(Status) @Status;"},
      {{{"Context", 5}}, "PropertyValueTypeError(5, Context) @Context;"},
      {{{"Context", {{"a", {1, nullptr}}}}}, "PropertyValueTypeError({\"a\":[1,null]}, Context) @Context;"},
      {{{"Context", kLongText}}, "StringValueTooLong(" + std::string(64, 'x') + ", 1024) @Context;"},
      {{{"Context", std::string("a\0b", 3)}},
       "PropertyValueFormatError(" + std::string("a\0b", 3) + ", Context) @Context;"},
      {{{"Id", ""}}, "PropertyValueFormatError(, Id) @Id;"},
      {{{"Id", ".."}}, "PropertyValueFormatError(.., Id) @Id;"},
      {{{"Id", "a b*"}}, "PropertyValueFormatError(a b*, Id) @Id;"},
      {{{"Id", std::string(65, 'a')}}, "PropertyValueFormatError(" + std::string(65, 'a') + ", Id) @Id;"},
      {{{"Destination", "nonsense"}}, "PropertyValueFormatError(nonsense, Destination) @Destination;"},
      {{{"Destination", "http://h/" + std::string(2040, 'a')}},
       "StringValueTooLong(http://h/" + std::string(55, 'a') + ", 2048) @Destination;"},
      {{{"Protocol", "FTP"}, {"Destination", "nonsense"}}, "PropertyValueNotInList(FTP, Protocol) @Protocol;"},
      {{{"Protocol", nullptr}, {"Destination", 5}}, "PropertyValueTypeError(null, Protocol) @Protocol;"},
      {{{"SubscriptionType", "Syslog"}}, "PropertyValueNotInList(Syslog, SubscriptionType) @SubscriptionType;"},
      {{{"HeartbeatIntervalMinutes", 65536}},
       "PropertyValueOutOfRange(65536, HeartbeatIntervalMinutes) @HeartbeatIntervalMinutes;"},
      {{{"HeartbeatIntervalMinutes", 1.5}},
       "PropertyValueTypeError(1.5, HeartbeatIntervalMinutes) @HeartbeatIntervalMinutes;"},
      {{{"VerifyCertificate", "true"}}, "PropertyValueTypeError(true, VerifyCertificate) @VerifyCertificate;"},
      {{{"MessageIds", "Base.1.12.Success"}}, "PropertyValueTypeError(Base.1.12.Success, MessageIds) @MessageIds;"},
      {{{"MessageIds", {"Base.1.12.Success", "Foo.1.0.Bar", 5, "&&Object x", nullptr}}},
       "PropertyValueNotInList(Foo.1.0.Bar, MessageIds/1) @MessageIds/1; "
       "PropertyValueTypeError(5, MessageIds/2) @MessageIds/2; "
       "PropertyValueTypeError(&&Object x, MessageIds/3) @MessageIds/3; "
       "PropertyValueNotInList(null, MessageIds/4) @MessageIds/4;"},
      {{{"MessageIds", Json(257, "Base.1.12.Success")}}, "PropertyValueError(MessageIds) @MessageIds;"},
      {{{"OriginResources", {"/redfish/v1/Chassis"}}},
       "PropertyValueTypeError(/redfish/v1/Chassis, OriginResources/0) @OriginResources/0;"},
      {{{"OriginResources", {{{"@odata.id", "/other"}}, {{"@odata.id", 5}}, {{"Name", "x"}}}}},
       "PropertyValueFormatError(/other, OriginResources/0) @OriginResources/0; "
       "PropertyValueTypeError({\"@odata.id\":5}, OriginResources/1) @OriginResources/1; "
       "PropertyValueTypeError({\"Name\":\"x\"}, OriginResources/2) @OriginResources/2;"},
      {{{"SNMP", {{{"TrapCommunity", "s3cret"}}}}}, "PropertyValueTypeError([{\"TrapCommunity\":null}], SNMP) @SNMP;"},
      {{{"SNMP", {{"Foo", 1}, {"AuthenticationKeySet", true}, {"AuthenticationProtocol", "MD5"}}}},
       "PropertyNotWritable(SNMP/AuthenticationKeySet) @SNMP/AuthenticationKeySet; "
       "PropertyValueNotInList(MD5, SNMP/AuthenticationProtocol) @SNMP/AuthenticationProtocol; "
       "PropertyUnknown(SNMP/Foo) @SNMP/Foo;"},
      {{{"SNMP", {{"AuthenticationKey", nullptr}, {"EncryptionKey", ""}, {"TrapCommunity", kLongText}}}},
       "PropertyValueError(SNMP/AuthenticationKey) @SNMP/AuthenticationKey; "
       "PropertyValueError(SNMP/EncryptionKey) @SNMP/EncryptionKey; "
       "PropertyValueError(SNMP/TrapCommunity) @SNMP/TrapCommunity;"},
      {{{"SyslogFilters", {5, {{"LogFacilities", {"Kernel"}}, {"LowestSeverity", 1}, {"Foo", 1}}}}},
       "PropertyValueTypeError(5, SyslogFilters/0) @SyslogFilters/0; "
       "PropertyUnknown(SyslogFilters/1/Foo) @SyslogFilters/1/Foo; "
       "PropertyValueNotInList(Kernel, SyslogFilters/1/LogFacilities/0) @SyslogFilters/1/LogFacilities/0; "
       "PropertyValueTypeError(1, SyslogFilters/1/LowestSeverity) @SyslogFilters/1/LowestSeverity;"},
      {{{"Status", 1}, {"Context", 1}, {"Zed", 1}},
       "PropertyValueTypeError(1, Context) @Context; PropertyNotWritable(Status) @Status; PropertyUnknown(Zed) @Zed;"},
  };
  for (const auto& row : cases) EXPECT_EQ(Verdict(Body(row.properties)), "FAILURE: " + row.messages);
}

TEST(CreationCheck, NumbersAreShownAsTheyWereWritten) {
  const ServiceSettings settings = Settings();
  const auto answer = CheckCreation(Body({{"Context", 1.5}}), {.settings = settings, .numbers = {{"Context", "1.50"}}});
  ASSERT_TRUE(answer);
  EXPECT_EQ(MessageText(answer->messages[0]), "PropertyValueTypeError(1.50, Context) @Context");
}

TEST(CreationCheck, UndiscoveredListsAllowAnyText) {
  ServiceSettings settings = Settings();
  settings.allowedValues.erase("MessageIds");
  settings.allowedValues["ResourceTypes"].clear();
  const Json body = Body({{"MessageIds", {"Foo.1.0.Bar"}}, {"ResourceTypes", {"Any"}}});
  EXPECT_EQ(Verdict(body, settings), "");
}

TEST(CreationCheck, MissingFeaturesComeFirstWhateverTheirValue) {
  ServiceSettings settings = Settings();
  settings.includeOriginOfConditionSupported = false;
  const std::string notImplemented = "NOT_SUPPORTED: ExtendedError.1.2.NotImplemented";
  EXPECT_EQ(Verdict({{"IncludeOriginOfCondition", nullptr}, {"Foo", 1}, {"SubordinateResources", true}}, settings),
            notImplemented + "(IncludeOriginOfCondition);");
  settings.subordinateResourcesSupported = false;
  EXPECT_EQ(Verdict(Body({{"IncludeOriginOfCondition", 5}, {"SubordinateResources", nullptr}}), settings),
            notImplemented + "(SubordinateResources, IncludeOriginOfCondition);");
}

TEST(CreationCheck, RegistryPrefixesThatNobodyServesAnswerAlone) {
  ServiceSettings settings = Settings();
  settings.allowedValues["RegistryPrefixes"].clear();
  EXPECT_EQ(Verdict(Body({{"RegistryPrefixes", Json::array()}, {"VerifyCertificate", 5}}), settings),
            "NOT_SUPPORTED: ExtendedError.1.2.NotImplemented(RegistryPrefixes);");
  EXPECT_EQ(Verdict(Body({{"Context", 5}, {"RegistryPrefixes", {"Base"}}, {"VerifyCertificate", 5}}), settings),
            "FAILURE: PropertyValueTypeError(5, Context) @Context; "
            "PropertyValueTypeError(5, VerifyCertificate) @VerifyCertificate;");
  EXPECT_EQ(Verdict(Body({{"RegistryPrefixes", 5}}), settings),
            "FAILURE: PropertyValueTypeError(5, RegistryPrefixes) @RegistryPrefixes;");
}

TEST(CreationCheck, OnlySyslogTlsIsLimited) {
  const auto verdict = [](std::string_view protocol, size_t existing) {
    return Verdict({{"Protocol", protocol}, {"Destination", "host"}, {"Foo", 1}}, Settings(), false, existing);
  };
  EXPECT_EQ(verdict("SyslogTLS", 2), "FAILURE: PropertyUnknown(Foo) @Foo;");
  EXPECT_EQ(verdict("SyslogTLS", 3), "FAILURE: CreateLimitReachedForResource();");
  EXPECT_EQ(verdict("SyslogTCP", 100), "FAILURE: PropertyUnknown(Foo) @Foo;");
}

TEST(CreationRules, TheFirstBrokenRuleAnswers) {
  const std::string unprocessable = "FAILURE: ExtendedError.1.2.UnprocessableEntity";
  const Json metricFilter = {{"MetricReportDefinitions", Json::array()}};
  const auto with = [](Json left, const Json& right) {
    left.update(right);
    return left;
  };
  const struct {
    Json body;
    std::string verdict;
    std::string logText;
  } cases[] = {
      {with(metricFilter, {{"ResourceTypes", Json::array()}, {"EventFormatType", "Event"}}),
       unprocessable + "(ResourceTypes, MetricReportDefinitions);",
       "Filter parameter for events and metric reports should not be supplied at the same request."},
      {with(metricFilter, {{"EventFormatType", "Event"}}),
       unprocessable + "(MetricReportDefinitions, EventFormatType);",
       "Filter parameter and event format type is conflict."},
      {{{"SubordinateResources", false}, {"EventFormatType", "MetricReport"}},
       unprocessable + "(SubordinateResources, EventFormatType);",
       "Filter parameter and event format type is conflict."},
      {{{"MessageIds", Json::array()}, {"RegistryPrefixes", Json::array()}},
       unprocessable + "(RegistryPrefixes, MessageIds);",
       "MessageIds and RegistryPrefix should not be supplied at the same request."},
      {{{"Destination", "any text"}},
       "EXCEPTION: ExtendedError.1.2.DatabaseOperationError();",
       "Failed to get the protocol value from the request."},
      {with(Snmp({{"TrapCommunity", ""}}), {{"SubscriptionType", nullptr}}),
       unprocessable + "(SubscriptionType, Protocol);", "SubscriptionType is required for SNMP."},
      {Snmp({{"TrapCommunity", ""}}), unprocessable + "(Protocol, SNMP/TrapCommunity);",
       "SNMP/TrapCommunity is required for SNMPv1 or SNMPv2c."},
      {Snmp({{"TrapCommunity", nullptr}}), unprocessable + "(Protocol, SNMP/TrapCommunity);",
       "SNMP/TrapCommunity is required for SNMPv1 or SNMPv2c."},
      {{{"Protocol", "Redfish"}}, "FAILURE: CreateFailedMissingReqProperties(Destination) @Destination;", ""},
  };
  const ServiceSettings settings = Settings();
  for (const auto& row : cases) {
    EXPECT_EQ(Verdict(row.body), row.verdict) << row.body;
    EXPECT_EQ(CheckCreation(row.body, {.settings = settings})->logText, row.logText);
  }
}

}  // namespace
}  // namespace event_service
