#include "subscriptions/judgement/uri_forms.h"

#include <strings.h>
#include <uriparser/Uri.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>

#include "foundation/characters.h"
#include "foundation/text_numbers.h"

namespace event_service {
namespace {

struct UriDeleter {
  void operator()(UriUriA* uri) const {
    uriFreeUriMembersA(uri);
    delete uri;
  }
};
using Uri = std::unique_ptr<UriUriA, UriDeleter>;  // points into the text that was parsed

/// Null for a text that is no URI reference.
Uri ParseUri(std::string_view text) {
  auto uri = std::make_unique<UriUriA>();
  const char* errorPosition = nullptr;
  if (uriParseSingleUriExA(uri.get(), text.data(), text.data() + text.size(), &errorPosition) != URI_SUCCESS) {
    return nullptr;  // the parser has released what it had built
  }
  return Uri(uri.release());
}

std::string_view TextOf(const UriTextRangeA& range) {
  if (range.first == nullptr) return {};
  return {range.first, static_cast<size_t>(range.afterLast - range.first)};
}

bool EqualIgnoringCase(std::string_view left, std::string_view right) {
  return left.size() == right.size() && strncasecmp(left.data(), right.data(), left.size()) == 0;
}

/// True for a text of letters, digits and some other characters.
bool IsMadeOf(std::string_view text, std::string_view others) {
  return !text.empty() && std::ranges::all_of(text, [others](char c) {
    return IsAlphanumeric(c) || others.find(c) != std::string_view::npos;
  });
}

/// Stricter than a URI's registered name, which may hold escapes and "*": these texts end in resolvers, on command
/// lines and in the configuration of other services.
bool IsHostName(std::string_view text) {
  for (;;) {
    const std::string_view label = text.substr(0, text.find('.'));
    if (!IsMadeOf(label, "-_") || label.front() == '-') return false;
    if (label.size() == text.size()) return true;
    text.remove_prefix(label.size() + 1);
  }
}

/// The parser gives the text of a future kind of address ("[v1.a]") without its brackets, as if it were a name.
bool HasHost(const UriUriA& uri) {
  if (uri.hostData.ipFuture.first != nullptr) return false;
  return uri.hostData.ip6 != nullptr || IsHostName(TextOf(uri.hostText));
}

/// An empty port ("http://host:/") means the scheme's own, as no port does.
bool HasValidPort(const UriUriA& uri) {
  const std::string_view port = TextOf(uri.portText);
  if (port.empty()) return true;
  uint16_t number = 0;
  return ParseInteger(port, number) == std::errc{} && number != 0;
}

/// Takes the zone out of "[fe80::1%25eth0]" (RFC 6874), which the parser does not know.
std::string WithoutZone(std::string_view text) {
  constexpr std::string_view kZoneSign = "%25";
  const size_t sign = text.substr(0, text.find(']')).find(kZoneSign);
  if (sign > text.size()) return std::string(text);
  const size_t end = text.find(']');
  const std::string_view zone = text.substr(sign, end - sign).substr(kZoneSign.size());
  if (end == std::string_view::npos || !IsMadeOf(zone, "-._~")) return std::string(text);
  return std::string(text.substr(0, sign)).append(text.substr(end));
}

/// Credentials in a URI would be shown to everyone who may read the subscription.
enum class UserInfo { kNone, kNameAlone };

bool HasFineUserInfo(const UriUriA& uri, UserInfo taken) {
  if (uri.userInfo.first == nullptr) return true;
  return taken == UserInfo::kNameAlone && TextOf(uri.userInfo).find(':') == std::string_view::npos;
}

bool IsUriWithHost(std::string_view text, std::string_view scheme, UserInfo taken) {
  const std::string parsed = WithoutZone(text);
  const Uri uri = ParseUri(parsed);
  return uri && EqualIgnoringCase(TextOf(uri->scheme), scheme) && HasHost(*uri) && HasValidPort(*uri) &&
         HasFineUserInfo(*uri, taken);
}

/// A bare host or host:port is a URI that stops there.
bool IsUriOrHost(std::string_view text, std::string_view scheme, UserInfo taken) {
  constexpr std::string_view kAuthority = "://";
  if (text.find(kAuthority) != std::string_view::npos) return IsUriWithHost(text, scheme, taken);
  return text.find_first_of("/?#") == std::string_view::npos && !text.ends_with(':') &&
         IsUriWithHost(std::string(scheme).append(kAuthority).append(text), scheme, UserInfo::kNone);
}

bool IsHttpDestination(std::string_view text) {
  const bool isSecure = EqualIgnoringCase(text.substr(0, text.find(':')), "https");
  return IsUriWithHost(text, isSecure ? "https" : "http", UserInfo::kNone);
}

bool IsSnmpDestination(std::string_view text) { return IsUriOrHost(text, "snmp", UserInfo::kNameAlone); }

bool IsSyslogDestination(std::string_view text) { return IsUriOrHost(text, "syslog", UserInfo::kNone); }

constexpr std::string_view kMailScheme = "mailto:";

bool IsMailUri(std::string_view text) { return EqualIgnoringCase(text.substr(0, kMailScheme.size()), kMailScheme); }

/// One plain address and nothing else: header fields, escapes and lists are ways into the head of the mail.
bool IsMailDestination(std::string_view text) {
  if (!IsMailUri(text)) return false;
  text.remove_prefix(kMailScheme.size());
  const size_t at = text.find('@');
  if (at == std::string_view::npos) return false;
  return IsMadeOf(text.substr(0, at), "!$&'*+-.=_~") && text.front() != '-' && IsHostName(text.substr(at + 1));
}

struct DestinationForm {
  std::string_view protocol;
  bool (*fits)(std::string_view text);
};
constexpr DestinationForm kDestinationForms[] = {
    {"Redfish", IsHttpDestination},     {"SNMPv1", IsSnmpDestination}, {"SNMPv2c", IsSnmpDestination},
    {"SNMPv3", IsSnmpDestination},      {"SMTP", IsMailDestination},   {"SyslogTCP", IsSyslogDestination},
    {"SyslogTLS", IsSyslogDestination},
};

bool IsDotSegment(std::string_view segment) { return segment == "." || segment == ".."; }

}  // namespace

bool IsDestinationFor(std::string_view protocol, std::string_view destination) {
  const auto* form = std::ranges::find(kDestinationForms, protocol, &DestinationForm::protocol);
  return form != std::end(kDestinationForms) && form->fits(destination);
}

std::string WithoutPassword(std::string_view destination) {
  const size_t at = destination.rfind('@');
  if (at == std::string_view::npos) return std::string(destination);
  std::string_view userInfo = destination.substr(0, at);
  // A later "://" may be a part of the password.
  if (const size_t colon = userInfo.find(':');
      colon != std::string_view::npos && userInfo.substr(colon).starts_with("://")) {
    userInfo.remove_prefix(colon + 3);
  } else if (IsMailUri(userInfo)) {
    userInfo.remove_prefix(kMailScheme.size());
  }
  if (userInfo.find(':') == std::string_view::npos) return std::string(destination);
  return std::string("...").append(destination.substr(at));
}

bool IsResourceReference(std::string_view uri) {
  if (!uri.starts_with("/redfish/v1/")) return false;
  const Uri parsed = ParseUri(uri);
  if (!parsed) return false;
  for (const UriPathSegmentA* segment = parsed->pathHead; segment != nullptr; segment = segment->next) {
    if (IsDotSegment(TextOf(segment->text))) return false;
  }
  return true;
}

}  // namespace event_service
