/// Secrets in bodies, made recognisable.
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

inline void RequireNoSecretIn(const std::vector<Message>& messages) {
  for (const Message& message : messages) {
    for (const std::string& argument : message.args) {
      Require(argument.find(kMark) == std::string::npos, "no message repeats a secret");
    }
  }
}

}  // namespace event_service::fuzz
