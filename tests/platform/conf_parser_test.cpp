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
      {"no line end", "OTHER=1\nKEY=value", "value"},
      {"separators in the value", "KEY=a=b=c\n", "a=b=c"},
      {"the last of two", "KEY=first\nKEY=last\n", "last"},
      {"a comment", "#KEY=value\n", ""},
      {"a number sign inside", "KEY=a#b\n", "a#b"},
      {"the beginning of a key, its end, other capitals", "KEYS=1\nMYKEY=2\nkey=3\n", ""},
      {"a line without separator", "KEY\nKEY value\n", ""},
      {"no value", "KEY=\n", ""},
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

TEST(ConfParser, TheLimitCountsTheTerminatingNul) {
  const SandboxRoot sandbox;
  const std::string& file = sandbox.Paths().configuration;
  const std::string longest(127, 'v');
  char buffer[128];

  WriteFile(file, "KEY=" + longest + "\n");
  EXPECT_EQ(getConfigValue(file, "KEY", 128), longest);
  EXPECT_EQ(getPropertyValue(file.c_str(), "=", "KEY", buffer, sizeof buffer), 0);
  EXPECT_EQ(buffer, longest);

  WriteFile(file, "KEY=short\nKEY=" + longest + "v\n");
  EXPECT_EQ(getConfigValue(file, "KEY", 128), "");
  EXPECT_EQ(getPropertyValue(file.c_str(), "=", "KEY", buffer, sizeof buffer), -1);
  EXPECT_STREQ(buffer, "");
}

TEST(ConfParser, TellsAnEmptyValueFromAnAbsentKey) {
  const SandboxRoot sandbox;
  const char* file = sandbox.Paths().configuration.c_str();
  WriteFile(file, "EMPTY=\nNAME: value\n");
  char buffer[16] = "before";
  EXPECT_EQ(getPropertyValue(file, "=", "EMPTY", buffer, sizeof buffer), 0);
  EXPECT_STREQ(buffer, "");
  EXPECT_EQ(getPropertyValue(file, "=", "ABSENT", buffer, sizeof buffer), -1);
  EXPECT_EQ(getPropertyValue(file, ": ", "NAME", buffer, sizeof buffer), 0) << "another separator";
  EXPECT_STREQ(buffer, "value");
  EXPECT_EQ(getPropertyValue(nullptr, "=", "NAME", buffer, sizeof buffer), -1);
  EXPECT_EQ(getPropertyValue(file, "", "NAME", buffer, sizeof buffer), -1);
  EXPECT_EQ(getPropertyValue(file, "=", "EMPTY", nullptr, 0), -1);
}

}  // namespace
}  // namespace event_service
