#include "subscriptions/creation_check.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/subscriptions/message_text.h"

namespace event_service {
namespace {

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
std::string Verdict(const Json& body, const ServiceSettings& settings = Settings()) {
  const auto answer = CheckCreation(body, {.settings = settings});
  if (!answer) return "";
  std::string verdict = std::string(answer->status) + ":";
  for (const std::string& text : MessageTexts(answer->messages)) verdict += " " + text + ";";
  return verdict;
}

TEST(CreationCheck, NumbersAreShownAsTheyWereWritten) {
  const ServiceSettings settings = Settings();
  const auto answer = CheckCreation(Body({{"Context", 1.5}}), {.settings = settings, .numbers = {{"Context", "1.50"}}});
  ASSERT_TRUE(answer);
  EXPECT_EQ(MessageText(answer->messages[0]), "PropertyValueTypeError(1.50, Context) @Context");
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
