/// Answers as short texts, and tables of the faults that they tell.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "requests/answer.h"
#include "requests/event_service/test_event.h"
#include "tests/support/redis_test.h"

namespace event_service {

/// "FAILURE PropertyValueTypeError(5, Id) @Id, PropertyUnknown(Foo) @Foo". The Base registry's name is left out, "#"
/// stands for the name of the action SubmitTestEvent.
inline std::string InShort(const Answer& answer) {
  constexpr std::string_view kBase = "Base.1.12.";
  std::string text(answer.status);
  for (const Message& message : answer.messages) {
    text += (&message == answer.messages.data() ? " " : ", ");
    text += message.id.substr(message.id.starts_with(kBase) ? kBase.size() : 0);
    std::vector<std::string> args = message.args;
    std::ranges::replace(args, std::string(kSubmitTestEventAction), "#");
    text += "(" + CommaSeparated(args) + ")";
    for (const std::string& path : message.relatedProperties) text += " @" + path;
  }
  return text;
}

/// Rows of a fault (none: the values are taken), the properties that have it, the values and, where it matters, the
/// kind of the body. `judge` gives the messages about a body of this kind with the value at this place.
template <typename Judge>
void ExpectFaults(const char* rows, Judge judge) {
  for (const Json& row : Json::parse(rows)) {
    const std::string fault = row[0];
    for (const std::string path : row[1]) {
      for (const Json& value : row[2]) {
        const Json& shown = fault.ends_with("FormatError") && value.is_object() ? value["@odata.id"] : value;
        const std::string text = shown.is_string() ? shown.get<std::string>() : shown.dump();
        const bool namesValue = fault.find("Value") != std::string::npos && !fault.ends_with("ValueError");
        const std::string action = fault.starts_with("Action") ? ", #" : "";
        const std::string kind = row.size() > 3 ? row[3] : "";
        const std::string message = fault + "(" + (namesValue ? text + ", " : "") + path + action + ") @" + path;
        EXPECT_EQ(InShort({{}, judge(kind, Json::json_pointer("/" + path), value)}),
                  fault.empty() ? "" : " " + message);
      }
    }
  }
}

}  // namespace event_service
