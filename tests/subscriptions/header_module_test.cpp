/// The platform's header validator: what it is asked, and what becomes of its answers and failures.
#include <filesystem>
#include <thread>

#include "subscriptions/judgement/creation_check.h"
#include "subscriptions/judgement/patch_check.h"
#include "tests/subscriptions/subscriptions_fixture.h"

namespace event_service {
namespace {

TEST(HeaderModule, DecidesOrFailsWithOneLineWithoutValues) {
  const Json body = Json::parse(R"({"Protocol": "Redfish", "Destination": "https://c",
      "HttpHeaders": [{"X-One": "1"}, {"X-Two": "s3cret", "X-Three": "3"}]})");
  const std::string call = "function validateHttpHeaderByPattern(headers) ";
  const std::string each = call + "for _, header in ipairs(headers) do for name, value in pairs(header) do ";
  const std::string endless = "function endless() while true do end end ";
  const std::string refused = "FAILURE PropertyValueFormatError(";
  const std::string raised = "EXCEPTION OperationFailed()The HTTP header validator raised an error.";
  const std::string unloaded = "EXCEPTION OperationFailed()Failed to load the HTTP header validator /";
  const std::pair<std::string, std::string> cases[] = {
      {"local M = {} function M.validateHttpHeaderByPattern(headers) return #headers == 2 and headers[1]['X-One'] == "
       "'1' and headers[2]['X-Two'] == 's3cret' and headers[2]['X-Three'] == '3' end return M",
       ""},
      {ReadFile(PLATFORM_FOLDER "/lua/RequestHttpHeaderValidator.lua"), ""},
      {each + "if value == 's3cret' then return false end end end return true end",
       refused + "X-Two, HttpHeaders/1) @HttpHeaders/1"},
      // Only the combination is refused: the first header stands for it.
      {call + "return #headers == 1 end", refused + "X-One, HttpHeaders/0) @HttpHeaders/0"},
      {call + "error('bad value ' .. headers[2]['X-Two']) end", raised},
      {"module('RequestHttpHeaderValidator', package.seeall) " + call + "return false end",
       refused + "X-One, HttpHeaders/0) @HttpHeaders/0, PropertyValueFormatError(X-Three, HttpHeaders/1)"},
      {"module(..., package.seeall) " + call + "return tostring(headers) == '' end", refused + "X-One, "},
      {"round = (round or 0) + 1 if round == 1 then return require('RequestHttpHeaderValidator') end " + call +
           "return round == 2 end",
       ""},
      {endless + call + "pcall(endless) return true end", raised},
      {endless + call + "repeat coroutine.resume(coroutine.create(endless)) until false end", raised},
      {call + "debug.sethook() jit.on() while true do end end", raised},
      {endless + "pcall(endless) " + call + "return true end", unloaded},
      {call + "return validateHttpHeaderByPattern(headers) and true end", raised},
      {"this is no Lua", unloaded},
      {"return {}", unloaded},
  };
  const SandboxRoot sandbox;
  ServiceSettings settings;
  settings.paths = sandbox.Paths();
  for (const auto& [lua, outcome] : cases) {
    const bool isOld = lua.starts_with("module");  // the bare path counts where the other is missing
    if (isOld) std::filesystem::remove(settings.paths.headerValidatorModule + ".lua");
    WriteFile(settings.paths.headerValidatorModule + (isOld ? "" : ".lua"), lua);
    const LogCapture log;
    std::string text;
    std::string ofPatch;
    // Each thread loads the module for itself.
    std::thread([&] {
      text = InShort(CheckCreation(body, {.settings = settings}).value_or(Answer{}));
      ofPatch = InShort(JudgePatch({{"HttpHeaders", body["HttpHeaders"]}}, {}, settings).answer.value_or(Answer{}));
    }).join();
    EXPECT_EQ(ofPatch, text) << lua;
    for (const Names& messages : {log.Errors(), log.DebugLines()}) {
      for (const std::string& message : messages) text += message;
    }
    EXPECT_EQ(text.substr(0, outcome.size()), outcome) << lua;
    EXPECT_EQ(text.empty(), outcome.empty()) << text;
    EXPECT_EQ(text.find("s3cret"), std::string::npos);
    EXPECT_EQ(log.Errors().size(), text.starts_with("EXCEPTION") ? 2u : 0u) << lua;
  }
}

}  // namespace
}  // namespace event_service
