#include "platform/conf_parser/conf_parser.h"

#include <gtest/gtest.h>

#include "tests/support/sandbox_root.h"

namespace event_service {
namespace {

TEST(ConfParser, FindsTheValueOfAKey) {
  const struct {
    const char* what;
    const char* content;
    const char* value;
  } cases[] = {
      {"a plain line", "KEY=value\n", "value"},
      {"blanks around both", " \tKEY = two words \t\r\n", "two words"},
      {"no line end, signs in the value", "OTHER=1\nKEY=a=b#c", "a=b#c"},
      {"the last of two", "KEY=first\nKEY=last\n", "last"},
      {"a comment", "#KEY=value\n", ""},
      {"the beginning of a key, its end, other capitals", "KEYS=1\nMYKEY=2\nkey=3\n", ""},
      {"a line without separator", "KEY\nKEY value\n", ""},
      {"nothing", "", ""},
  };
  const SandboxRoot sandbox;
  for (const auto& row : cases) {
    WriteFile(sandbox.Paths().configuration, row.content);
    EXPECT_EQ(getConfigValue(sandbox.Paths().configuration, "KEY", 128), row.value) << row.what;
  }
  EXPECT_EQ(getConfigValue(sandbox.Root() + "/missing", "KEY", 128), "");
  EXPECT_EQ(getConfigValue(sandbox.Root(), "KEY", 128), "") << "a folder";
}

TEST(ConfParser, TheLimitCountsTheTerminatingNulAndEmptyIsNotAbsent) {
  const SandboxRoot sandbox;
  const std::string longest(127, 'v');
  const std::string path = sandbox.Paths().configuration;
  WriteFile(path, "LONG=" + longest + "\nBEYOND=x\nBEYOND=" + longest + "v\nEMPTY=\nNAME: value\n");
  const struct {
    const char* file;
    const char* separator;
    const char* key;
    int result;
    std::string value;
  } cases[] = {
      {path.c_str(), "=", "LONG", 0, longest},  {path.c_str(), "=", "BEYOND", -1, ""},
      {path.c_str(), "=", "EMPTY", 0, ""},      {path.c_str(), "=", "ABSENT", -1, ""},
      {path.c_str(), ": ", "NAME", 0, "value"}, {nullptr, "=", "NAME", -1, ""},
      {path.c_str(), "", "NAME", -1, ""},
  };
  for (const auto& row : cases) {
    char buffer[128] = "";
    EXPECT_EQ(getPropertyValue(row.file, row.separator, row.key, buffer, sizeof buffer), row.result) << row.key;
    EXPECT_EQ(buffer, row.value);
  }
}

}  // namespace
}  // namespace event_service
