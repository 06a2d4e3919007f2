// The forms of single texts: URIs, time stamps, SNMP keys, names.
#include <algorithm>

#include "requests/event_service/time_stamp_form.h"
#include "service/static_tables.h"
#include "subscriptions/judgement/header_validation.h"
#include "subscriptions/judgement/snmp_keys.h"
#include "subscriptions/judgement/uri_forms.h"
#include "subscriptions/resource/member_uri.h"
#include "tests/fuzz/fuzz.h"

namespace event_service::fuzz {
namespace {

bool IsVisible(std::string_view text) {
  return std::ranges::all_of(text, [](unsigned char c) { return c > ' ' && c < 0x7f; });
}

void CheckDestinations(std::string_view text) {
  for (const std::string_view protocol : kProtocols) {
    if (!IsDestinationFor(protocol, text)) continue;
    Require(IsVisible(text), "a destination holds neither blanks nor control characters");
    Require(text.find_first_of("\"<>\\^`{|}") == std::string_view::npos, "nor what no URI may hold");
    const size_t begin = text.find("://") == std::string_view::npos ? 0 : text.find("://") + 3;
    const std::string_view authority = text.substr(begin, text.find_first_of("/?#", begin) - begin);
    const bool isMail = protocol == "SMTP";
    const size_t user = authority.rfind('@');
    Require(isMail || user == std::string_view::npos || authority.substr(0, user).find(':') == std::string_view::npos,
            "nor a password");
  }
}

/// Whatever a password is made of, it is not shown with the destination that it stands in.
void CheckPasswords(std::string_view text) {
  constexpr std::string_view kMark = "-secret-";
  const bool isPartOfUri = text.starts_with("//") || text.find('@') != std::string_view::npos;
  if (isPartOfUri || text.find(kMark) != std::string_view::npos) return;
  for (const char* prefix : {"https://user:", "snmp://:", "mailto:user:", "user:"}) {
    const std::string destination = prefix + std::string(text) + std::string(kMark) + "@host";
    Require(WithoutPassword(destination).find(kMark) == std::string::npos, "no password is shown");
  }
}

void CheckReference(std::string_view text) {
  if (!IsResourceReference(text)) return;
  Require(text.starts_with("/redfish/v1/") && IsVisible(text), "a reference is one word below the service root");
  const std::string_view path = text.substr(0, text.find_first_of("?#"));
  Require(path.find("/../") == std::string_view::npos && !path.ends_with("/.."), "and does not lead out of it");
}

}  // namespace

void Fuzz(std::string_view input) {
  CheckDestinations(input);
  CheckPasswords(input);
  CheckReference(input);
  IsTimeStamp(input);
  IsSnmpAuthenticationKey(input);
  IsSnmpEncryptionKey(input);
  Require(!IsHeaderName(input) || IsVisible(input), "a header's name is a token");
  const std::string_view id = MemberIdOf(input);
  Require(!IsUndeletableSubscriptionUri(input) || input.starts_with(MemberUri("")),
          "what cannot be deleted is a member");
  Require(id.empty() || MemberUri(id) == input, "a member's URI is the collection's with its Id");
}

}  // namespace event_service::fuzz
