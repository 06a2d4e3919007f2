#include "platform/conf_parser/conf_parser.h"

#include <gtest/gtest.h>

#include "tests/support/sandbox_root.h"

namespace event_service {
namespace {

TEST(ConfParser, BothFunctionsFindTheValueOfAKey) {
  const std::string longest(127, 'v');  // beside the terminating NUL
  const struct {
    std::string content;
    std::string value;
    int result = 0;
  } cases[] = {
      {" \tKEY = two words \t\r\n", "two words"},
      {"OTHER=1\nKEY=a=b#c", "a=b#c"},
      {"KEY=first\nKEY=last\n", "last"},
      {"KEY=" + longest, longest},
      {"KEY=x\nKEY=" + longest + "v", "", -1},
      {"KEY=\n", ""},
      {"#KEY=1\nKEYS=1\nMYKEY=2\nkey=3\nKEY\nKEY value\n", "", -1},
  };
  const SandboxRoot sandbox;
  const std::string path = sandbox.Paths().configuration;
  for (const auto& row : cases) {
    WriteFile(path, row.content);
    char buffer[128] = "";
    EXPECT_EQ(getConfigValue(path, "KEY", sizeof buffer), row.value) << row.content;
    EXPECT_EQ(getPropertyValue(path.c_str(), "=", "KEY", buffer, sizeof buffer), row.result) << row.content;
    EXPECT_EQ(buffer, row.value);
  }
}

}  // namespace
}  // namespace event_service
