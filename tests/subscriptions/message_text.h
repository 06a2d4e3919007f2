/// Messages and answers as one line each, for readable expectations.
#pragma once

#include <string>
#include <vector>

#include "requests/answer.h"

namespace event_service {

inline std::string Joined(const std::vector<std::string>& texts) {
  std::string joined;
  for (size_t i = 0; i < texts.size(); ++i) joined += (i == 0 ? "" : ", ") + texts[i];
  return joined;
}

/// "PropertyValueTypeError(5, Context) @Context"; the Base registry's name is left out.
inline std::string MessageText(const Message& message) {
  constexpr std::string_view kBase = "Base.1.12.";
  std::string text = message.id.starts_with(kBase) ? message.id.substr(kBase.size()) : message.id;
  text += '(' + Joined(message.args) + ')';
  if (!message.relatedProperties.empty()) text += " @" + Joined(message.relatedProperties);
  return text;
}

inline std::vector<std::string> MessageTexts(const std::vector<Message>& messages) {
  std::vector<std::string> texts;
  for (const Message& message : messages) texts.push_back(MessageText(message));
  return texts;
}

}  // namespace event_service
