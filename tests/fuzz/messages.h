/// What messages about a body hold: no secrets, which are made recognisable, and nothing without end.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "requests/answer.h"
#include "resource_store/store_encoding.h"
#include "tests/fuzz/fuzz.h"

namespace event_service::fuzz {

inline constexpr std::string_view kMark = "@secret@";

/// True for a body that holds the mark by itself; nothing can be told from it.
inline bool HoldsMark(const Json& body) { return body.dump().find(kMark) != std::string::npos; }

/// The body with every text marked that is a secret, or stands in a member whose name makes it one.
inline Json WithMarkedSecrets(Json value, bool isSecret = false) {
  constexpr std::string_view kSecrets[] = {"AuthenticationKey", "EncryptionKey", "HttpHeaders", "Password",
                                           "TrapCommunity"};
  if (isSecret && value.is_string()) value.get_ref<std::string&>() += kMark;
  if (!value.is_structured()) return value;
  for (auto item = value.begin(); item != value.end(); ++item) {
    const bool isNamed = value.is_object() && std::ranges::find(kSecrets, item.key()) != std::end(kSecrets);
    *item = WithMarkedSecrets(std::move(*item), isSecret || isNamed);
  }
  return value;
}

/// The messages about a marked body, or about any.
inline void CheckMessages(const std::vector<Message>& messages) {
  constexpr std::ptrdiff_t kMostCharacters = 256;
  for (const Message& message : messages) {
    for (const std::string& argument : message.args) {
      Require(argument.find(kMark) == std::string::npos, "no message repeats a secret");
      const auto beginsCharacter = [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; };
      Require(std::ranges::count_if(argument, beginsCharacter) <= kMostCharacters, "no argument is longer");
    }
  }
}

}  // namespace event_service::fuzz
