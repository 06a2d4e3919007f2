#include "subscriptions/header_validation.h"

#include <gtest/gtest.h>

#include <thread>

#include "subscriptions/header_validator_module.h"
#include "tests/subscriptions/message_text.h"
#include "tests/support/log_capture.h"
#include "tests/support/sandbox_root.h"

namespace event_service {
namespace {

const std::string kNoModule = "/nonexistent/RequestHttpHeaderValidator";
const Json kHeaders = Json::parse(R"([{"X-One": "1"}, {"X-Two": "s3cret", "X-Three": "3"}])");

TEST(BuiltInHeaderCheck, NamesAreNamedAndValuesAreNot) {
  const struct {
    std::string headers;
    std::vector<std::string> faults;
  } cases[] = {
      {R"([])", {}},
      {R"([{}, {"Authorization": "Basic dTpw", "x!#$%&'*+-.^_`|~9": "", "A": "\u00fc"}])", {}},
      {R"("secret")", {"PropertyValueError(HttpHeaders) @HttpHeaders"}},
      {R"({"Authorization": "secret"})", {"PropertyValueError(HttpHeaders) @HttpHeaders"}},
      {R"(null)", {"PropertyValueError(HttpHeaders) @HttpHeaders"}},
      {R"(["secret", null])",
       {"PropertyValueError(HttpHeaders/0) @HttpHeaders/0", "PropertyValueError(HttpHeaders/1) @HttpHeaders/1"}},
      {R"([{"A": 5, "B": ["secret"], "C": null}])",
       {"PropertyValueError(HttpHeaders/0/A) @HttpHeaders/0/A", "PropertyValueError(HttpHeaders/0/B) @HttpHeaders/0/B",
        "PropertyValueError(HttpHeaders/0/C) @HttpHeaders/0/C"}},
      {R"([{"A": "x\r\nSet-Cookie: y"}])", {"PropertyValueError(HttpHeaders/0/A) @HttpHeaders/0/A"}},
      {R"([{"A": "x\u0000y"}])", {"PropertyValueError(HttpHeaders/0/A) @HttpHeaders/0/A"}},
      {R"([{"A": "\u007f"}])", {"PropertyValueError(HttpHeaders/0/A) @HttpHeaders/0/A"}},
      {R"([{"A": "1"}, {"": "secret", "B C": "secret", "D:": "secret", "Nice\r\n": "secret"}])",
       {"PropertyValueFormatError(, HttpHeaders/1) @HttpHeaders/1",
        "PropertyValueFormatError(B C, HttpHeaders/1) @HttpHeaders/1",
        "PropertyValueFormatError(D:, HttpHeaders/1) @HttpHeaders/1",
        "PropertyValueFormatError(Nice\r\n, HttpHeaders/1) @HttpHeaders/1"}},
      {R"([{"&&A b": 5, "A@odata.type": 5}])", {}},
  };
  for (const auto& row : cases) {
    EXPECT_EQ(MessageTexts(JudgeHeaders(Json::parse(row.headers), false, kNoModule).faults), row.faults) << row.headers;
  }
}

TEST(BuiltInHeaderCheck, APatchMayRemoveAndLeaveElements) {
  EXPECT_TRUE(JudgeHeaders({nullptr, Json::object(), {{"A", "1"}}}, true, kNoModule).faults.empty());
}

class HeaderModule : public testing::Test {
 protected:
  /// Judges the headers with this module, on a thread that has not loaded one yet.
  HeaderFindings Judge(std::string_view lua, const Json& headers = kHeaders) {
    WriteFile(sandbox_.Paths().headerValidatorModule + ".lua", lua);
    HeaderFindings findings;
    std::thread([&] { findings = JudgeAgain(headers); }).join();
    return findings;
  }
  HeaderFindings JudgeAgain(const Json& headers = kHeaders) {
    return JudgeHeaders(headers, false, sandbox_.Paths().headerValidatorModule);
  }

  SandboxRoot sandbox_;
  LogCapture log_;
};

TEST_F(HeaderModule, GetsTheArrayOfHeadersAndDecides) {
  const HeaderFindings findings = Judge(R"(
    local M = {}
    function M.validateHttpHeaderByPattern(headers)
      return #headers == 2 and headers[1]["X-One"] == "1" and headers[2]["X-Two"] == "s3cret" and
             headers[2]["X-Three"] == "3"
    end
    return M)");
  EXPECT_TRUE(findings.faults.empty());
  EXPECT_FALSE(findings.moduleFailed);
}

TEST_F(HeaderModule, ARefusalNamesTheRefusedHeader) {
  const auto refuse = [](std::string_view condition) {
    return "function validateHttpHeaderByPattern(headers)\n  for _, header in ipairs(headers) do\n"
           "    for name, value in pairs(header) do if " +
           std::string(condition) + " then return false end end\n  end\n  return true\nend";
  };
  EXPECT_EQ(MessageTexts(Judge(refuse("value == 's3cret'")).faults),
            std::vector<std::string>{"PropertyValueFormatError(X-Two, HttpHeaders/1) @HttpHeaders/1"});
  // Only the combination is refused: the first header stands for it.
  EXPECT_EQ(MessageTexts(Judge(refuse("#headers > 1")).faults),
            std::vector<std::string>{"PropertyValueFormatError(X-One, HttpHeaders/0) @HttpHeaders/0"});
}

TEST_F(HeaderModule, AFailureIsLoggedOnceWithoutValues) {
  const std::string call = "function validateHttpHeaderByPattern(headers) ";
  const struct {
    std::string lua;
    std::string logLine;  // its beginning
  } cases[] = {
      {call + "error('bad value ' .. headers[2]['X-Two']) end", "The HTTP header validator raised an error."},
      {call + "error(headers) end", "The HTTP header validator raised an error."},
      {call + "return headers.missing.field end", "The HTTP header validator raised an error."},
      {call + "return nil end", "The HTTP header validator raised an error."},
      {call + "while true do end end", "The HTTP header validator raised an error."},
      {call + "return validateHttpHeaderByPattern(headers) and true end", "The HTTP header validator raised an error."},
      {"this is no Lua", "Failed to load the HTTP header validator " + sandbox_.Root()},
      {"error('at load')", "Failed to load the HTTP header validator " + sandbox_.Root()},
      {"while true do end", "Failed to load the HTTP header validator " + sandbox_.Root()},
      {"return {}", "Failed to load the HTTP header validator " + sandbox_.Root()},
      {"return { validateHttpHeaderByPattern = 5 }", "Failed to load the HTTP header validator " + sandbox_.Root()},
  };
  for (const auto& row : cases) {
    log_.Clear();
    const HeaderFindings findings = Judge(row.lua);
    EXPECT_TRUE(findings.moduleFailed) << row.lua;
    EXPECT_TRUE(findings.faults.empty()) << row.lua;
    ASSERT_EQ(log_.Lines().size(), 1u) << row.lua;
    EXPECT_TRUE(log_.Errors()[0].starts_with(row.logLine)) << log_.Errors()[0];
    EXPECT_EQ(log_.Errors()[0].find("s3cret"), std::string::npos);
  }
}

TEST(PlatformHeaderModule, RefusesWhatNoHeaderMayHold) {
  const auto ask = [](std::string_view name, std::string_view value) {
    const Header header{0, name, value};
    return AskHeaderModule(PLATFORM_FOLDER "/lua/RequestHttpHeaderValidator", {&header, 1});
  };
  EXPECT_EQ(ask("X-One!", "any text, even \xC3\xA9"), ModuleVerdict::kAccepted);
  EXPECT_EQ(ask("X One", "1"), ModuleVerdict::kRefused);
  EXPECT_EQ(ask("", "1"), ModuleVerdict::kRefused);
  EXPECT_EQ(ask("X-One", "1\r\nX-Two: 2"), ModuleVerdict::kRefused);
}

}  // namespace
}  // namespace event_service
